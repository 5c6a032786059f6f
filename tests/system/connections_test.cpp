// LAN hosts that hold connections open (slow headers, unread replies, half-closed requests,
// idle connections) cannot deny the pages to others: through the real binary. The deadline
// that closes slow and idle connections is tested in-process (header_deadline_test).
#include "testsupport.h"

#include <algorithm>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <sys/resource.h>
#include <sys/socket.h>

namespace {

class Hosts : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        rlimit files{};
        getrlimit(RLIMIT_NOFILE, &files);
        files.rlim_cur = files.rlim_max;  // a thousand connections held at once
        setrlimit(RLIMIT_NOFILE, &files);
        dev = std::make_unique<ts::Device>();
    }
    static void TearDownTestSuite() { dev.reset(); }

    // Opens count connections from 127.0.0.host, each sending bytes (and half-closing when
    // asked); the ones the server takes are kept in held.
    static void open_connections(std::vector<UniqueFd> *held, int host, int count, const std::string &bytes,
                                 bool half_close)
    {
        for (int i = 0; i < count; ++i) {
            UniqueFd fd = ts::connect_from("127.0.0." + std::to_string(host), 8080);
            if (!fd)
                continue;
            if (!bytes.empty())
                send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            if (half_close)
                shutdown(fd.get(), SHUT_WR);
            held->push_back(std::move(fd));
        }
    }

    // The server's established connections that match an ss filter.
    static size_t established(const std::string &filter)
    {
        std::string out;
        ts::run({"/bin/ss", "-Htn", "state", "established", filter}, &out);
        return ts::occurrences(out, "\n");
    }

    static inline std::unique_ptr<ts::Device> dev;
};

TEST_F(Hosts, SlowHostsCannotDenyThePagesToOthers)
{
    ts::write_file("/mnt/app/web_root/sd/big.bin", std::string(4 << 20, 'b'));
    std::vector<UniqueFd> held;
    auto attack = [&](const std::string &bytes, bool half_close) {
        for (int host = 2; host <= 6; ++host)
            open_connections(&held, host, 64, bytes, half_close);
    };
    attack("GET /login.html HTTP/1.1\r\nHost: localhost\r\n", false);  // headers that never end
    std::string pipelined;
    for (int i = 0; i < 50; ++i)
        pipelined += "GET /sd/big.bin HTTP/1.1\r\nHost: localhost\r\n\r\n";
    attack(pipelined, false);                                   // replies never read
    attack("POST /action/device/login HTTP/1.1\r\nHost: localhost\r\nContent-Length: 100\r\n\r\n{", true);
    // Each attacking host holds no more than a browser may.
    for (int host = 2; host <= 6; ++host)
        EXPECT_LE(established("( sport = :8080 and dst 127.0.0." + std::to_string(host) + " )"), 8u) << host;

    std::vector<long long> times;
    const std::string page = ts::read_file("/mnt/app/web_root/login.html");
    for (int i = 0; i < 100; ++i) {
        long long start = ts::now_ms();
        ts::HttpReply r = ts::http({.url = ts::local_url(8080, "/login.html"), .timeout_ms = 5000});
        times.push_back(ts::now_ms() - start);
        ASSERT_EQ(page, r.body) << "page " << i;
    }
    std::sort(times.begin(), times.end());
    EXPECT_LT(times[98], 100) << "p99 of the login page under attack";
    EXPECT_EQ(36u, dev->login().size());
}

// A full server makes room for a newcomer: the connection that has waited longest for its
// next request goes.
TEST_F(Hosts, AFullServerClosesTheLongestIdleConnectionForANewcomer)
{
    std::vector<UniqueFd> idle;
    for (int host = 10; host < 10 + 256 / 8; ++host)
        open_connections(&idle, host, 8, "", false);
    ASSERT_TRUE(ts::eventually([] { return established("( sport = :8080 )") == 256; })) << established("( sport = :8080 )");
    for (int i = 0; i < 20; ++i)
        ASSERT_EQ(200, ts::http({.url = ts::local_url(8080, "/login.html"), .timeout_ms = 2000}).status) << i;
    EXPECT_LE(established("( sport = :8080 )"), 256u);
    // The oldest idle connection was the one to go.
    char byte;
    EXPECT_EQ(0, recv(idle.front().get(), &byte, 1, MSG_DONTWAIT)) << "closed by the server";
}

} // namespace
