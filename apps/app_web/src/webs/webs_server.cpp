// The server: set-up, the listening socket, the event loop and the life of a request.
//
// libmicrohttpd runs in external-loop mode with epoll on the thread that calls
// websServiceEvents, inside the layer's EventLoop (which also watches the device
// applications' sockets and runs the timers). An action procedure is called as soon as its
// request's line and headers are in; a request whose answer is not ready when the procedure
// (or its body's continuation) returns is suspended, and resumed once it is.
#include "common/log.h"
#include "webs/webs_framing.h"
#include "webs/webs_guard.h"
#include "webs/webs_internal.h"
#include "webs/webs_limits.h"
#include "webs/webs_version.h"

#include <arpa/inet.h>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <netinet/in.h>
#include <set>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace webs {

using namespace webs_limits;

namespace {

// The open server. websOpen makes a fresh one and websClose drops it whole, so nothing of
// one open can reach the next. Members go in the reverse of their order here: everything
// that watches or times on the loop goes before it.
struct Server {
    bool closing = false;  // websClose runs: requests still waiting are answered 503
    std::string documents;
    DocumentConfig docs;
    DocumentCache cache;
    std::vector<Route> routes;
    std::string ipaddr, host;
    std::string device_name;  // the host name a browser may use for the device (besides literals)
    std::map<std::string, WebsAction, std::less<>> actions;
    std::unique_ptr<EventLoop> loop;
    MHD_Daemon *daemon = nullptr;
    UniqueFd root_fd;
    EventLoop::Watch daemon_watch;  // libmicrohttpd's own epoll set: network activity wakes the loop
    EventLoop::Timer sweep;         // the next check of the header deadlines
    std::set<WebsPrivate *> suspended;
    // The last turn of the event loop took in body data: more is likely waiting, so the next
    // turn goes to libmicrohttpd at once instead of waiting first (a large upload then costs
    // one wait per piece instead of two).
    bool took_body = false;
};

std::unique_ptr<Server> srv;  // nullptr while no server is open

// The listening socket is looked up by the main thread (socketGetHandle) while the web
// server thread may be closing it.
std::mutex listen_mutex;
int listen_id = -1;
int listen_fd = -1;
std::atomic<int> next_listen_id{0};

constexpr char kDefaultIndex[] = "index.html";

// ---- request routing

// Checks the decoded path and returns it with repeated slashes folded, or "" when it must
// not be used: NUL bytes (seen as "%00" in the raw target), backslashes, "." or ".."
// segments, or a path that is not absolute.
std::string normal_path(const std::string &raw_target, const char *decoded)
{
    if (!decoded || decoded[0] != '/' || strchr(decoded, '\\'))
        return {};
    std::string_view raw_path(raw_target);
    raw_path = raw_path.substr(0, raw_path.find('?'));
    for (size_t i = raw_path.find('%'); i != std::string_view::npos; i = raw_path.find('%', i + 1))
        if (raw_path.substr(i + 1, 2) == "00")
            return {};
    std::string out;
    std::string_view rest(decoded);
    while (!rest.empty()) {
        rest.remove_prefix(1);  // the '/'
        size_t end = rest.find('/');
        std::string_view seg = rest.substr(0, end);
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end);
        if (seg == "." || seg == "..")
            return {};
        if (seg.empty() && !rest.empty())
            continue;  // "//"
        out += '/';
        out += seg;
    }
    return out.empty() ? "/" : out;
}

// The first path segment behind the route prefix: "/action/device/login" under "/action"
// gives "device".
std::string_view action_name(const Route &route, std::string_view path)
{
    std::string_view rest = route.prefix == "/" ? path : path.substr(route.prefix.size());
    while (!rest.empty() && rest.front() == '/')
        rest.remove_prefix(1);
    return rest.substr(0, rest.find('/'));
}

MHD_Result send_refusal(WebsPrivate *r)
{
    r->state = RequestState::Answered;
    return queue_error_page(r->connection, static_cast<unsigned>(r->refusal), r->refusal_message,
                            r->allow.empty() ? nullptr : r->allow.c_str(), r->close_after_refusal);
}

// Refuses a request once the rest of its body has been read and dropped, which keeps the
// connection for the next request (a route or method refused, a body refused mid-way). A
// refusal that must not wait for a body (the body of a caller refused, too large, or without
// room in /tmp) is sent at once with send_refusal: libmicrohttpd then closes the connection
// instead of reading the body.
MHD_Result refuse(WebsPrivate *r, int status, const char *message, const std::string &allow = {})
{
    r->refusal = status;
    r->refusal_message = message;
    r->allow = allow;
    r->state = RequestState::Discarding;
    return MHD_YES;
}

