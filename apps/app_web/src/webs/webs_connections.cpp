// Connection limits that libmicrohttpd does not give: a deadline for each request's line and
// headers, and room for a newcomer when the server is full. A connection is closed by
// shutting its socket down; libmicrohttpd then sees the end of it and closes it itself.
#include "common/log.h"
#include "webs/webs_internal.h"
#include "webs/webs_limits.h"

#include <list>
#include <sys/socket.h>

namespace webs {

using namespace webs_limits;
using Clock = std::chrono::steady_clock;

namespace {

// Every open connection, oldest first.
std::list<Connection> open_connections;

void evict(Connection &c)
{
    c.evicted = true;
    shutdown(c.fd, SHUT_RDWR);
}

// Makes room for the newest connection: the one that has waited longest for its next
// request goes (an idle keep-alive connection, or one whose headers trickle in); when every
// other connection is busy with a request, the newcomer itself.
void make_room(Connection &newcomer)
{
    Connection *longest = nullptr;
    for (Connection &c : open_connections) {
        if (&c != &newcomer && !c.in_request && !c.evicted && (!longest || c.since < longest->since))
            longest = &c;
    }
    Connection &victim = longest ? *longest : newcomer;
    trace(2, "http: %u connections open, closing one that waits for a request\n", kMaxConnections + 1);
    evict(victim);
}

}  // namespace

void connection_notify(void *, MHD_Connection *connection, void **socket_context,
                       MHD_ConnectionNotificationCode code)
{
    if (code == MHD_CONNECTION_NOTIFY_CLOSED) {
        auto *c = static_cast<Connection *>(*socket_context);
        for (auto it = open_connections.begin(); it != open_connections.end(); ++it) {
            if (&*it == c) {
                open_connections.erase(it);
                break;
            }
        }
        *socket_context = nullptr;
        return;
    }
    const MHD_ConnectionInfo *info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
    Connection &c = open_connections.emplace_back();
    c.fd = info ? info->connect_fd : -1;
    c.since = Clock::now();
    *socket_context = &c;
    unsigned live = 0;
    for (const Connection &other : open_connections)
        live += !other.evicted;
    if (live > kMaxConnections)
        make_room(c);
}

void connection_request_started(Connection *c)
{
    if (c)
        c->in_request = true;
}

void connection_request_ended(Connection *c)
{
    if (!c)
        return;
    c->in_request = false;
    c->since = Clock::now();
}

void connections_sweep()
{
    Clock::time_point due = Clock::now() - std::chrono::seconds(kHeaderDeadlineSeconds);
    for (Connection &c : open_connections)
        if (!c.in_request && !c.evicted && c.since <= due)
            evict(c);
}

Connection *connection_of(MHD_Connection *connection)
{
    const MHD_ConnectionInfo *info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
    return info ? static_cast<Connection *>(info->socket_context) : nullptr;
}

}  // namespace webs
