// Precompressed documents through the real server: NAME.gz beside NAME goes to clients that
// accept gzip, with NAME's type, Content-Encoding and Vary; NAME.gz alone is refused to
// the others; ranges, HEAD and If-Modified-Since apply to the file sent.
#include "testsupport.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char kRoot[] = "/mnt/app/web_root";
// The server does not look into the compressed bytes; distinct texts show which file went out.
constexpr char kPlain[] = "console.log('plain');\n";
constexpr char kPacked[] = "\x1f\x8b packed bytes of app.js";

class Precompressed : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        ts::lay_out_demo_tree();
        ts::write_file(std::string(kRoot) + "/js/app.js", kPlain);
        ts::write_file(std::string(kRoot) + "/js/app.js.gz", kPacked);
        ts::write_file(std::string(kRoot) + "/css/only.css.gz", "packed css only");
        ts::write_file(std::string(kRoot) + "/login.html.gz", "packed login page");
        ts::write_file(std::string(kRoot) + "/pages/login.html.gz", "packed folder index");
        ts::write_file(std::string(kRoot) + "/config/device.json.gz", "private");
        ts::write_file("/mnt/outside.txt", "outside the root");
        ts::write_file(std::string(kRoot) + "/sd/note.txt", "plain note");
        symlink("/mnt/outside.txt", (std::string(kRoot) + "/sd/note.txt.gz").c_str());
        ts::write_file(std::string(kRoot) + "/img/logo.svg", "<svg/>");
        ts::make_dirs(std::string(kRoot) + "/img/logo.svg.gz");
        ts::write_file(std::string(kRoot) + "/img/logo.svg.gz/login.html", "a folder's index");
        port = ts::free_port();
        server = std::make_unique<ts::Process>(ts::start_server({std::to_string(port), "lo"}));
        ASSERT_TRUE(ts::wait_for_port("127.0.0.1", port, true)) << server->log();
    }
    static void TearDownTestSuite() { server.reset(); }

    static ts::HttpReply get(const std::string &path, const std::vector<std::string> &headers = {},
                             const std::string &method = "GET")
    {
        return ts::http({.method = method, .url = ts::local_url(port, path), .headers = headers});
    }

    static inline int port = 0;
    static inline std::unique_ptr<ts::Process> server;
};

// A reply kept for NAME depends on NAME.gz too: one that appears later is seen at once.
TEST_F(Precompressed, ACopyThatAppearsAfterAPageWasSentChangesTheNextReply)
{
    const std::string page = std::string(kRoot) + "/js/late.js";
    ts::write_file(page, kPlain);
    timespec hour_ago[2] = {{time(nullptr) - 3600, 0}, {time(nullptr) - 3600, 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, page.c_str(), hour_ago, 0));  // old enough to be kept
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ("", get("/js/late.js").headers["vary"]);
        EXPECT_EQ(kPlain, get("/js/late.js", {"Accept-Encoding: gzip"}).body);
    }
    ts::write_file(page + ".gz", kPacked);
    EXPECT_EQ("Accept-Encoding", get("/js/late.js").headers["vary"]);
    EXPECT_EQ(kPacked, get("/js/late.js", {"Accept-Encoding: gzip"}).body);
}

// The same bytes sent as app.js to a gzip client and as app.js.gz by their own name are two
// different replies, also once both have been sent before.
TEST_F(Precompressed, TheCompressedFileAskedByItsOwnNameIsNoEncodedReply)
{
    for (int round = 0; round < 2; ++round) {
        ts::HttpReply packed = get("/js/app.js", {"Accept-Encoding: gzip"});
        EXPECT_EQ("gzip", packed.headers["content-encoding"]);
        EXPECT_EQ("application/javascript", packed.headers["content-type"]);
        ts::HttpReply named = get("/js/app.js.gz", {"Accept-Encoding: gzip"});
        EXPECT_EQ(kPacked, named.body);
        EXPECT_EQ("", named.headers["content-encoding"]) << "round " << round;
        EXPECT_NE("application/javascript", named.headers["content-type"]) << "round " << round;
    }
}

TEST_F(Precompressed, TheCompressedFileGoesOnlyToClientsWhoseAcceptEncodingAdmitsGzip)
{
    const struct {
        const char *accept;  // nullptr: no Accept-Encoding header
        bool packed;
    } cases[] = {
        {nullptr, false},
        {"gzip, deflate, br", true},
        {"GZIP;Q=0.5", true},
        {"x-gzip", true},
        {"*", true},
        {"br, *;q=0.1", true},
        {"deflate, br", false},
        {"gzip;q=0", false},
        {"gzip ; q=0.000, deflate", false},
        {"identity;q=1, *;q=0", false},
        {"*;q=1, gzip;q=0", false},  // gzip named and refused: "*" does not bring it back
        {"gzip;level=1;q=0", false},
        {"gzipx, xgzip", false},
    };
    for (const auto &c : cases) {
        std::vector<std::string> headers;
        if (c.accept)
            headers.push_back(std::string("Accept-Encoding: ") + c.accept);
        ts::HttpReply r = get("/js/app.js", headers);
        std::string label = c.accept ? c.accept : "(none)";
        EXPECT_EQ(200, r.status) << label;
        EXPECT_EQ(c.packed ? kPacked : kPlain, r.body) << label;
        EXPECT_EQ(c.packed ? "gzip" : "", r.headers["content-encoding"]) << label;
        EXPECT_EQ("application/javascript", r.headers["content-type"]) << label;
        // Both answers name the header they depend on, so no cache hands one to the other.
        EXPECT_EQ("Accept-Encoding", r.headers["vary"]) << label;
    }
    // Without a compressed copy nothing changes: no encoding and no Vary.
    ts::HttpReply plain_only = get("/sd/20240501/080000.mp4", {"Accept-Encoding: gzip"});
    EXPECT_EQ(200, plain_only.status);
    EXPECT_EQ("", plain_only.headers["content-encoding"]);
    EXPECT_EQ("", plain_only.headers["vary"]);
}

