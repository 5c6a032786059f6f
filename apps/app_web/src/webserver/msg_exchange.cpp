#include "webserver/msg_exchange.h"

#include "common/event_loop.h"
#include "common/log.h"
#include "common/owners.h"
#include "common/text_field.h"
#include "webserver/commands.h"
#include "webserver/device_message.h"
#include "webserver/nn_owners.h"
#include "webserver/routing_table.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <nanomsg/pair.h>
#include <nanomsg/reqrep.h>
#include <string>
#include <sys/epoll.h>
#include <vector>

int http_msg_upgrade_fd;

namespace {

constexpr const char kStartUpgrade[] = "StartUpgrade";
// A progress reply below this value means the upgrade application is still working.
constexpr int kUpgradeDone = 100;

UpgradeStatus upgrade_status;

bool is_device_cap(const http_protocol_receiver &entry)
{
    return strcmp(entry.receiver_name, HTTP_RECEIVER_DEVICE_CAP) == 0;
}

// Whether slot k of entry names command; an empty name never matches, or it would match
// every unused slot.
bool lists_command(const http_protocol_receiver &entry, int k, const char *command)
{
    return command[0] != '\0' && strcmp(entry.command[k], command) == 0;
}

// Opens entry's connection into entry.msg_fd: 0, or -1 after the error line (msg_fd -1).
int http_msg_socket_init(http_protocol_receiver &entry)
{
    entry.msg_fd = -1;
    bool upgrade = strcmp(entry.receiver_name, HTTP_RECEIVER_APP_UPDATE) == 0;
    NnSocket sock(nn_socket(AF_SP, upgrade ? NN_PAIR : NN_REQ));
    if (!sock) {
        HTTP_ERROR("nn_socket(AF_SP, NN_REP) fail: %s\n", nn_strerror(nn_errno()));  // contract: exact bytes
        return -1;
    }
    if (nn_connect(sock.get(), entry.ipc_url) < 0) {
        HTTP_ERROR("nn_connect(%s) fail: %s\n", entry.ipc_url, nn_strerror(nn_errno()));
        return -1;
    }
    entry.msg_fd = sock.release();
    if (upgrade)
        http_msg_upgrade_fd = entry.msg_fd;
    return 0;
}

// The descriptor nanomsg signals on when the socket can send (NN_SNDFD) or has a message
// (NN_RCVFD); -1 when it has none.
int signal_fd(int sock, int option)
{
    int fd = -1;
    size_t size = sizeof fd;
    return nn_getsockopt(sock, NN_SOL_SOCKET, option, &fd, &size) == 0 ? fd : -1;
}

}  // namespace

// One exchange on a route's socket: the request goes out (waiting at most the send time-out
// for the socket to take it), then replies are taken until one ends the exchange or the
// receive time-out passes. The lines it writes carry the names of the steps the logs know.
class Exchange {
public:
    Exchange(int msg_fd, bool upgrade_socket, const char *command, ExchangeDone done)
        : loop_(*EventLoop::current()), fd_(msg_fd), upgrade_socket_(upgrade_socket), command_(command),
          done_(std::move(done))
    {
    }

    void start(HeapText request)
    {
        if (following_upgrade())
            upgrade_status = {true, 0};
        request_ = std::move(request);
        HTTP_DEBUG("http send data:%s\n", request_.get());
        if (!try_send()) {
            // At the deadline the socket gets a last try: a connection that came up in this
            // very turn may not have been reported yet.
            timer_ = loop_.after(std::chrono::milliseconds(HTTP_MSG_SEND_TIMEOUT_MS), [this] {
                if (try_send())
                    sent();
                else
                    send_failed();
            });
            watch_ = loop_.watch(signal_fd(fd_, NN_SNDFD), EPOLLIN, [this](uint32_t) {
                if (try_send())
                    sent();
            });
            if (!watch_)
                send_failed();
            return;
        }
        sent();
    }

