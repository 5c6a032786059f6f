// Documents and request limits of the real server through a real HTTP client: index, HEAD, 304,
// ranges, content types, paths that try to leave the document root, requests too large to take.
#include "common/owners.h"
#include "testsupport.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <sys/stat.h>
#include <thread>

namespace {

class Serving : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        ts::lay_out_demo_tree();
        ts::write_file("/mnt/secret.txt", "TOPSECRET outside the root\n");
        // Links: one leaving the root, one leading into the private config folder, one that
        // stays inside and must keep working.
        symlink("/mnt", "/mnt/app/web_root/out");
        symlink("/mnt/secret.txt", "/mnt/app/web_root/sd/link.txt");
        symlink("config", "/mnt/app/web_root/pub");
        symlink("20240501/080000.mp4", "/mnt/app/web_root/sd/latest.mp4");
        port = ts::free_port();
        server = std::make_unique<ts::Process>(ts::start_server({std::to_string(port), "lo"}));
        ASSERT_TRUE(ts::wait_for_port("127.0.0.1", port, true)) << server->log();
    }
    static void TearDownTestSuite() { server.reset(); }

    static ts::HttpReply get(const std::string &path, const std::vector<std::string> &headers = {})
    {
        return ts::http({.url = ts::local_url(port, path), .headers = headers});
    }
    static std::string head_of_body(const std::string &method, const std::string &path, unsigned long long length)
    {
        return method + " " + path + " HTTP/1.1\r\nHost: localhost\r\nContent-Type: application/octet-stream\r\n"
                                      "Connection: close\r\nContent-Length: " + std::to_string(length) + "\r\n\r\n";
    }

    static inline int port = 0;
    static inline std::unique_ptr<ts::Process> server;
};

TEST_F(Serving, TheRootServesTheLoginPage)
{
    ts::HttpReply r = get("/");
    EXPECT_EQ(ts::read_file("/mnt/app/web_root/login.html"), r.body);
    EXPECT_EQ("text/html; charset=utf-8", r.headers["content-type"]);
    EXPECT_EQ("nosniff", r.headers["x-content-type-options"]);
}

TEST_F(Serving, HeadAnswersTheHeadersAlone)
{
    ts::HttpReply h = ts::http({.method = "HEAD", .url = ts::local_url(port, "/login.html")});
    EXPECT_EQ(200, h.status);
    EXPECT_EQ("", h.body);
    EXPECT_EQ(std::to_string(ts::read_file("/mnt/app/web_root/login.html").size()), h.headers["content-length"]);
}

TEST_F(Serving, LastModifiedIsTheFilesTimeInHttpForm)
{
    ts::write_file("/mnt/app/web_root/dated.txt", "x");
    for (const auto &[seconds, date] : {std::pair{951782709L, "Tue, 29 Feb 2000 00:05:09 GMT"},
                                        {1735689599L, "Tue, 31 Dec 2024 23:59:59 GMT"},
                                        {0L, "Thu, 01 Jan 1970 00:00:00 GMT"}}) {
        timespec times[2] = {{seconds, 0}, {seconds, 0}};
        ASSERT_EQ(0, utimensat(AT_FDCWD, "/mnt/app/web_root/dated.txt", times, 0));
        EXPECT_EQ(date, get("/dated.txt").headers["last-modified"]);
    }
}

// Small documents unchanged for a while are kept ready between requests; the files below are
// written as an hour old, so that their replies are kept.
void write_settled(const std::string &file, const std::string &text)
{
    ts::write_file(file, text);
    timespec hour_ago[2] = {{time(nullptr) - 3600, 0}, {time(nullptr) - 3600, 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, file.c_str(), hour_ago, 0)) << file;
}

TEST_F(Serving, AKeptDocumentRewrittenInPlaceIsSentAnew)
{
    write_settled("/mnt/app/web_root/kept.txt", "first version");
    EXPECT_EQ("first version", get("/kept.txt").body);
    EXPECT_EQ("first version", get("/kept.txt").body);
    ts::write_file("/mnt/app/web_root/kept.txt", "other version");  // same size
    EXPECT_EQ("other version", get("/kept.txt").body);
}

TEST_F(Serving, AKeptDocumentReplacedByARenameIsSentAnew)
{
    write_settled("/mnt/app/web_root/renamed.txt", "first version");
    EXPECT_EQ("first version", get("/renamed.txt").body);
    write_settled("/mnt/app/web_root/renamed.new", "other version");  // same size and times
    ASSERT_EQ(0, rename("/mnt/app/web_root/renamed.new", "/mnt/app/web_root/renamed.txt"));
    EXPECT_EQ("other version", get("/renamed.txt").body);
}

