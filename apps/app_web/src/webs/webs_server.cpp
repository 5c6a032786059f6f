// The server: set-up, the listening socket, the event loop, request routing and the action
// thread.
//
// libmicrohttpd runs in external-loop mode with epoll on the thread that calls
// websServiceEvents. An action request is suspended once its body is complete and queued to
// the one action thread, which runs the procedures one at a time in arrival order; the
// procedure's websDone resumes the connection and wakes the event loop, which sends the reply.
#include "common/log.h"
#include "webs/webs_internal.h"
#include "webs/webs_limits.h"
#include "webs/webs_version.h"

#include <arpa/inet.h>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace webs {

using namespace webs_limits;

namespace {

// Runs action procedures one at a time, in arrival order.
class ActionRunner {
public:
    void start()
    {
        stopping_ = false;
        thread_ = std::thread([this] { loop(); });
    }

    // The runner holds a reference to the request until its procedure has returned.
    void push(WebsPrivate *r)
    {
        r->refs.fetch_add(1, std::memory_order_relaxed);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            queue_.push_back(r);
        }
        // Notified after unlocking, so that the woken thread does not block on the lock.
        wake_.notify_one();
    }

    // Lets a running procedure finish, then ends the thread. Returns the requests that never
    // ran; the caller answers them and drops the runner's references.
    std::deque<WebsPrivate *> stop()
    {
        if (!thread_.joinable())
            return {};
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
            wake_.notify_one();
        }
        thread_.join();
        return std::exchange(queue_, {});
    }

private:
    void loop()
    {
        for (;;) {
            WebsPrivate *r;
            {
                std::unique_lock<std::mutex> lock(mutex_);
                wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
                if (stopping_)
                    return;
                r = queue_.front();
                queue_.pop_front();
            }
            r->proc(&r->wp);
            if (!r->done.load(std::memory_order_acquire)) {
                HTTP_ERROR("action for %s returned without a reply\n", r->url.c_str());
                reply_failed(r, MHD_HTTP_INTERNAL_SERVER_ERROR, "The action did not reply");
            }
            request_release(r);
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<WebsPrivate *> queue_;
    bool stopping_ = false;
    std::thread thread_;
};

struct Server {
    bool open = false;
    bool closing = false;  // websClose runs: no request may join the action queue any more
    std::string documents;
    DocumentConfig docs;
    std::vector<Route> routes;
    std::string ipaddr, host;
    std::map<std::string, WebsAction, std::less<>> actions;
    MHD_Daemon *daemon = nullptr;
    UniqueFd root_fd;
    int epoll_fd = -1;  // libmicrohttpd's own, watched by the event loop
    // Wakes the event loop when an action thread resumes a connection: without an internal
    // thread libmicrohttpd has no wake-up of its own, and the reply would wait for the next
    // network event or the loop's time-out.
    UniqueFd wake;
    // Set while a wake-up is written and not yet taken: the action thread then leaves out
    // further writes, the loop's next turn resumes every connection anyway.
    std::atomic<bool> wake_pending{false};
    // The last turn of the event loop took in body data: more is likely waiting, so the next
    // turn goes to libmicrohttpd at once instead of polling first (a large upload then costs
    // one wait per piece instead of two).
    bool took_body = false;
    ActionRunner runner;

    // Back to the state before websOpen (the runner has been stopped).
    void reset()
    {
        open = false;
        closing = false;
        documents.clear();
        docs = DocumentConfig{};
        routes.clear();
        ipaddr.clear();
        host.clear();
        actions.clear();
        daemon = nullptr;
        root_fd.reset();
        epoll_fd = -1;
        took_body = false;
        wake.reset();
        wake_pending = false;
    }
};

Server srv;

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
                            r->allow.empty() ? nullptr : r->allow.c_str());
}