    // Ends the exchange with code (0 with the reply set); done is the last thing that runs,
    // as it may end the route and with it this exchange.
    void finish(int code)
    {
        watch_.reset();
        resend_watch_.reset();
        timer_.reset();
        if (following_upgrade())
            upgrade_status.running = false;
        result_.code = code;
        if (code != 0)
            HTTP_ERROR_AS("http_send_and_recv_app_codec", "http send recv fail des=%d\n", code);
        ExchangeDone done = std::move(done_);
        ExchangeResult result = std::move(result_);
        done(result);
    }

    ExchangeResult result_;

private:
    // True once the socket took the request or refused it for good.
    bool try_send()
    {
        return http_msg_socket_send(request_.get(), strlen(request_.get()) + 1, fd_) >= 0 || nn_errno() != EAGAIN;
    }

    // A failed send shows as a failed receive, as it always has.
    void send_failed()
    {
        HTTP_ERROR_AS("http_msg_socket_send", "http send data fail bytes=%d\n", -1);
        sent(false);
    }

    void sent(bool delivered = true)
    {
        watch_.reset();
        timer_.reset();
        if (upgrade_socket_)
            resend_on_reconnect(delivered);
        else
            request_.reset();
        int timeout = http_msg_recv_timeout(command_.c_str(), upgrade_socket_);
        if (following_upgrade())
            HTTP_ERROR_AS("http_msg_socket_recv", "http_msg_upgrade_fd timeo=%d\n", timeout);
        if (receive_ready())
            return;
        watch_ = loop_.watch(signal_fd(fd_, NN_RCVFD), EPOLLIN, [this](uint32_t) { receive_ready(); });
        if (!watch_) {
            receive_failed(errno);
            return;
        }
        arm_receive_timer();
    }

    // A bound pair socket takes one connection at a time and drops any other after the
    // handshake, with what was already written into it: the upgrade application still
    // holding the connection before this one (its end is seen a moment later) loses the
    // request, and the exchange would wait out its whole time-out. Until the first reply,
    // each new connection of the socket gets the request again, as a request socket does by
    // itself when the connection its request went out on breaks. The count is read after
    // the send, so a request is never sent twice on one connection; a request that never
    // left goes out on the connection there is now, if any.
    void resend_on_reconnect(bool delivered)
    {
        sent_once_ = delivered;
        connections_ = nn_get_statistic(fd_, NN_STAT_ESTABLISHED_CONNECTIONS);
        // The send descriptor is signalled again each time a new connection can take a
        // message (and reports at once when one can now).
        resend_watch_ = loop_.watch(signal_fd(fd_, NN_SNDFD), EPOLLIN | EPOLLET, [this](uint32_t) {
            if (sent_once_ && nn_get_statistic(fd_, NN_STAT_ESTABLISHED_CONNECTIONS) == connections_)
                return;
            if (http_msg_socket_send(request_.get(), strlen(request_.get()) + 1, fd_) < 0)
                return;  // the next connection tries again
            HTTP_DEBUG("http send data:%s\n", request_.get());
            sent_once_ = true;
            connections_ = nn_get_statistic(fd_, NN_STAT_ESTABLISHED_CONNECTIONS);
        });
    }

    void receive_failed(int err)
    {
        HTTP_ERROR_AS("http_msg_socket_recv", "errno is: %d\n", err);
        HTTP_ERROR_AS("http_msg_socket_recv", "http recv fail ! :%s\n",
                      http_msg_reason(HTTP_MSG_FAILED, result_.reason));
        finish(HTTP_MSG_FAILED);
    }

    bool following_upgrade() const { return upgrade_socket_ && command_ == kStartUpgrade; }

    void arm_receive_timer()
    {
        int timeout = http_msg_recv_timeout(command_.c_str(), upgrade_socket_);
        timer_ = loop_.after(std::chrono::milliseconds(timeout), [this] {
            HTTP_ERROR_AS("http_msg_socket_recv", "errno is: %d\n", ETIMEDOUT);
            HTTP_ERROR_AS("http_msg_socket_recv", "http recv fail connect time out! :%s\n",
                          http_msg_reason(HTTP_MSG_TIMEOUT, result_.reason));
            finish(HTTP_MSG_TIMEOUT);
        });
    }