// Drops body bytes nobody uses; past kMaxDiscard the connection is closed rather than read on.
MHD_Result drop_body(WebsPrivate *r, size_t *upload_data_size)
{
    r->discarded += *upload_data_size;
    *upload_data_size = 0;
    return r->discarded <= kMaxDiscard ? MHD_YES : MHD_NO;
}

// ---- a waiting request

void resume(WebsPrivate *r);

// Watches the connection of a suspended request: a client that closes or half-closes it is
// gone, and its request need not be answered any more.
void watch_for_hang_up(WebsPrivate *r)
{
    const MHD_ConnectionInfo *info = MHD_get_connection_info(r->connection, MHD_CONNECTION_INFO_CONNECTION_FD);
    if (!info)
        return;
    r->gone_watch = srv->loop->watch(info->connect_fd, EPOLLRDHUP, [r](uint32_t) {
        r->gone = true;
        trace(kRequestTraceLevel, "http: client of %s went away\n", r->url.c_str());
        resume(r);
    });
}

void suspend(WebsPrivate *r)
{
    MHD_suspend_connection(r->connection);
    r->suspended = true;
    srv->suspended.insert(r);
    watch_for_hang_up(r);
}

// Lets libmicrohttpd call the handler of a suspended request again: its reply is ready, its
// body is wanted, or its client went.
void resume(WebsPrivate *r)
{
    if (!r->suspended)
        return;  // still inside the handler, which looks once it returns
    r->suspended = false;
    r->gone_watch.reset();
    srv->suspended.erase(r);
    MHD_resume_connection(r->connection);
}

// The reply the layer gives a request that nobody answers or holds any more.
void answer_abandoned(WebsPrivate *r)
{
    if (r->done.load(std::memory_order_acquire))
        return;
    if (srv->closing) {
        reply_failed(r, MHD_HTTP_SERVICE_UNAVAILABLE, "The server is shutting down");
        return;
    }
    HTTP_ERROR("action for %s returned without a reply\n", r->url.c_str());
    reply_failed(r, MHD_HTTP_INTERNAL_SERVER_ERROR, "The action did not reply");
}

// Whether the action side still has something to do for the request.
bool awaited(const WebsPrivate *r) { return r->holds.load(std::memory_order_acquire) > 0; }

// A request answered before its body was read: libmicrohttpd closes the connection after
// the reply, and the connection lingers so that the rest of the body cannot reset it.
void mark_body_unread(WebsPrivate *r)
{
    if (!r->conn)
        return;
    const char *length = MHD_lookup_connection_value(r->connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH);
    bool body = MHD_lookup_connection_value(r->connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_TRANSFER_ENCODING) ||
                (length && strcmp(length, "0") != 0);
    if (body)
        r->conn->linger = true;
}

// What happens once a procedure or a continuation has returned.
MHD_Result after_action(WebsPrivate *r)
{
    if (r->gone)
        return MHD_NO;
    if (r->state == RequestState::Deciding && (r->done.load(std::memory_order_acquire) || !awaited(r)))
        mark_body_unread(r);
    if (r->done.load(std::memory_order_acquire)) {
        r->state = RequestState::Answered;
        return queue_action_reply(r);
    }
    if (r->state == RequestState::Deciding && r->body_wanted) {
        // The caller passed: now the body may come (libmicrohttpd sends a "100 Continue" that
        // a client asked for only from here on).
        r->state = RequestState::Receiving;
        if (int status = request_begin_body(r)) {
            mark_body_unread(r);
            refuse(r, status, body_refusal_text(status));
            return send_refusal(r);
        }
        return MHD_YES;
    }
    if (!awaited(r) || srv->closing) {
        answer_abandoned(r);
        r->state = RequestState::Answered;
        return queue_action_reply(r);
    }
    suspend(r);
    return MHD_YES;
}

// Calls the procedure (at the headers) or the body's continuation.
MHD_Result call_action(WebsPrivate *r, const std::function<void(Webs *)> &fn)
{
    r->in_handler = true;
    fn(&r->wp);
    r->in_handler = false;
    return after_action(r);
}

// The record a procedure sees at the headers: the target and the method; the body comes later.
void fill_head(WebsPrivate *r)
{
    r->wp.url = r->url.data();
    r->wp.method = r->method.data();
    r->wp.input.servp = r->wp.input.endp = r->body.data();
}