// Refuses a request. The refusal is sent once the request is complete, which keeps the
// connection open for the next request; a body announced too large, or with no room in
// /tmp, is refused at once (libmicrohttpd then closes the connection instead of reading it).
MHD_Result refuse(WebsPrivate *r, int status, const char *message, const std::string &allow = {})
{
    r->refusal = status;
    r->refusal_message = message;
    r->allow = allow;
    if (status == MHD_HTTP_CONTENT_TOO_LARGE || status == MHD_HTTP_SERVICE_UNAVAILABLE)
        return send_refusal(r);
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

MHD_Result begin_request(WebsPrivate *r, const char *url, const char *method)
{
    r->method = method;
    if (r->url.size() > kMaxTarget)
        return refuse(r, MHD_HTTP_URI_TOO_LONG, "Request target too long");
    std::string path = normal_path(r->url, url);
    if (path.empty())
        return refuse(r, MHD_HTTP_BAD_REQUEST, "Bad request path");
    const Route *route = match_route(srv.routes, path);
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
    auto it = srv.actions.find(name);
    if (name.empty() || it == srv.actions.end())
        return refuse(r, MHD_HTTP_NOT_FOUND, "No such action");
    r->proc = it->second;
    if (int status = request_begin_body(r))
        return refuse(r, status, body_refusal_text(status));
    return MHD_YES;
}

MHD_Result finish_request(WebsPrivate *r)
{
    if (request_finish_body(r) != 0)
        return send_refusal(r);
    if (srv.closing) {
        // The last turns of the event loop in websClose: the action thread is gone.
        r->refusal = MHD_HTTP_SERVICE_UNAVAILABLE;
        r->refusal_message = "The server is shutting down";
        return send_refusal(r);
    }
    r->state = RequestState::Queued;
    MHD_suspend_connection(r->connection);
    srv.runner.push(r);
    return MHD_YES;
}

MHD_Result access_handler(void *, MHD_Connection *connection, const char *url, const char *method, const char *,
                          const char *upload_data, size_t *upload_data_size, void **req_cls)
{
    auto *r = static_cast<WebsPrivate *>(*req_cls);
    if (!r) {  // no target was reported for this request
        r = request_new("", connection);
        *req_cls = r;
    }
    switch (r->state) {
    case RequestState::New:
        return begin_request(r, url, method);
    case RequestState::Receiving:
    case RequestState::Discarding:
        if (*upload_data_size > 0) {
            srv.took_body = true;
            if (r->state == RequestState::Discarding)
                return drop_body(r, upload_data_size);  // the rest of a refused body
            bool keep = request_take_body(r, upload_data, *upload_data_size);
            *upload_data_size = 0;
            return keep ? MHD_YES : MHD_NO;
        }
        return finish_request(r);
    case RequestState::Document:
        if (*upload_data_size > 0)
            return drop_body(r, upload_data_size);  // a body sent with a GET means nothing
        r->state = RequestState::Answered;
        return serve_document(r->connection, method, r->path);
    case RequestState::Queued:
        // Called again once resumed: the procedure's reply is complete.
        if (!r->done.load(std::memory_order_acquire))
            return MHD_YES;
        r->state = RequestState::Answered;
        return queue_action_reply(r);
    case RequestState::Answered:
        return drop_body(r, upload_data_size);  // the body of a refused request
    }
    return MHD_NO;
}

void *uri_logger(void *, const char *uri, MHD_Connection *connection) { return request_new(uri, connection); }

void request_completed(void *, MHD_Connection *, void **req_cls, MHD_RequestTerminationCode)
{
    request_release(static_cast<WebsPrivate *>(*req_cls));
    *req_cls = nullptr;
}

void mhd_logger(void *, const char *fmt, va_list ap)
{
    char line[512];
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
    if (errno != 0 || p < 0 || p > 65535 || (end && *end != '\0'))
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

}  // namespace

const DocumentConfig &document_config() { return srv.docs; }

void resume_request(WebsPrivate *r)
{
    MHD_resume_connection(r->connection);
    if (srv.wake && !srv.wake_pending.exchange(true)) {
        uint64_t one = 1;
        ssize_t n = write(srv.wake.get(), &one, sizeof one);
        (void)n;  // the counter saturating still leaves the loop woken
    }
}

namespace {

// Waits for network activity, a resumed request or libmicrohttpd's next timer (at most
// kMaxLoopWaitMs), then lets libmicrohttpd do whatever is due.
void run_events_once()
{
    int wait_ms = kMaxLoopWaitMs;
    MHD_UNSIGNED_LONG_LONG due = 0;
    if (MHD_get_timeout(srv.daemon, &due) == MHD_YES && due < static_cast<MHD_UNSIGNED_LONG_LONG>(wait_ms))
        wait_ms = static_cast<int>(due);
    pollfd fds[2] = {{srv.epoll_fd, POLLIN, 0}, {srv.wake.get(), POLLIN, 0}};
    if (!srv.took_body && poll(fds, 2, wait_ms) > 0 && (fds[1].revents & POLLIN)) {
        uint64_t count = 0;
        ssize_t n = read(srv.wake.get(), &count, sizeof count);
        (void)n;  // nothing to read means another turn already took the wake-up
        // Cleared before MHD_run looks for resumed connections: a resume after this point
        // writes a new wake-up.
        srv.wake_pending = false;
    }
    srv.took_body = false;
    MHD_run(srv.daemon);
}

}  // namespace

}  // namespace webs

using namespace webs;