TEST_F(Precompressed, ACompressedCopyAloneServesGzipClients)
{
    ts::HttpReply css = get("/css/only.css", {"Accept-Encoding: gzip"});
    EXPECT_EQ(200, css.status);
    EXPECT_EQ("packed css only", css.body);
    EXPECT_EQ("text/css", css.headers["content-type"]);
    EXPECT_EQ("gzip", css.headers["content-encoding"]);
}

TEST_F(Precompressed, ACompressedCopyAloneIs404ToOtherClients)
{
    EXPECT_EQ(404, get("/css/only.css").status);
    EXPECT_EQ(404, get("/css/only.css", {"Accept-Encoding: gzip;q=0"}).status);
}

// The root and a folder stand for their index page, compressed or not.
TEST_F(Precompressed, AnIndexPageMayBeACompressedCopy)
{
    EXPECT_EQ("packed login page", get("/", {"Accept-Encoding: gzip"}).body);
    EXPECT_EQ(ts::read_file(std::string(kRoot) + "/login.html"), get("/").body);
    ts::HttpReply folder = get("/pages/", {"Accept-Encoding: gzip"});
    EXPECT_EQ("packed folder index", folder.body);
    EXPECT_EQ("text/html; charset=utf-8", folder.headers["content-type"]);
    EXPECT_EQ("packed folder index", get("/pages", {"Accept-Encoding: gzip"}).body);
    EXPECT_EQ(404, get("/pages/").status);
}

TEST_F(Precompressed, HeadDescribesTheCompressedFile)
{
    ts::HttpReply head = get("/js/app.js", {"Accept-Encoding: gzip"}, "HEAD");
    EXPECT_EQ(200, head.status);
    EXPECT_EQ("", head.body);
    EXPECT_EQ(std::to_string(std::string(kPacked).size()), head.headers["content-length"]);
    EXPECT_EQ("gzip", head.headers["content-encoding"]);
}

TEST_F(Precompressed, RangesCountInTheCompressedFile)
{
    const std::string packed = kPacked;
    ts::HttpReply part = get("/js/app.js", {"Accept-Encoding: gzip", "Range: bytes=2-7"});
    EXPECT_EQ(206, part.status);
    EXPECT_EQ(packed.substr(2, 6), part.body);
    EXPECT_EQ("bytes 2-7/" + std::to_string(packed.size()), part.headers["content-range"]);
    EXPECT_EQ("gzip", part.headers["content-encoding"]);
    ts::HttpReply beyond = get("/js/app.js", {"Accept-Encoding: gzip", "Range: bytes=500-"});
    EXPECT_EQ(416, beyond.status);
    EXPECT_EQ("bytes */" + std::to_string(packed.size()), beyond.headers["content-range"]);
}

TEST_F(Precompressed, IfModifiedSinceAppliesToTheCompressedFile)
{
    std::string modified = get("/js/app.js", {"Accept-Encoding: gzip"}).headers["last-modified"];
    ts::HttpReply cached = get("/js/app.js", {"Accept-Encoding: gzip", "If-Modified-Since: " + modified});
    EXPECT_EQ(304, cached.status);
    EXPECT_EQ("Accept-Encoding", cached.headers["vary"]);
    EXPECT_EQ(200, get("/js/app.js", {"Accept-Encoding: gzip", "If-Modified-Since: Thu, 01 Jan 1998 00:00:00 GMT"}).status);
}

TEST_F(Precompressed, APrivateFolderStaysPrivateInBothForms)
{
    ts::HttpReply secret = get("/config/device.json", {"Accept-Encoding: gzip"});
    EXPECT_TRUE(secret.status == 403 || secret.status == 404) << secret.status;
    EXPECT_EQ(std::string::npos, secret.body.find("private"));
}

TEST_F(Precompressed, ACompressedNameLinkingOutOfTheRootIsPassedOver)
{
    ts::HttpReply note = get("/sd/note.txt", {"Accept-Encoding: gzip"});
    EXPECT_EQ("plain note", note.body);
    EXPECT_EQ("", note.headers["content-encoding"]);
}

// Nor does such a folder stand for its index page.
TEST_F(Precompressed, AFolderNamedLikeACompressedCopyIsNotOne)
{
    ts::HttpReply logo = get("/img/logo.svg", {"Accept-Encoding: gzip"});
    EXPECT_EQ("<svg/>", logo.body);
    EXPECT_EQ("", logo.headers["content-encoding"]);
}

} // namespace