// The client's address as text.
std::string peer_text(MHD_Connection *connection)
{
    const MHD_ConnectionInfo *info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
    char text[INET6_ADDRSTRLEN] = "";
    if (info && info->client_addr) {
        const sockaddr *sa = info->client_addr;
        if (sa->sa_family == AF_INET)
            inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in *>(sa)->sin_addr, text, sizeof text);
        else if (sa->sa_family == AF_INET6)
            inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6 *>(sa)->sin6_addr, text, sizeof text);
    }
    return text;
}

// Why a request is refused before it is routed, or nullptr: its framing leaves its end in
// doubt (400), it names another host than this device (421: a page that rebound its own DNS
// name to the device), or it is a POST from another site (403). *status is the refusal's.
const char *refused_before_routing(WebsPrivate *r, const char *method, const char *version, unsigned *status)
{
    bool http11 = version && strcmp(version, MHD_HTTP_VERSION_1_1) == 0;
    if (const char *fault = framing_fault(request_header_fields(r->connection), http11)) {
        // The connection goes with the refusal: a hidden second request is never read.
        r->close_after_refusal = true;
        *status = MHD_HTTP_BAD_REQUEST;
        return fault;
    }
    const char *host = MHD_lookup_connection_value(r->connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_HOST);
    if (!host_allowed(host, srv->device_name)) {
        *status = MHD_HTTP_MISDIRECTED_REQUEST;
        return "This device does not answer for that host name";
    }
    const char *origin = MHD_lookup_connection_value(r->connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_ORIGIN);
    if (strcmp(method, MHD_HTTP_METHOD_POST) == 0 && !origin_allowed(origin, host)) {
        *status = MHD_HTTP_FORBIDDEN;
        return "Requests from another site are refused";
    }
    return nullptr;
}

MHD_Result begin_request(WebsPrivate *r, const char *url, const char *method, const char *version)
{
    r->method = method;
    r->conn = connection_of(r->connection);
    connection_request_started(r->conn);
    unsigned status = 0;
    if (const char *why = refused_before_routing(r, method, version, &status)) {
        r->state = RequestState::Deciding;  // nothing of its body has been read
        mark_body_unread(r);
        refuse(r, static_cast<int>(status), why);
        return send_refusal(r);
    }
    if (r->url.size() > kMaxTarget)
        return refuse(r, MHD_HTTP_URI_TOO_LONG, "Request target too long");
    std::string path = normal_path(r->url, url);
    if (path.empty())
        return refuse(r, MHD_HTTP_BAD_REQUEST, "Bad request path");
    const Route *route = match_route(srv->routes, path);
    if (!route)
        return refuse(r, MHD_HTTP_NOT_FOUND, "No route for this path");
    if (route->methods.empty())
        return refuse(r, MHD_HTTP_FORBIDDEN, "Access denied");
    if (!route_allows(*route, method))
        return refuse(r, MHD_HTTP_METHOD_NOT_ALLOWED, "Method not allowed here", route->allow);

    if (route->handler == Handler::File) {
        if (strcmp(method, MHD_HTTP_METHOD_GET) != 0 && strcmp(method, MHD_HTTP_METHOD_HEAD) != 0)
            return refuse(r, MHD_HTTP_METHOD_NOT_ALLOWED, "Documents are fetched with GET or HEAD", "GET, HEAD");
        // Answered once the (empty) body has been read: a reply queued before that makes
        // libmicrohttpd close the connection, and documents should keep it alive.
        r->state = RequestState::Document;
        r->path = std::move(path);
        return MHD_YES;
    }

    std::string_view name = action_name(*route, path);
    auto it = srv->actions.find(name);
    if (name.empty() || it == srv->actions.end())
        return refuse(r, MHD_HTTP_NOT_FOUND, "No such action");
    if (srv->closing) {
        mark_body_unread(r);
        refuse(r, MHD_HTTP_SERVICE_UNAVAILABLE, "The server is shutting down");
        return send_refusal(r);
    }
    r->proc = it->second;
    r->peer = peer_text(r->connection);  // for the actions alone: documents never need it
    r->state = RequestState::Deciding;
    fill_head(r);
    return call_action(r, [r](Webs *wp) { r->proc(wp); });
}