int websOpen(const char *documents, const char *routeFile)
{
    if (srv.open)
        websClose();
    char real[PATH_MAX];
    if (!documents || !realpath(documents, real)) {
        HTTP_ERROR("cannot use document root %s: %s\n", documents ? documents : "(null)", strerror(errno));
        return -1;
    }
    std::vector<Route> routes;
    if (load_routes(routeFile, &routes) < 0)
        return -1;
    srv.documents = documents;
    srv.routes = std::move(routes);
    srv.docs.root = real;
    if (srv.docs.root == "/")
        srv.docs.root.clear();  // paths are appended with their leading '/'
    srv.root_fd.reset(open(real, O_PATH | O_DIRECTORY | O_CLOEXEC));
    srv.docs.root_fd = srv.root_fd.get();
    srv.docs.index = kDefaultIndex;
    srv.docs.routes = &srv.routes;
    srv.runner.start();
    srv.open = true;
    return 0;
}

void websClose()
{
    if (!srv.open)
        return;
    srv.closing = true;
    // A running procedure finishes; requests that never ran are answered as unavailable.
    std::deque<WebsPrivate *> waiting = srv.runner.stop();
    for (WebsPrivate *r : waiting) {
        reply_failed(r, MHD_HTTP_SERVICE_UNAVAILABLE, "The server is shutting down");
        request_release(r);
    }
    if (srv.daemon) {
        // Resumed connections leave libmicrohttpd's suspended list on its next turns; none
        // may stay suspended when the daemon stops.
        for (int i = 0; i < 3; ++i)
            MHD_run_wait(srv.daemon, 0);
        forget_listener();
        MHD_stop_daemon(srv.daemon);  // closes the listening socket and every connection
    }
    srv.reset();
}

void websSetIpAddr(const char *ipaddr) { srv.ipaddr = ipaddr ? ipaddr : ""; }

void websSetHost(const char *host) { srv.host = host ? host : ""; }

void websSetIndex(const char *filename)
{
    if (filename && *filename && !strchr(filename, '/'))
        srv.docs.index = filename;
}

const char *websGetServer() { return srv.host.empty() ? srv.ipaddr.c_str() : srv.host.c_str(); }

const char *websGetDocuments() { return srv.documents.c_str(); }

int websLoad(const char *authFile) { return check_auth(authFile); }

int websListen(const char *endpoint)
{
    if (!srv.open) {
        error("websListen before websOpen");
        return -1;
    }
    if (srv.daemon) {
        error("already listening");
        return -1;
    }
    sockaddr_in addr;
    if (!parse_endpoint(endpoint, &addr)) {
        error("invalid endpoint %s", endpoint ? endpoint : "(null)");
        return -1;
    }
    UniqueFd wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    int on = 1;
    if (!wake || !fd || setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 ||
        listen(fd.get(), kListenBacklog) != 0) {
        error("cannot listen on %s: %s", endpoint, strerror(errno));
        return -1;
    }
    // With SIGPIPE ignored by the process, libmicrohttpd may use sendfile.
    int sigpipe_handled = sigpipe_ignored() ? 1 : 0;
    srv.daemon = MHD_start_daemon(
        MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME | MHD_USE_ERROR_LOG, 0, nullptr, nullptr, access_handler, nullptr,
        MHD_OPTION_EXTERNAL_LOGGER, mhd_logger, nullptr,
        MHD_OPTION_LISTEN_SOCKET, fd.get(),
        MHD_OPTION_URI_LOG_CALLBACK, uri_logger, nullptr,
        MHD_OPTION_NOTIFY_COMPLETED, request_completed, nullptr,
        MHD_OPTION_CONNECTION_LIMIT, kMaxConnections,
        MHD_OPTION_PER_IP_CONNECTION_LIMIT, kMaxConnectionsPerAddress,
        MHD_OPTION_CONNECTION_TIMEOUT, kIdleTimeoutSeconds,
        MHD_OPTION_CONNECTION_MEMORY_LIMIT, kConnectionMemory,
        MHD_OPTION_SIGPIPE_HANDLED_BY_APP, sigpipe_handled,
        MHD_OPTION_END);
    if (!srv.daemon) {
        error("cannot start the HTTP engine on %s", endpoint);
        return -1;
    }
    srv.epoll_fd = MHD_get_daemon_info(srv.daemon, MHD_DAEMON_INFO_EPOLL_FD)->epoll_fd;
    srv.wake = std::move(wake);
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
    if (!name || !*name || !proc)
        return -1;
    srv.actions[name] = proc;
    return 0;
}

void websServiceEvents(std::atomic<int> *finished)
{
    while (!finished || !finished->load()) {
        if (srv.daemon)
            run_events_once();
        else
            std::this_thread::sleep_for(std::chrono::milliseconds(kMaxLoopWaitMs));
    }
}

const char *websGetVersion()
{
    static const std::string version = std::string("1.0 (libmicrohttpd ") + MHD_get_version() + ")";
    return version.c_str();
}
