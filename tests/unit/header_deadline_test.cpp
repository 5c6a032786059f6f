// The deadline for a request's line and headers, in the web layer in-process. The deadline is
// seconds long; this binary moves the monotonic clock forward instead of waiting for it
// (so the times gtest prints here count the skipped seconds too).
#include "layer_server.h"
#include "testsupport.h"
#include "webs/webs_limits.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

// How far CLOCK_MONOTONIC, which std::chrono::steady_clock and so the deadlines read, runs
// ahead of the kernel's.
std::atomic<long long> skipped_ns{0};

// The clock as the kernel reads it, plus the skipped time for CLOCK_MONOTONIC; -1 with errno
// on failure. The system call is made directly, the C library's clock_gettime being ours.
int read_clock(clockid_t id, long long *ns)
{
#ifdef SYS_clock_gettime64
    struct {
        long long sec, nsec;  // the kernel's 64-bit time on a 32-bit machine
    } t{};
    int rc = static_cast<int>(syscall(SYS_clock_gettime64, id, &t));
    *ns = t.sec * 1000000000LL + t.nsec;
#else
    timespec t{};
    int rc = static_cast<int>(syscall(SYS_clock_gettime, id, &t));
    *ns = t.tv_sec * 1000000000LL + t.tv_nsec;
#endif
    if (id == CLOCK_MONOTONIC)
        *ns += skipped_ns.load();
    return rc;
}

template <typename Time> int fill(clockid_t id, Time *sec, long *nsec)
{
    long long ns = 0;
    int rc = read_clock(id, &ns);
    if (rc == 0) {
        *sec = static_cast<Time>(ns / 1000000000LL);
        *nsec = static_cast<long>(ns % 1000000000LL);
    }
    return rc;
}

} // namespace

// Every caller in the process links to these instead of the C library's: the server's code,
// the C++ library's clocks and libmicrohttpd.
extern "C" int clock_gettime(clockid_t id, timespec *ts) noexcept
{
    long nsec = 0;
    int rc = fill(id, &ts->tv_sec, &nsec);
    ts->tv_nsec = nsec;
    return rc;
}

#if defined(__USE_TIME_BITS64) && __TIMESIZE == 32
// With 64-bit time the name above is the C library's clock_gettime64; libraries built with
// 32-bit time still call the 32-bit clock_gettime.
struct Timespec32 {
    long sec, nsec;
};
extern "C" int clock_gettime32(clockid_t id, Timespec32 *ts) noexcept __asm__("clock_gettime");
extern "C" int clock_gettime32(clockid_t id, Timespec32 *ts) noexcept { return fill(id, &ts->sec, &ts->nsec); }
#endif

namespace {

using webs_limits::kHeaderDeadlineSeconds;
using std::chrono::milliseconds;
using std::chrono::seconds;

const std::string kPage = "GET /page.html HTTP/1.1\r\nHost: localhost\r\n";

class Deadline : public ::testing::Test {
protected:
    void SetUp() override
    {
        ts::reset_device_tree();
        ts::write_file("/mnt/www/page.html", "page");
        ASSERT_TRUE(server.open("route uri=/ handler=file methods=GET|HEAD\n"));
        server.run();
    }

    static void skip(milliseconds time)
    {
        skipped_ns += std::chrono::duration_cast<std::chrono::nanoseconds>(time).count();
    }

    // A connection that has sent bytes.
    UniqueFd connect(const std::string &bytes = "") const
    {
        UniqueFd fd = ts::connect_from("127.0.0.1", server.port());
        EXPECT_TRUE(fd);
        EXPECT_EQ(static_cast<ssize_t>(bytes.size()), send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL));
        return fd;
    }

    // A whole request on a connection of its own. The server's loop takes connections and
    // requests in turn: once this is answered, what came before it has been taken, and the
    // deadline check it was in (if any) has looked at every connection.
    void round_trip() const
    {
        std::string got = ts::raw_http(server.port(), kPage + "Connection: close\r\n\r\n", 2000);
        ASSERT_TRUE(got.ends_with("\r\n\r\npage")) << got;
    }

    // Reads what the server has sent on fd; true once it has closed it.
    static bool closed(const UniqueFd &fd, std::string *got = nullptr)
    {
        char buf[4096];
        ssize_t n;
        while ((n = recv(fd.get(), buf, sizeof buf, MSG_DONTWAIT)) > 0)
            if (got)
                got->append(buf, static_cast<size_t>(n));
        return n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK);
    }

    static bool closed_soon(const UniqueFd &fd)
    {
        return ts::eventually([&] { return closed(fd); }, 3000);
    }

    ts::LayerServer server;
};

const milliseconds kDeadline = seconds(kHeaderDeadlineSeconds);

TEST_F(Deadline, HeadersThatNeverEndAreClosedAtTheDeadline)
{
    UniqueFd first = connect(kPage);
    round_trip();
    skip(seconds(1));
    UniqueFd second = connect(kPage);
    round_trip();
    skip(kDeadline - milliseconds(500));  // the first is due, the second half a second short
    EXPECT_TRUE(closed_soon(first));
    round_trip();
    EXPECT_FALSE(closed(second)) << "closed before its deadline";
    skip(seconds(1));
    EXPECT_TRUE(closed_soon(second));
}

// An idle connection's deadline counts from the end of its last request, not from its start.
TEST_F(Deadline, AnIdleConnectionIsClosedTheDeadlineAfterItsLastRequest)
{
    UniqueFd idle = connect(), since_start = connect();
    round_trip();
    skip(kDeadline / 2);
    std::string request = kPage + "\r\n", reply;
    ASSERT_EQ(static_cast<ssize_t>(request.size()), send(idle.get(), request.data(), request.size(), MSG_NOSIGNAL));
    ASSERT_TRUE(ts::eventually([&] { return !closed(idle, &reply) && reply.ends_with("\r\n\r\npage"); })) << reply;
    round_trip();
    skip(kDeadline / 2 + milliseconds(500));
    EXPECT_TRUE(closed_soon(since_start));
    round_trip();
    EXPECT_FALSE(closed(idle)) << "counted from the connection's start";
    skip(kDeadline / 2);
    EXPECT_TRUE(closed_soon(idle));
}

} // namespace