    // Takes what the socket holds; true once the exchange has ended.
    bool receive_ready()
    {
        for (;;) {
            void *buf = nullptr;
            int got = nn_recv(fd_, &buf, NN_MSG, NN_DONTWAIT);
            if (got < 0) {
                int err = nn_errno();
                if (err == EAGAIN || err == EINTR)
                    return false;
                receive_failed(err);
                return true;
            }
            NnMsgPtr msg(buf);
            // Something came back: the request got through.
            resend_watch_.reset();
            request_.reset();
            CJsonPtr tree;
            cJSON *response = nullptr;
            int code = http_check_reply(static_cast<const char *>(buf), static_cast<size_t>(got), command_.c_str(),
                                        result_.reason, &tree, &response,
                                        LogSite{__FILE__, __LINE__, "http_msg_socket_recv"});
            if (code != 0) {
                finish(code);
                return true;
            }
            int progress = 0;
            if (upgrade_socket_ && http_upgrade_progress(response, &progress)) {
                HTTP_DEBUG("http recv ProgressValue->valueint %d\n", progress);
                if (following_upgrade())
                    upgrade_status.value = progress;
                if (progress < kUpgradeDone) {
                    arm_receive_timer();  // each step has the whole time-out
                    continue;             // this message and its tree are released first
                }
            }
            result_.reply.reset(cJSON_Print(response));
            if (!result_.reply) {
                HTTP_ERROR_AS("http_msg_socket_recv", "http recv fail ! :%s\n",
                              http_msg_reason(HTTP_MSG_FAILED, result_.reason));
                finish(HTTP_MSG_FAILED);
                return true;
            }
            HTTP_DEBUG("http recv format sucess %s\n", result_.reply.get());  // contract: exact bytes
            finish(0);
            return true;
        }
    }

    EventLoop &loop_;
    int fd_;
    bool upgrade_socket_;
    std::string command_;
    ExchangeDone done_;
    HeapText request_;
    EventLoop::Watch watch_;
    EventLoop::Watch resend_watch_;  // upgrade socket, until the first reply
    bool sent_once_ = false;     // the request went out on some connection
    uint64_t connections_ = 0;  // the socket's connections made when it last went out
    EventLoop::Timer timer_;
};

// An open connection to one receiver: entry index's socket, and the exchange under way on it.
class RouteConnection {
public:
    explicit RouteConnection(int index) : index_(index) {}
    ~RouteConnection()
    {
        // The exchange drops its watches on the socket's descriptors before the socket goes.
        exchange_.reset();
        http_msg_socket_uninit(index_);
        entry().msg_fd = -1;
    }
    int open()
    {
        http_protocol_receiver &e = entry();
        int rc = http_msg_socket_init(e);
        upgrade_ = rc == 0 && strcmp(e.receiver_name, HTTP_RECEIVER_APP_UPDATE) == 0;
        return rc;
    }
    http_protocol_receiver &entry() const { return http_protocol_command[index_]; }
    int index() const { return index_; }
    bool upgrade() const { return upgrade_; }

    std::unique_ptr<Exchange> exchange_;

private:
    int index_;
    bool upgrade_ = false;
};

// The turns of the applications: per IPC address, the open route and the exchanges waiting
// for it, in arrival order.
class ApplicationTurns : public LoopPart {
public:
    explicit ApplicationTurns(EventLoop &) {}
    ~ApplicationTurns() override
    {
        // Open routes close their sockets; the requests that waited are answered by the web
        // layer as their holds go.
        closing_ = true;
        queues_.clear();
    }