TEST_F(Serving, AKeptDocumentReplacedByALinkOutOfTheRootIsRefused)
{
    write_settled("/mnt/app/web_root/swapped.txt", "public text");
    EXPECT_EQ("public text", get("/swapped.txt").body);
    EXPECT_EQ("public text", get("/swapped.txt").body);
    ASSERT_EQ(0, unlink("/mnt/app/web_root/swapped.txt"));
    ASSERT_EQ(0, symlink("/mnt/secret.txt", "/mnt/app/web_root/swapped.txt"));
    ts::HttpReply r = get("/swapped.txt");
    EXPECT_EQ(404, r.status);
    EXPECT_EQ(std::string::npos, r.body.find("TOPSECRET"));
}

// Moving a folder leaves its files' state as it was: the way to them decides.
TEST_F(Serving, AKeptDocumentWhoseFolderMovedOutOfTheRootBehindALinkIsRefused)
{
    ts::make_dirs("/mnt/app/web_root/moving");
    write_settled("/mnt/app/web_root/moving/page.txt", "moving page");
    EXPECT_EQ("moving page", get("/moving/page.txt").body);
    EXPECT_EQ("moving page", get("/moving/page.txt").body);
    ASSERT_EQ(0, rename("/mnt/app/web_root/moving", "/mnt/moved"));
    ASSERT_EQ(0, symlink("/mnt/moved", "/mnt/app/web_root/moving"));
    EXPECT_EQ(404, get("/moving/page.txt").status);
}

TEST_F(Serving, ALinkSwitchedToAnotherFolderServesThatFolder)
{
    ts::make_dirs("/mnt/app/web_root/v1");
    ts::make_dirs("/mnt/app/web_root/v2");
    write_settled("/mnt/app/web_root/v1/app.txt", "version 1");
    write_settled("/mnt/app/web_root/v2/app.txt", "version 2");
    ASSERT_EQ(0, symlink("v1", "/mnt/app/web_root/ui"));
    EXPECT_EQ("version 1", get("/ui/app.txt").body);
    EXPECT_EQ("version 1", get("/ui/app.txt").body);
    ASSERT_EQ(0, symlink("v2", "/mnt/app/web_root/ui.new"));
    ASSERT_EQ(0, rename("/mnt/app/web_root/ui.new", "/mnt/app/web_root/ui"));
    EXPECT_EQ("version 2", get("/ui/app.txt").body);
}

// More small documents than are kept ready: each reply still carries its own file, and
// its headers once each.
TEST_F(Serving, ManySmallDocumentsInTurnEachGetTheirOwnReply)
{
    ts::make_dirs("/mnt/app/web_root/many");
    for (int i = 0; i < 40; ++i)
        write_settled("/mnt/app/web_root/many/" + std::to_string(i) + (i % 2 ? ".txt" : ".css"),
                      "document " + std::to_string(i));
    for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < 40; ++i) {
            ts::HttpReply r = get("/many/" + std::to_string(i) + (i % 2 ? ".txt" : ".css"));
            EXPECT_EQ("document " + std::to_string(i), r.body);
            EXPECT_EQ(i % 2 ? "text/plain; charset=utf-8" : "text/css", r.headers["content-type"]) << i;
            EXPECT_EQ("nosniff", r.headers["x-content-type-options"]) << i;
        }
    }
    std::string raw = ts::raw_http(port, "GET /many/1.txt HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n");
    size_t headers = 0;
    for (size_t at = raw.find("X-Content-Type-Options:"); at != std::string::npos;
         at = raw.find("X-Content-Type-Options:", at + 1))
        ++headers;
    EXPECT_EQ(1u, headers) << raw;
}

TEST_F(Serving, AnUnchangedPageGets304)
{
    std::string modified = get("/login.html").headers["last-modified"];
    ts::HttpReply again = get("/login.html", {"If-Modified-Since: " + modified});
    EXPECT_EQ(304, again.status);
    EXPECT_EQ("", again.body);
    EXPECT_EQ(200, get("/login.html", {"If-Modified-Since: Thu, 01 Jan 1998 00:00:00 GMT"}).status);
}

TEST_F(Serving, NeitherFoldersNorMissingFilesAreServed)
{
    for (const char *missing : {"/sd/", "/sd", "/missing.html"})  // folders are not listed
        EXPECT_EQ(404, get(missing).status) << missing;
}

TEST_F(Serving, TheTypeFollowsTheExtension)
{
    for (auto [name, type] : {std::pair{"a.js", "application/javascript"}, {"a.JPEG", "image/jpeg"},
                              {"a.h265", "video/h265"}, {"noext", "application/octet-stream"}}) {
        ts::write_file(std::string("/mnt/app/web_root/types/") + name, "x");
        EXPECT_EQ(type, get(std::string("/types/") + name).headers["content-type"]) << name;
    }
}

