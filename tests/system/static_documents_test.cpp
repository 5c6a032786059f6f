// Static documents of the real server through a real HTTP client: index, HEAD, conditional
// and range requests, content types, and paths that try to leave the document root.
#include "server_support.h"

#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <unistd.h>

namespace {

class StaticDocuments : public ::testing::Test {
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
        server = std::make_unique<ts::ServerProcess>(std::vector<std::string>{std::to_string(port), "lo"});
        ASSERT_TRUE(server->wait_ready(port)) << server->log();
    }
    static void TearDownTestSuite() { server.reset(); }

    static ts::HttpReply get(const std::string &path, std::vector<std::string> headers = {},
                             const std::string &method = "GET")
    {
        ts::HttpRequest req;
        req.url = ts::local_url(port, path);
        req.headers = std::move(headers);
        req.method = method;
        return ts::http(req);
    }

    static inline int port = 0;
    static inline std::unique_ptr<ts::ServerProcess> server;
};

TEST_F(StaticDocuments, RootServesTheLoginPageAndHeadOnlyItsHeaders)
{
    std::string page = ts::read_file("/mnt/app/web_root/login.html");
    ts::HttpReply r = get("/");
    EXPECT_EQ(200, r.status);
    EXPECT_EQ(page, r.body);
    EXPECT_EQ("text/html; charset=utf-8", r.headers["content-type"]);
    EXPECT_EQ("nosniff", r.headers["x-content-type-options"]);

    ts::HttpReply head = get("/login.html", {}, "HEAD");
    EXPECT_EQ(200, head.status);
    EXPECT_EQ("", head.body);
    EXPECT_EQ(std::to_string(page.size()), head.headers["content-length"]);
    EXPECT_FALSE(head.headers["last-modified"].empty());
}

TEST_F(StaticDocuments, DirectoryWithoutIndexIsNotListed)
{
    EXPECT_EQ(404, get("/sd/").status);
    EXPECT_EQ(404, get("/sd").status);
    EXPECT_EQ(404, get("/missing.html").status);
}

TEST_F(StaticDocuments, UnchangedDocumentAnswers304)
{
    ts::HttpReply first = get("/login.html");
    std::string stamp = first.headers["last-modified"];
    ts::HttpReply again = get("/login.html", {"If-Modified-Since: " + stamp});
    EXPECT_EQ(304, again.status);
    EXPECT_EQ("", again.body);
    EXPECT_EQ(200, get("/login.html", {"If-Modified-Since: Thu, 01 Jan 1998 00:00:00 GMT"}).status);
    EXPECT_EQ(200, get("/login.html", {"If-Modified-Since: yesterday"}).status);
}

TEST_F(StaticDocuments, ByteRangesOfARecording)
{
    const std::string path = "/sd/20240501/080000.mp4";
    std::string whole = ts::read_file("/mnt/app/web_root" + path);
    ASSERT_EQ(2048u, whole.size());
    struct Case {
        const char *range;
        long status;
        std::string content_range;
        std::string body;
    } cases[] = {
        {"bytes=10-19", 206, "bytes 10-19/2048", whole.substr(10, 10)},
        {"bytes=2040-", 206, "bytes 2040-2047/2048", whole.substr(2040)},
        {"bytes=-5", 206, "bytes 2043-2047/2048", whole.substr(2043)},
        {"bytes=2000-99999", 206, "bytes 2000-2047/2048", whole.substr(2000)},
        {"bytes=-99999", 206, "bytes 0-2047/2048", whole},
        {"bytes=2048-", 416, "bytes */2048", ""},
        {"bytes=-0", 416, "bytes */2048", ""},
        {"bytes=0-1,5-6", 200, "", whole},  // several ranges: the whole file
        {"bytes=9-3", 200, "", whole},      // unreadable: the whole file
        {"items=0-3", 200, "", whole},
    };
    for (const Case &c : cases) {
        ts::HttpReply r = get(path, {std::string("Range: ") + c.range});
        EXPECT_EQ(c.status, r.status) << c.range;
        EXPECT_EQ(c.content_range, r.headers["content-range"]) << c.range;
        if (c.status != 416) {
            EXPECT_EQ(c.body, r.body) << c.range;
        }
    }
}

