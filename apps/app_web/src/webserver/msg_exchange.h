// Message exchange with the device applications: finds the receivers that the routing table
// names for a command, connects to each on its turn, sends the request message and takes
// the reply with the command's time-out, driven by the event loop (nanomsg's NN_SNDFD and
// NN_RCVFD are watched, the time-outs are the loop's timers), so no thread ever waits for an
// application.
//
// Exchanges with one application (one IPC address) happen one at a time, in arrival order:
// its socket serves one request at a time. Exchanges with different applications never wait
// for each other. Everything here runs on the thread that drives the event loop, the web
// server thread (never on the worker): it alone opens and closes the sockets, writes the
// routing table's msg_fd fields and http_msg_upgrade_fd, and keeps the upgrade status.
//
// Calling order for one relayed command: http_capability_protocol_matching; when it answers
// 0, http_protocol_matching, whose ready callback gets the route on the last receiver's
// turn; http_send_and_recv_app_codec on that route; the route's end closes its socket
// (http_msg_socket_uninit) and gives the application's turn to the next exchange.
#pragma once

#include "common/owners.h"
#include "webs/webs.h"
#include "webserver/device_message.h"

#include <cstddef>
#include <functional>

// Socket of the latest connection to the upgrade application, else -1.
extern int http_msg_upgrade_fd;

constexpr int HTTP_MSG_SEND_TIMEOUT_MS = 100;  // a local peer takes a message at once or not at all

class RouteConnection;
class ApplicationTurns;

// The turn of one application for one exchange: its connection is open while the route
// lives; the route's end closes the socket on every path and lets the next exchange with
// that application begin. An empty route means no route or no connection.
class Route {
public:
    Route() = default;
    Route(Route &&other) noexcept;
    Route &operator=(Route &&other) noexcept;
    Route(const Route &) = delete;
    Route &operator=(const Route &) = delete;
    ~Route() { reset(); }
    void reset();
    explicit operator bool() const { return conn_ != nullptr; }

    int msg_fd() const;
    int index() const;                // the receiver's entry in the routing table
    const char *receiver_name() const;
    bool upgrade_socket() const;      // the upgrade application's pair socket
    RouteConnection *connection() const { return conn_; }

private:
    friend class ApplicationTurns;
    Route(ApplicationTurns *turns, RouteConnection *conn) : turns_(turns), conn_(conn) {}
    ApplicationTurns *turns_ = nullptr;
    RouteConnection *conn_ = nullptr;
};

// The outcome of an exchange.
struct ExchangeResult {
    int code = HTTP_MSG_FAILED;         // 0, 504, 508 or 550
    HeapText reply;                     // the printed "Response" when code is 0
    char reason[HTTP_REASON_SIZE] = ""; // written when code is not 0
};
using ExchangeDone = std::function<void(ExchangeResult &)>;

// 1 with the command's capability file path copied into cap_path (128 bytes) when a
// "device_cap" receiver lists the command; else 0.
int http_capability_protocol_matching(const char *command, char *cap_path);

// Looks up the receivers of command (entries with an IPC address, "device_cap" excluded)
// and, each on its application's turn, connects to them in table order. A command listed
// for several receivers is delivered to all but the last one here, their replies discarded
// (payload, which may be null, is the message for those deliveries). ready then runs with
// the last receiver's route; with an empty route when there is no route or a connection
// could not be opened. Work for a request whose client went away is dropped before it
// starts (ready never runs).
void http_protocol_matching(const char *command, const char *payload, WebsHold hold,
                            std::function<void(Route)> ready);

// Sends the request message for command on the route and receives its reply, following
// upgrade progress replies on the upgrade application's socket; done runs on the loop with
// the result (the route stays open until its owner ends it).
void http_send_and_recv_app_codec(const char *command, const char *payload, Route &route, ExchangeDone done);

// Sends len bytes of text as one message without waiting: the count nn_send returns
// (negative on failure; nanomsg's errno EAGAIN when the socket cannot take it yet).
int http_msg_socket_send(const char *text, size_t len, int msg_fd);

// Receive time-out in milliseconds for command (on the upgrade application's socket or not).
int http_msg_recv_timeout(const char *command, bool upgrade_socket);

// Closes the socket of the route at index where one was opened; always 0.
int http_msg_socket_uninit(int index);

// The firmware upgrade as the upgrade application reports it: whether a "StartUpgrade"
// exchange is under way, and the last progress value it reported (0 before any).
struct UpgradeStatus {
    bool running = false;
    int value = 0;
};
UpgradeStatus http_upgrade_status();