TEST_F(Serving, ByteRangesOfARecording)
{
    const std::string path = "/sd/20240501/080000.mp4";
    std::string whole = ts::read_file("/mnt/app/web_root" + path);
    ASSERT_EQ(2048u, whole.size());
    const struct {
        const char *range;
        long status;
        std::string content_range, body;
    } cases[] = {
        {"bytes=10-19", 206, "bytes 10-19/2048", whole.substr(10, 10)},
        {"bytes=2040-", 206, "bytes 2040-2047/2048", whole.substr(2040)},
        {"bytes=-5", 206, "bytes 2043-2047/2048", whole.substr(2043)},
        {"bytes=2000-99999", 206, "bytes 2000-2047/2048", whole.substr(2000)},
        {"bytes=-99999", 206, "bytes 0-2047/2048", whole},
        {"bytes=2048-", 416, "bytes */2048", ""},
        {"bytes=-0", 416, "bytes */2048", ""},
        {"bytes=0-1,5-6", 200, "", whole},
        {"bytes=9-3", 200, "", whole},
        {"items=0-3", 200, "", whole},  // the whole file
    };
    for (const auto &c : cases) {
        ts::HttpReply r = get(path, {std::string("Range: ") + c.range});
        EXPECT_EQ(c.status, r.status) << c.range;
        EXPECT_EQ(c.content_range, r.headers["content-range"]) << c.range;
        EXPECT_TRUE(c.status == 416 || c.body == r.body) << c.range;
    }
}

TEST_F(Serving, ARangeNearTheEndOfAFileOver4GiB)
{
    UniqueFd fd(open("/mnt/app/web_root/sd/huge.h264", O_WRONLY | O_CREAT | O_TRUNC, 0644));
    ASSERT_EQ(0, ftruncate(fd.get(), 5LL << 30));
    ASSERT_EQ(4, pwrite(fd.get(), "TAIL", 4, (5LL << 30) - 4));
    ts::HttpReply tail = get("/sd/huge.h264", {"Range: bytes=5368709116-"});
    EXPECT_EQ(206, tail.status);
    EXPECT_EQ("TAIL", tail.body);
    EXPECT_EQ("bytes 5368709116-5368709119/5368709120", tail.headers["content-range"]);
    EXPECT_EQ("video/h264", tail.headers["content-type"]);
}

TEST_F(Serving, NoPathLeavesTheRootOrReachesThePrivateFolder)
{
    for (const char *path : {
             "/../secret.txt", "/../../secret.txt", "/%2e%2e/secret.txt", "/%2E%2E/%2E%2E/secret.txt",
             "/.%2e/secret.txt", "/%2e./secret.txt", "/..%2fsecret.txt", "/..%2f..%2fsecret.txt",
             "/sd/../../secret.txt", "/sd/%2e%2e/%2e%2e/secret.txt", "/sd/%2e%2e%2f%2e%2e%2fsecret.txt",
             "/sd/20240501/../../../secret.txt", "/%252e%252e/secret.txt", "/..%5csecret.txt",
             "/sd\\..\\..\\secret.txt", "/%c0%ae%c0%ae/secret.txt", "/login.html%00.txt", "/%00/../secret.txt",
             "/out/secret.txt", "/out/app/web_root/config/auth.txt", "/sd/link.txt", "/config/auth.txt",
             "/config/route.txt", "//config/auth.txt", "/./config/auth.txt", "/%63onfig/auth.txt",
             "/config%2fauth.txt", "/sd/..%2f..%2fconfig/auth.txt", "/sd/./../config/auth.txt", "/pub/auth.txt",
             "/pub/route.txt", "/config/", "/config"}) {
        ts::HttpReply r = get(path);
        EXPECT_TRUE(r.status >= 400 && r.status < 500) << path << " answered " << r.status;
        for (const char *secret : {"TOPSECRET", "route uri=", "role name="})
            EXPECT_EQ(std::string::npos, r.body.find(secret)) << path;
    }
    EXPECT_EQ(200, get("/sd/latest.mp4").status);  // a link that stays inside the root
}

TEST_F(Serving, ATargetOver2048BytesGets414)
{
    std::string target = "/action/device/login?pad=";
    target += std::string(2048 - target.size(), 'a');
    EXPECT_EQ(200, get(target).status);
    EXPECT_EQ(414, get(target + "a").status);
    EXPECT_EQ(414, get(target + std::string(100000, 'a')).status);  // refused by the HTTP engine itself
}

