// Size limits of requests to the real server: each answered with its status, at a bounded
// cost, leaving no temporary file behind.
#include "server_support.h"

#include <arpa/inet.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

// A connection that stays open while the test sends a body piece by piece.
class Client {
public:
    explicit Client(int port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(static_cast<uint16_t>(port));
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(0, connect(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr));
    }
    ~Client() { close(fd_); }
    // Bytes of data the server took before it closed the connection (all of them if it never did).
    size_t send(const std::string &data)
    {
        size_t off = 0;
        while (off < data.size()) {
            ssize_t n = ::send(fd_, data.data() + off, data.size() - off, MSG_NOSIGNAL);
            if (n <= 0)
                break;
            off += static_cast<size_t>(n);
        }
        return off;
    }

private:
    int fd_;
};

std::string body_head(const std::string &method, const std::string &path, unsigned long long length)
{
    return method + " " + path + " HTTP/1.1\r\nHost: x\r\nContent-Type: application/octet-stream\r\n"
                                  "Connection: close\r\nContent-Length: " + std::to_string(length) + "\r\n\r\n";
}

class RequestLimits : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        ts::lay_out_demo_tree();
        port = ts::free_port();
        server = std::make_unique<ts::ServerProcess>(std::vector<std::string>{std::to_string(port), "lo"});
        ASSERT_TRUE(server->wait_ready(port)) << server->log();
    }
    static void TearDownTestSuite() { server.reset(); }

    static std::string status_line(const std::string &raw) { return raw.substr(0, raw.find("\r\n")); }


    static inline int port = 0;
    static inline std::unique_ptr<ts::ServerProcess> server;
};

TEST_F(RequestLimits, TargetOver2048CharactersAnswers414)
{
    std::string base = "/action/device/login?pad=";
    std::string at_limit = base + std::string(2048 - base.size(), 'a');
    EXPECT_EQ(200, ts::http_get(ts::local_url(port, at_limit)).status);
    EXPECT_EQ(414, ts::http_get(ts::local_url(port, at_limit + "a")).status);
    // Far beyond what a connection may hold: refused by the HTTP engine itself, same status.
    EXPECT_EQ(414, ts::http_get(ts::local_url(port, at_limit + std::string(100000, 'a'))).status);
}

TEST_F(RequestLimits, HeadersTooLargeAnswer431)
{
    std::string raw = ts::raw_http(port, "GET / HTTP/1.1\r\nHost: x\r\nX-Pad: " + std::string(70000, 'b') + "\r\n\r\n");
    EXPECT_EQ("HTTP/1.1 431 Request Header Fields Too Large", status_line(raw));
}

TEST_F(RequestLimits, AnnouncedBodyOver256MiBAnswers413WithoutBeingSent)
{
    std::string raw = ts::raw_http(port,
                                   "POST /action/device/set_user_param HTTP/1.1\r\nHost: x\r\n"
                                   "Content-Type: application/json\r\nContent-Length: 268435457\r\n\r\n{");
    EXPECT_EQ("HTTP/1.1 413 Content Too Large", status_line(raw));
}

TEST_F(RequestLimits, BodySentWithADocumentRequestIsDroppedAfterABoundedAmount)
{
    Client client(port);
    client.send(body_head("GET", "/login.html", 1ull << 40));
    size_t taken = 0;
    std::string block(1 << 20, 'b');
    for (int i = 0; i < 64 && taken == block.size() * i; ++i)
        taken += client.send(block);
    EXPECT_LT(taken, 48u << 20) << "the server kept reading a body nobody uses";
}

TEST_F(RequestLimits, BodiesWaitingInTemporaryFilesAreBoundedTogether)
{
    // Bodies are taken in before any session is checked: one image of the largest size may
    // wait in /tmp, a second large body beside it is refused, before it is sent if it can be.
    const unsigned long long image = 200ull << 20;
    auto first = std::make_unique<Client>(port);
    first->send(body_head("POST", "/action/device/login", 256ull << 20) + std::string(1 << 20, 'i'));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ("HTTP/1.1 503 Service Unavailable",
              status_line(ts::raw_http(port, body_head("POST", "/action/device/StartUpgrade", image), 2000)));
    std::string chunked = "POST /action/device/StartUpgrade HTTP/1.1\r\nHost: x\r\nConnection: close\r\n"
                          "Transfer-Encoding: chunked\r\n\r\n";
    for (int i = 0; i < 24; ++i)
        chunked += "100000\r\n" + std::string(1 << 20, 'c') + "\r\n";
    EXPECT_EQ("HTTP/1.1 503 Service Unavailable", status_line(ts::raw_http(port, chunked + "0\r\n\r\n", 5000)));

    // Once the first client is gone, its room is free again: the next body is awaited.
    first.reset();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ("", ts::raw_http(port, body_head("POST", "/action/device/StartUpgrade", image), 300));
    EXPECT_EQ(0, ts::layer_temp_files());
}

TEST_F(RequestLimits, MultipartOver4MiBAnswers413)
{
    ts::write_file("/tmp/big.png", std::string(4 * 1024 * 1024 + 1, 'p'));
    ts::HttpRequest req;
    req.method = "POST";
    req.url = ts::local_url(port, "/action/device/upload_Image?fileName=a.png");
    req.upload_path = "/tmp/big.png";
    req.upload_name = "a.png";
    req.upload_type = "image/png";
    EXPECT_EQ(413, ts::http(req).status);

    // The same upload sent chunked, with no length to check beforehand.
    req.headers = {"Transfer-Encoding: chunked"};
    EXPECT_EQ(413, ts::http(req).status);
    EXPECT_EQ(0, ts::layer_temp_files());
}

TEST_F(RequestLimits, HundredMiBBodyIsSpooledWithFlatMemory)
{
    std::string body(1024 * 1024, 'u');
    {
        FILE *f = fopen("/tmp/image.bin", "wb");
        for (int i = 0; i < 100; ++i)
            fwrite(body.data(), 1, body.size(), f);
        fclose(f);
    }
    long before = ts::peak_memory_kib(server->process().pid());
    ts::HttpRequest req;
    req.url = ts::local_url(port, "/action/device/StartUpgrade");
    req.body_file = "/tmp/image.bin";
    req.timeout_ms = 60000;
    ts::HttpReply r = ts::http(req);
    EXPECT_EQ(200, r.status) << r.error;
    long after = ts::peak_memory_kib(server->process().pid());
    ASSERT_GT(before, 0);
    EXPECT_LT(after - before, 8 * 1024) << "peak memory grew from " << before << " KiB to " << after << " KiB";
    unlink("/tmp/image.bin");
    EXPECT_EQ(0, ts::layer_temp_files());
}

} // namespace