MHD_Result finish_body(WebsPrivate *r)
{
    if (request_finish_body(r) != 0)
        return send_refusal(r);
    if (srv->closing) {
        // The last turns of the event loop in websClose: the actions' queues are gone.
        refuse(r, MHD_HTTP_SERVICE_UNAVAILABLE, "The server is shutting down");
        return send_refusal(r);
    }
    r->state = RequestState::Running;
    std::function<void(Webs *)> next = std::move(r->next);
    return call_action(r, next);
}

MHD_Result access_handler(void *, MHD_Connection *connection, const char *url, const char *method, const char *version,
                          const char *upload_data, size_t *upload_data_size, void **req_cls)
{
    auto *r = static_cast<WebsPrivate *>(*req_cls);
    if (!r) {  // no target was reported for this request
        r = request_new("", connection);
        *req_cls = r;
    }
    if (r->gone) {
        r->state = RequestState::Dropped;
        return MHD_NO;
    }
    switch (r->state) {
    case RequestState::New:
        return begin_request(r, url, method, version);
    case RequestState::Deciding:
        // Called again at the headers once resumed: the answer is ready or the body wanted.
        return after_action(r);
    case RequestState::Receiving:
    case RequestState::Discarding:
        if (*upload_data_size > 0) {
            srv->took_body = true;
            if (r->state == RequestState::Discarding)
                return drop_body(r, upload_data_size);  // the rest of a refused body
            bool keep = request_take_body(r, upload_data, *upload_data_size);
            *upload_data_size = 0;
            return keep ? MHD_YES : MHD_NO;
        }
        if (r->state == RequestState::Discarding)
            return send_refusal(r);
        return finish_body(r);
    case RequestState::Document:
        if (*upload_data_size > 0)
            return drop_body(r, upload_data_size);  // a body sent with a GET means nothing
        r->state = RequestState::Answered;
        return serve_document(r->connection, method, r->path);
    case RequestState::Running:
        // Called again once resumed: the reply is complete.
        return after_action(r);
    case RequestState::Answered:
        return drop_body(r, upload_data_size);  // the body of a refused request
    case RequestState::Dropped:
        return MHD_NO;
    }
    return MHD_NO;
}

void *uri_logger(void *, const char *uri, MHD_Connection *connection) { return request_new(uri, connection); }

void request_completed(void *, MHD_Connection *, void **req_cls, MHD_RequestTerminationCode)
{
    auto *r = static_cast<WebsPrivate *>(*req_cls);
    *req_cls = nullptr;
    if (!r)
        return;
    connection_request_ended(r->conn);
    r->connection = nullptr;
    r->conn = nullptr;
    // A continuation that never ran holds the request: without its connection, nobody will.
    r->next = nullptr;
    request_release(r);
}

void mhd_logger(void *, const char *fmt, va_list ap)
{
    char line[kMaxEngineMessage];
    vsnprintf(line, sizeof line, fmt, ap);
    trace(2, "http: %s", line);
}

bool sigpipe_ignored()
{
    struct sigaction sa;
    return sigaction(SIGPIPE, nullptr, &sa) == 0 && sa.sa_handler == SIG_IGN;
}

// Parses "http://HOST:PORT" ("*" for every address); false when it is not such a text.
bool parse_endpoint(const char *endpoint, sockaddr_in *addr)
{
    std::string_view text(endpoint ? endpoint : "");
    if (text.substr(0, 7) == "http://")
        text.remove_prefix(7);
    size_t colon = text.rfind(':');
    if (colon == std::string_view::npos)
        return false;
    std::string host(text.substr(0, colon));
    std::string port(text.substr(colon + 1));
    char *end = nullptr;
    errno = 0;
    long p = port.empty() ? -1 : strtol(port.c_str(), &end, 10);
    if (errno != 0 || p < 0 || p > kMaxTcpPort || (end && *end != '\0'))
        return false;
    *addr = {};
    addr->sin_family = AF_INET;
    addr->sin_port = htons(static_cast<uint16_t>(p));
    if (host.empty() || host == "*")
        addr->sin_addr.s_addr = htonl(INADDR_ANY);
    else if (inet_pton(AF_INET, host.c_str(), &addr->sin_addr) != 1)
        return false;
    return true;
}

void forget_listener()
{
    std::lock_guard<std::mutex> lock(listen_mutex);
    listen_id = -1;
    listen_fd = -1;
}

// Checks the header deadlines once a second while the server runs.
void schedule_sweep()
{
    srv->sweep = srv->loop->after(std::chrono::milliseconds(kConnectionSweepMs), [] {
        connections_sweep();
        schedule_sweep();
    });
}