TEST_F(Serving, HeadersTooLargeForTheConnectionGet431)
{
    std::string head = "GET / HTTP/1.1\r\nHost: localhost\r\nX-Pad: " + std::string(70000, 'b') + "\r\n\r\n";
    EXPECT_EQ("HTTP/1.1 431 Request Header Fields Too Large", ts::status_line(ts::raw_http(port, head)));
}

// An action that needs no caller takes a JSON text, in memory only.
TEST_F(Serving, AJsonBodyOver64KiBGets413)
{
    EXPECT_EQ("HTTP/1.1 413 Content Too Large",
              ts::status_line(ts::raw_http(port, head_of_body("POST", "/action/device/login", 65537))));
}

TEST_F(Serving, AnUploadOver4MiBGets413WithOrWithoutItsLength)
{
    ts::write_file("/tmp/big.png", std::string(4 * 1024 * 1024 + 1, 'p'));
    ts::HttpRequest req{.method = "POST",
                        .url = ts::local_url(port, "/action/device/upload_Image?username=admin&password=" +
                                                       std::string(ts::kAdminDigest) + "&fileName=a.png"),
                        .upload_path = "/tmp/big.png", .upload_name = "a.png", .upload_type = "image/png"};
    EXPECT_EQ(413, ts::http(req).status);
    req.headers = {"Transfer-Encoding: chunked"};  // no length to check beforehand
    EXPECT_EQ(413, ts::http(req).status);
    EXPECT_EQ(0, ts::temp_files());
}

// Bytes of data the server took before it closed the connection (all when it never did).
size_t send_all(const UniqueFd &fd, const std::string &data)
{
    size_t off = 0;
    for (ssize_t n; off < data.size() && (n = send(fd.get(), data.data() + off, data.size() - off, MSG_NOSIGNAL)) > 0;)
        off += static_cast<size_t>(n);
    return off;
}

TEST_F(Serving, TheServerStopsTakingABodyNobodyUses)
{
    UniqueFd document = ts::connect_from("127.0.0.1", port);
    send_all(document, head_of_body("GET", "/login.html", 1ull << 40));
    size_t taken = 0;
    std::string block(1 << 20, 'b');
    for (int i = 0; i < 64 && taken == block.size() * i; ++i)
        taken += send_all(document, block);
    EXPECT_LT(taken, 48u << 20) << "the server kept reading a body nobody uses";
}

// The caller is checked before a byte of the body is taken: a refused one gets its answer
// at once, no "100 Continue", and leaves nothing in /tmp.
TEST_F(Serving, ACallerWithoutSessionIsRefusedBeforeItsBodyIsSent)
{
    for (const char *action : {"StartUpgrade", "set_user_param", "upload_Image", "GetNetworkWIFIParameters"}) {
        std::string head = "POST /action/device/" + std::string(action) +
                           " HTTP/1.1\r\nHost: localhost\r\nExpect: 100-continue\r\nContent-Length: 250000000\r\n\r\n";
        std::string reply = ts::raw_http(port, head, 2000);
        EXPECT_EQ(0u, reply.find("HTTP/1.1 200 OK\r\n")) << action << ": " << reply;
        EXPECT_EQ(std::string::npos, reply.find("100 Continue")) << action;
        EXPECT_TRUE(reply.ends_with(ts::coded(-16, "Session ID is empty"))) << action << ": " << reply;
        EXPECT_NE(std::string::npos, reply.find("Connection: close")) << action;
    }
    EXPECT_EQ(0, ts::temp_files());
}

// A client that sends its body without waiting for a "100 Continue" may still be sending when
// the refusal comes: the server reads on and drops what follows, so the client gets its
// answer whole and the rest of its body in, instead of a reset connection.
TEST_F(Serving, ARefusedClientStillSendingItsBodyGetsTheWholeRefusal)
{
    UniqueFd fd = ts::connect_from("127.0.0.1", port);
    std::string head = "POST /action/device/set_user_param HTTP/1.1\r\nHost: localhost\r\nContent-Length: 12582912\r\n\r\n";
    ASSERT_EQ(head.size(), send_all(fd, head));
    std::string reply;
    char buf[4096];
    for (ssize_t n; !reply.ends_with(ts::coded(-16, "Session ID is empty")) && (n = recv(fd.get(), buf, sizeof buf, 0)) > 0;)
        reply.append(buf, static_cast<size_t>(n));
    EXPECT_EQ(0u, reply.find("HTTP/1.1 200 OK\r\n")) << reply;
    EXPECT_EQ(12582912u, send_all(fd, std::string(12582912, 'x'))) << "the rest of the body was refused";
}

} // namespace
