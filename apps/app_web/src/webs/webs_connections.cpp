// Connection limits that libmicrohttpd does not give: a deadline for each request's line and
// headers, and room for a newcomer when the server is full. A connection is closed by
// shutting its socket down; libmicrohttpd then sees the end of it and closes it itself.
// A connection answered before its body was read lingers after libmicrohttpd closed it.
#include "common/memory.h"
#include "webs/webs_internal.h"
#include "webs/webs_limits.h"

#include <cerrno>
#include <list>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace webs {

using namespace webs_limits;
using Clock = std::chrono::steady_clock;

namespace {

// Every open connection, oldest first.
std::list<Connection> open_connections;
// The last connection has closed since the last sweep.
bool went_idle = false;

// A closed connection whose client may still be sending a refused body: its input is read
// and dropped until the client closes its end, kLingerMs pass or kMaxDiscard bytes came, so
// that the unread bytes do not reset the connection under the refusal.
struct Lingering {
    UniqueFd fd;
    uint64_t dropped = 0;
    EventLoop::Watch watch;
    EventLoop::Timer timer;
};
std::list<Lingering> lingering;

void stop_lingering(Lingering *l)
{
    for (auto it = lingering.begin(); it != lingering.end(); ++it) {
        if (&*it == l) {
            it->watch.reset();  // before the descriptor goes
            lingering.erase(it);
            return;
        }
    }
}

void linger(int fd)
{
    EventLoop *loop = EventLoop::current();
    if (!loop || lingering.size() >= kMaxLingering)
        return;
    UniqueFd copy(dup(fd));  // keeps the socket open once libmicrohttpd closes its descriptor
    if (!copy)
        return;
    Lingering &l = lingering.emplace_back();
    l.fd = std::move(copy);
    Lingering *p = &l;
    l.timer = loop->after(std::chrono::milliseconds(kLingerMs), [p] { stop_lingering(p); });
    l.watch = loop->watch(l.fd.get(), EPOLLIN | EPOLLRDHUP, [p](uint32_t) {
        char buf[kLingerReadBytes];
        ssize_t n;
        while ((n = recv(p->fd.get(), buf, sizeof buf, MSG_DONTWAIT)) > 0)
            p->dropped += static_cast<uint64_t>(n);
        if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR) || p->dropped > kMaxDiscard)
            stop_lingering(p);
    });
    if (!l.watch)
        stop_lingering(p);
}

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
        if (c && c->linger && !c->evicted)
            linger(c->fd);
        for (auto it = open_connections.begin(); it != open_connections.end(); ++it) {
            if (&*it == c) {
                open_connections.erase(it);
                break;
            }
        }
        *socket_context = nullptr;
        if (open_connections.empty())
            went_idle = true;
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
    // The server has gone idle: what its connections and requests took at their peak goes
    // back to the system. Here, not at the close, libmicrohttpd has freed all of it, and the
    // cost is paid at most once a sweep.
    if (went_idle && open_connections.empty())
        release_free_memory();
    went_idle = false;
}

void connections_close()
{
    for (Lingering &l : lingering)
        l.watch.reset();  // before the descriptors go
    lingering.clear();
}

Connection *connection_of(MHD_Connection *connection)
{
    const MHD_ConnectionInfo *info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
    return info ? static_cast<Connection *>(info->socket_context) : nullptr;
}

}  // namespace webs