// Runs fn for r on the event loop: at once on the loop's thread (or once the server has
// closed, when no connection is left to touch), else at the loop's next turn.
void on_loop(WebsPrivate *r, void (*fn)(WebsPrivate *))
{
    if (!srv || srv->loop->on_loop_thread()) {
        fn(r);
        return;
    }
    r->refs.fetch_add(1, std::memory_order_relaxed);
    srv->loop->post([r, fn] {
        fn(r);
        request_release(r);
    });
}

}  // namespace

const DocumentConfig &document_config() { return srv->docs; }
DocumentCache &document_cache() { return srv->cache; }

void reply_completed(WebsPrivate *r)
{
    on_loop(r, [](WebsPrivate *req) { resume(req); });
}

void holds_released(WebsPrivate *r)
{
    on_loop(r, [](WebsPrivate *req) {
        // Still being answered, or in the layer's hands: nothing to do.
        if (awaited(req) || req->done.load(std::memory_order_acquire) || !req->connection)
            return;
        if (req->state != RequestState::Deciding && req->state != RequestState::Running)
            return;
        if (req->state == RequestState::Deciding && req->body_wanted)
            return;
        answer_abandoned(req);
    });
}

}  // namespace webs

using namespace webs;

int websOpen(const char *documents, const char *routeFile)
{
    if (srv)
        websClose();
    char real[PATH_MAX];
    if (!documents || !realpath(documents, real)) {
        HTTP_ERROR("cannot use document root %s: %s\n", documents ? documents : "(null)", strerror(errno));
        return -1;
    }
    auto fresh = std::make_unique<Server>();
    if (load_routes(routeFile, &fresh->routes) < 0)
        return -1;
    fresh->loop = std::make_unique<EventLoop>();
    if (!fresh->loop->ok()) {
        HTTP_ERROR("cannot make the event loop: %s\n", strerror(errno));
        return -1;
    }
    fresh->documents = documents;
    fresh->docs.root = real;
    if (fresh->docs.root == "/")
        fresh->docs.root.clear();  // paths are appended with their leading '/'
    fresh->root_fd.reset(open(real, O_PATH | O_DIRECTORY | O_CLOEXEC));
    fresh->docs.root_fd = fresh->root_fd.get();
    fresh->docs.index = kDefaultIndex;
    fresh->docs.routes = &fresh->routes;
    char name[HOST_NAME_MAX + 1] = "";
    if (gethostname(name, sizeof name - 1) == 0)
        fresh->device_name = name;
    srv = std::move(fresh);
    return 0;
}

void websClose()
{
    if (!srv)
        return;
    srv->closing = true;
    // The actions' parts go first (queues, the worker thread after its running piece, the
    // device exchanges): the requests they held are answered 503 as their holds go.
    srv->loop->close_parts();
    if (srv->daemon) {
        // A suspended connection must not stay suspended when the daemon stops: each is
        // resumed and sends what it has (its 503) or is closed.
        while (!srv->suspended.empty())
            resume(*srv->suspended.begin());
        for (int i = 0; i < kCloseDrainTurns; ++i)
            MHD_run_wait(srv->daemon, 0);
        forget_listener();
        srv->daemon_watch.reset();
        MHD_stop_daemon(srv->daemon);  // closes the listening socket and every connection
    }
    connections_close();
    srv.reset();
}

void websSetIpAddr(const char *ipaddr)
{
    if (srv)
        srv->ipaddr = ipaddr ? ipaddr : "";
}

void websSetHost(const char *host)
{
    if (srv)
        srv->host = host ? host : "";
}

void websSetIndex(const char *filename)
{
    if (srv && filename && *filename && !strchr(filename, '/'))
        srv->docs.index = filename;
}

const char *websGetServer()
{
    if (!srv)
        return "";
    return srv->host.empty() ? srv->ipaddr.c_str() : srv->host.c_str();
}

const char *websGetDocuments() { return srv ? srv->documents.c_str() : ""; }

int websLoad(const char *authFile) { return check_auth(authFile); }