    // Runs start with a route to entry index on its application's turn: at once when the
    // application is free, else after the exchanges before it. A waiting request whose
    // client went away is passed over.
    void take(int index, WebsHold hold, std::function<void(Route)> start)
    {
        std::string url = http_protocol_command[index].ipc_url;
        queues_[url].waiting.push_back({index, std::move(hold), std::move(start)});
        next(url);
    }

    // The route's end: its socket closes and the next exchange with the application begins.
    void end(RouteConnection *conn)
    {
        if (closing_)
            return;
        std::string url = conn->entry().ipc_url;
        Queue &q = queues_[url];
        if (q.active.get() == conn)
            q.active.reset();
        next(url);
    }

private:
    struct Waiting {
        int index;
        WebsHold hold;
        std::function<void(Route)> start;
    };
    struct Queue {
        std::unique_ptr<RouteConnection> active;
        std::deque<Waiting> waiting;
    };

    void next(const std::string &url)
    {
        Queue &q = queues_[url];  // queues are never removed: the references stay good
        while (!q.active && !q.waiting.empty()) {
            Waiting w = std::move(q.waiting.front());
            q.waiting.pop_front();
            if (w.hold && websClientGone(w.hold.get()))
                continue;
            auto conn = std::make_unique<RouteConnection>(w.index);
            if (conn->open() != 0) {
                conn.reset();
                w.start(Route());
                continue;
            }
            q.active = std::move(conn);
            w.start(Route(this, q.active.get()));
        }
    }

    std::map<std::string, Queue> queues_;
    bool closing_ = false;
};

Route::Route(Route &&other) noexcept
    : turns_(std::exchange(other.turns_, nullptr)), conn_(std::exchange(other.conn_, nullptr))
{
}

Route &Route::operator=(Route &&other) noexcept
{
    if (this != &other) {
        reset();
        turns_ = std::exchange(other.turns_, nullptr);
        conn_ = std::exchange(other.conn_, nullptr);
    }
    return *this;
}

void Route::reset()
{
    if (conn_)
        std::exchange(turns_, nullptr)->end(std::exchange(conn_, nullptr));
}

int Route::msg_fd() const { return conn_ ? conn_->entry().msg_fd : -1; }
int Route::index() const { return conn_ ? conn_->index() : -1; }
const char *Route::receiver_name() const { return conn_ ? conn_->entry().receiver_name : ""; }
bool Route::upgrade_socket() const { return conn_ && conn_->upgrade(); }

int http_capability_protocol_matching(const char *command, char *cap_path)
{
    if (!command || !cap_path)
        return 0;
    for (const http_protocol_receiver &entry : http_protocol_command) {
        if (!is_device_cap(entry))
            continue;
        for (int k = 0; k < HTTP_PROTOCOL_CMD_MAX; ++k) {
            if (lists_command(entry, k, command)) {
                copy_field(cap_path, HTTP_CAP_PATH_SIZE, entry.cap_path[k]);
                HTTP_ERROR("!!!!!! %s \n", cap_path);  // contract: exact bytes
                return 1;
            }
        }
    }
    return 0;
}

namespace {

// The deliveries of one command, receiver by receiver in table order.
struct Delivery : std::enable_shared_from_this<Delivery> {
    std::string command;
    std::string payload;
    bool has_payload = false;
    WebsHold hold;
    std::function<void(Route)> ready;
    std::vector<int> receivers;  // table indices
    size_t at = 0;

    void deliver()
    {
        int index = receivers[at];
        auto self = shared_from_this();
        EventLoop::current()->part<ApplicationTurns>().take(index, hold, [self](Route route) {
            self->on_turn(std::move(route));
        });
    }