TEST_F(StaticDocuments, RangeNearTheEndOfAFileOver4GiB)
{
    const uint64_t size = 5ull << 30;
    int fd = open("/mnt/app/web_root/sd/huge.h264", O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(0, ftruncate(fd, static_cast<off_t>(size)));
    ASSERT_EQ(4, pwrite(fd, "TAIL", 4, static_cast<off_t>(size - 4)));
    close(fd);

    ts::HttpReply tail = get("/sd/huge.h264", {"Range: bytes=5368709116-"});
    EXPECT_EQ(206, tail.status);
    EXPECT_EQ("TAIL", tail.body);
    EXPECT_EQ("bytes 5368709116-5368709119/5368709120", tail.headers["content-range"]);
    ts::HttpReply head = get("/sd/huge.h264", {}, "HEAD");
    EXPECT_EQ("5368709120", head.headers["content-length"]);
    EXPECT_EQ("video/h264", head.headers["content-type"]);
    unlink("/mnt/app/web_root/sd/huge.h264");
}

TEST_F(StaticDocuments, ContentTypeFollowsTheExtension)
{
    const std::pair<const char *, const char *> types[] = {
        {"html", "text/html; charset=utf-8"}, {"htm", "text/html; charset=utf-8"},
        {"js", "application/javascript"},     {"css", "text/css"},
        {"json", "application/json"},         {"txt", "text/plain; charset=utf-8"},
        {"png", "image/png"},                 {"jpg", "image/jpeg"},
        {"JPEG", "image/jpeg"},               {"bmp", "image/bmp"},
        {"gif", "image/gif"},                 {"svg", "image/svg+xml"},
        {"ico", "image/x-icon"},              {"mp4", "video/mp4"},
        {"avi", "video/x-msvideo"},           {"h264", "video/h264"},
        {"h265", "video/h265"},               {"bin", "application/octet-stream"},
    };
    for (auto &[ext, type] : types) {
        std::string name = std::string("/types/file.") + ext;
        ts::write_file("/mnt/app/web_root" + name, "x");
        EXPECT_EQ(type, get(name).headers["content-type"]) << ext;
    }
    ts::write_file("/mnt/app/web_root/types/noext", "x");
    EXPECT_EQ("application/octet-stream", get("/types/noext").headers["content-type"]);
}

TEST_F(StaticDocuments, NoPathLeavesTheRootOrReachesThePrivateFolder)
{
    const char *attempts[] = {
        "/../secret.txt",
        "/../../secret.txt",
        "/%2e%2e/secret.txt",
        "/%2E%2E/%2E%2E/secret.txt",
        "/.%2e/secret.txt",
        "/%2e./secret.txt",
        "/..%2fsecret.txt",
        "/..%2f..%2fsecret.txt",
        "/sd/../../secret.txt",
        "/sd/%2e%2e/%2e%2e/secret.txt",
        "/sd/%2e%2e%2f%2e%2e%2fsecret.txt",
        "/sd/20240501/../../../secret.txt",
        "/%252e%252e/secret.txt",
        "/..%5csecret.txt",
        "/sd\\..\\..\\secret.txt",
        "/%c0%ae%c0%ae/secret.txt",
        "/login.html%00.txt",
        "/%00/../secret.txt",
        "/out/secret.txt",
        "/out/app/web_root/config/auth.txt",
        "/sd/link.txt",
        "/config/auth.txt",
        "/config/route.txt",
        "//config/auth.txt",
        "/./config/auth.txt",
        "/%63onfig/auth.txt",
        "/config%2fauth.txt",
        "/sd/..%2f..%2fconfig/auth.txt",
        "/sd/./../config/auth.txt",
        "/pub/auth.txt",
        "/pub/route.txt",
        "/config/",
        "/config",
    };
    for (const char *path : attempts) {
        ts::HttpReply r = get(path);
        EXPECT_TRUE(r.status >= 400 && r.status < 500) << path << " answered " << r.status;
        EXPECT_EQ(std::string::npos, r.body.find("TOPSECRET")) << path;
        EXPECT_EQ(std::string::npos, r.body.find("route uri=")) << path;
        EXPECT_EQ(std::string::npos, r.body.find("role name=")) << path;
    }
    // A link that stays inside the root is still served.
    EXPECT_EQ(200, get("/sd/latest.mp4").status);
}

} // namespace