int websListen(const char *endpoint)
{
    if (!srv) {
        error("websListen before websOpen");
        return -1;
    }
    if (srv->daemon) {
        error("already listening");
        return -1;
    }
    sockaddr_in addr;
    if (!parse_endpoint(endpoint, &addr)) {
        error("invalid endpoint %s", endpoint ? endpoint : "(null)");
        return -1;
    }
    UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    int on = 1;
    if (!fd || setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 ||
        listen(fd.get(), kListenBacklog) != 0) {
        error("cannot listen on %s: %s", endpoint, strerror(errno));
        return -1;
    }
    // With SIGPIPE ignored by the process, libmicrohttpd may use sendfile.
    int sigpipe_handled = sigpipe_ignored() ? 1 : 0;
    srv->daemon = MHD_start_daemon(
        MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME | MHD_USE_ERROR_LOG, 0, nullptr, nullptr, access_handler, nullptr,
        MHD_OPTION_EXTERNAL_LOGGER, mhd_logger, nullptr,
        MHD_OPTION_LISTEN_SOCKET, fd.get(),
        MHD_OPTION_URI_LOG_CALLBACK, uri_logger, nullptr,
        MHD_OPTION_NOTIFY_COMPLETED, request_completed, nullptr,
        MHD_OPTION_NOTIFY_CONNECTION, connection_notify, nullptr,
        MHD_OPTION_CONNECTION_LIMIT, kMaxConnections + kConnectionHeadroom,
        MHD_OPTION_PER_IP_CONNECTION_LIMIT, kMaxConnectionsPerAddress,
        MHD_OPTION_CONNECTION_TIMEOUT, kIdleTimeoutSeconds,
        MHD_OPTION_CONNECTION_MEMORY_LIMIT, kConnectionMemory,
        MHD_OPTION_SIGPIPE_HANDLED_BY_APP, sigpipe_handled,
        MHD_OPTION_END);
    if (!srv->daemon) {
        error("cannot start the HTTP engine on %s", endpoint);
        return -1;
    }
    int daemon_fd = MHD_get_daemon_info(srv->daemon, MHD_DAEMON_INFO_EPOLL_FD)->epoll_fd;
    srv->daemon_watch = srv->loop->watch(daemon_fd, EPOLLIN, [](uint32_t) {});
    schedule_sweep();
    std::lock_guard<std::mutex> lock(listen_mutex);
    listen_fd = fd.release();  // libmicrohttpd closes it when the daemon stops
    listen_id = next_listen_id++;
    return listen_id;
}

int socketGetHandle(int sid)
{
    std::lock_guard<std::mutex> lock(listen_mutex);
    return sid >= 0 && sid == listen_id ? listen_fd : -1;
}

int websDefineAction(const char *name, WebsAction proc)
{
    if (!srv || !name || !*name || !proc)
        return -1;
    srv->actions[name] = proc;
    return 0;
}

void websServiceEvents(std::atomic<int> *finished)
{
    if (!srv)
        return;
    EventLoop::Scope scope(*srv->loop);
    while (!finished || !finished->load()) {
        // The lines of a turn are written together at its end, before the next wait.
        LogBatch batch;
        int wait_ms = kMaxLoopWaitMs;
        MHD_UNSIGNED_LONG_LONG due = 0;
        if (srv->took_body)
            wait_ms = 0;
        else if (srv->daemon && MHD_get_timeout(srv->daemon, &due) == MHD_YES && due < static_cast<unsigned>(wait_ms))
            wait_ms = static_cast<int>(due);
        srv->took_body = false;
        srv->loop->run_once(wait_ms);
        if (srv->daemon)
            MHD_run(srv->daemon);
    }
}

void websReadBody(Webs *wp, WebsBodyRule rule, std::function<void(Webs *)> next)
{
    WebsPrivate *r = wp ? wp->priv : nullptr;
    if (!r || r->state != RequestState::Deciding || r->body_wanted)
        return;
    r->rule = rule;
    r->next = std::move(next);
    r->body_wanted = true;
    resume(r);
}

WebsHold::WebsHold(Webs *wp) : wp_(wp)
{
    if (wp_) {
        wp_->priv->refs.fetch_add(1, std::memory_order_relaxed);
        wp_->priv->holds.fetch_add(1, std::memory_order_acq_rel);
    }
}

WebsHold::~WebsHold()
{
    if (!wp_)
        return;
    WebsPrivate *r = wp_->priv;
    if (r->holds.fetch_sub(1, std::memory_order_acq_rel) == 1)
        holds_released(r);
    request_release(r);
}

const char *websClientAddress(const Webs *wp) { return wp && wp->priv ? wp->priv->peer.c_str() : ""; }

bool websClientGone(const Webs *wp) { return wp && wp->priv && wp->priv->gone.load(std::memory_order_relaxed); }

const char *websGetVersion()
{
    static const std::string version = std::string("1.0 (libmicrohttpd ") + MHD_get_version() + ")";
    return version.c_str();
}