    void on_turn(Route route)
    {
        if (!route) {
            // contract: exact bytes
            HTTP_ERROR_AS("http_protocol_matching", "http_msg_socket_init name：%s\n", command.c_str());
            ready(Route());
            return;
        }
        if (at + 1 == receivers.size()) {
            ready(std::move(route));
            return;
        }
        // An earlier receiver of a command listed several times: deliver now, and only the
        // last receiver's answer reaches the caller.
        auto self = shared_from_this();
        auto keep = std::make_shared<Route>(std::move(route));
        http_send_and_recv_app_codec(command.c_str(), has_payload ? payload.c_str() : nullptr, *keep,
                                     [self, keep](ExchangeResult &r) {
                                         std::string receiver = keep->receiver_name();
                                         keep->reset();
                                         // contract: exact bytes
                                         HTTP_ERROR_AS("http_protocol_matching",
                                                       "msg sand：name=%s receiver_name=%s des=%s\n",
                                                       self->command.c_str(), receiver.c_str(), r.reason);
                                         ++self->at;
                                         self->deliver();
                                     });
    }
};

}  // namespace

void http_protocol_matching(const char *command, const char *payload, WebsHold hold,
                            std::function<void(Route)> ready)
{
    if (!command) {
        ready(Route());
        return;
    }
    // An entry without an IPC address is not a route: no exchange ever runs on a socket
    // that was never opened.
    auto d = std::make_shared<Delivery>();
    for (int i = 0; i < HTTP_PROTOCOL_MAX; ++i) {
        const http_protocol_receiver &entry = http_protocol_command[i];
        for (int k = 0; !is_device_cap(entry) && k < HTTP_PROTOCOL_CMD_MAX; ++k) {
            if (!lists_command(entry, k, command))
                continue;
            if (http_is_ipc_url(entry.ipc_url))
                d->receivers.push_back(i);
            else
                HTTP_ERROR("%s: receiver %s has no ipc address \n", command, entry.receiver_name);
        }
    }
    HTTP_ERROR("http_protocol_matching  sum=%d\n", static_cast<int>(d->receivers.size()) - 1);  // contract: exact bytes
    if (d->receivers.empty()) {
        ready(Route());
        return;
    }
    http_msg_upgrade_fd = -1;
    d->command = command;
    d->has_payload = payload != nullptr;
    d->payload = payload ? payload : "";
    d->hold = std::move(hold);
    d->ready = std::move(ready);
    d->deliver();
}

void http_send_and_recv_app_codec(const char *command, const char *payload, Route &route, ExchangeDone done)
{
    RouteConnection *conn = route.connection();
    auto exchange = std::make_unique<Exchange>(route.msg_fd(), route.upgrade_socket(), command ? command : "",
                                               std::move(done));
    if (!conn || !command) {
        HTTP_ERROR("Invalid params\n");
        exchange->finish(HTTP_MSG_FAILED);
        return;
    }
    HeapText request(http_set_command_response(command, route.receiver_name(), payload));
    if (!request) {
        HTTP_ERROR("http request build fail! :%s\n", http_msg_reason(HTTP_MSG_FAILED, exchange->result_.reason));
        exchange->finish(HTTP_MSG_FAILED);
        return;
    }
    conn->exchange_ = std::move(exchange);
    conn->exchange_->start(std::move(request));
}

int http_msg_socket_send(const char *text, size_t len, int msg_fd)
{
    int sent = nn_send(msg_fd, text, len, NN_DONTWAIT);
    if (sent < 0 && nn_errno() != EAGAIN)
        HTTP_ERROR("http send data fail bytes=%d\n", sent);
    return sent;
}

int http_msg_recv_timeout(const char *command, bool upgrade_socket)
{
    const Command &row = find_command(command);
    if (row.recv_timeout_ms > 0 && (!row.upgrade_socket_only || upgrade_socket))
        return row.recv_timeout_ms;
    return kDefaultRecvTimeoutMs;
}

int http_msg_socket_uninit(int index)
{
    if (index < 0 || index >= HTTP_PROTOCOL_MAX)
        return 0;
    const http_protocol_receiver &entry = http_protocol_command[index];
    if (http_is_ipc_url(entry.ipc_url) && entry.msg_fd != -1)
        nn_close(entry.msg_fd);
    return 0;
}

UpgradeStatus http_upgrade_status() { return upgrade_status; }
