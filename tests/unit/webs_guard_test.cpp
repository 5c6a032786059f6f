// The web layer's defences: the Host and Origin checks, the framing check over the header
// fields libmicrohttpd delivers (and what its own strictness would catch), and the headers
// every reply carries.
#include "layer_server.h"
#include "testsupport.h"
#include "webs/webs.h"
#include "webs/webs_framing.h"
#include "webs/webs_guard.h"

#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <microhttpd.h>
#include <thread>
#include <unistd.h>

namespace {

using webs::HeaderField;

// Address literals, localhost and the device's own name all name the device.
TEST(HostCheck, TheDevicesOwnNamesPassWithAnyPort)
{
    for (const char *host : {"192.0.2.10", "192.0.2.10:8080", "127.0.0.1:80", "[::1]", "[::1]:8080",
                             "[2001:DB8::7]:65535", "[::ffff:192.0.2.1]", "localhost", "LocalHost:8080",
                             "localhost.", "cam-01", "CAM-01.Local", "cam-01.local.:80", "cam-01:", " cam-01\t"})
        EXPECT_TRUE(webs::host_allowed(host, "cam-01")) << host;
    EXPECT_TRUE(webs::host_allowed(nullptr, "cam-01")) << "no Host: no browser";
    EXPECT_TRUE(webs::host_allowed("Cam-01.", "CAM-01.")) << "the device's name in any case";
}

TEST(HostCheck, EveryOtherHostIsRefused)
{
    for (const char *host :
         {"attacker.example", "attacker.example:8080", "cam-01.attacker.example", "cam-01.localx", "xcam-01",
          "cam-01..", "localhost..", ".localhost", "local", "cam-01.local.local", "192.0.2.10.", "192.0.2",
          "192.0.2.010", "1.2.3.4.5", "4294967295", "0x7f.1", "::1", "[::1", "[::1]x", "[::1]:x", "[fe80::1%25eth0]",
          "[192.0.2.1]", "user@localhost", "localhost:65536", "localhost:8o", "localhost:123456", "localhost/x",
          "local host", "localhost:80:80", "", "   ", "ca\xc3\xa9", "localhost\r"}) {
        EXPECT_FALSE(webs::host_allowed(host, "cam-01")) << host;
    }
    EXPECT_FALSE(webs::host_allowed("cam-01", "")) << "no device name: names never match it";
    EXPECT_FALSE(webs::host_allowed(".local", ""));
}

TEST(OriginCheck, TheSameOriginMayWriteWithDefaultPortsSpelledOrNot)
{
    const std::pair<const char *, const char *> same[] = {
        {"http://192.0.2.10", "192.0.2.10"},          {"http://192.0.2.10:80", "192.0.2.10"},
        {"http://192.0.2.10", "192.0.2.10:80"},       {"HTTP://CAM-01.local:8080", "cam-01.LOCAL:8080"},
        {"http://[::1]:8080", "[0:0::1]:8080"},       {"https://cam-01", "cam-01:443"},
        {"http://localhost.", "localhost"},           {" http://localhost:8080 ", "localhost:8080"},
    };
    for (const auto &[origin, host] : same)
        EXPECT_TRUE(webs::origin_allowed(origin, host)) << origin << " " << host;
    EXPECT_TRUE(webs::origin_allowed(nullptr, "192.0.2.10"));
    EXPECT_TRUE(webs::origin_allowed(nullptr, nullptr));
}

TEST(OriginCheck, EveryOtherOriginIsRefused)
{
    const std::pair<const char *, const char *> refused[] = {
        {"http://attacker.example", "192.0.2.10"},
        {"http://192.0.2.11", "192.0.2.10"},
        {"http://192.0.2.10:8080", "192.0.2.10"},
        {"https://192.0.2.10", "192.0.2.10"},  // another port, 443
        {"http://localhost", "127.0.0.1"},
        {"null", "192.0.2.10"},
        {"file://", "192.0.2.10"},
        {"ftp://192.0.2.10", "192.0.2.10"},
        {"http://user@192.0.2.10", "192.0.2.10"},
        {"http://192.0.2.10/", "192.0.2.10"},
        {"http://192.0.2.10 http://192.0.2.10", "192.0.2.10"},
        {"http://", "192.0.2.10"},
        {"192.0.2.10", "192.0.2.10"},
        {"http://192.0.2.10", nullptr},
        {"http://192.0.2.10", "garbage host"},
    };
    for (const auto &[origin, host] : refused)
        EXPECT_FALSE(webs::origin_allowed(origin, host)) << origin << " " << (host ? host : "(none)");
}

std::vector<HeaderField> fields(std::initializer_list<std::pair<std::string_view, std::string_view>> list)
{
    std::vector<HeaderField> out;
    for (const auto &[name, value] : list)
        out.push_back({name, value});
    return out;
}

TEST(FramingCheck, OneUnambiguousLengthOrChunkedPasses)
{
    const std::vector<HeaderField> fine[] = {
        {},
        fields({{"Host", "x"}, {"Content-Length", "12"}}),
        fields({{"Content-Length", "12"}, {"content-length", " 12\t"}}),  // a repeated, equal length
        fields({{"Transfer-Encoding", "chunked"}}),
        fields({{"transfer-encoding", " Chunked "}}),
        fields({{"X-Tab", "a\tb"}, {"X-High", "\xc3\xa9"}, {"!#$%&'*+-.^_`|~09az", ""}}),
    };
    for (const auto &f : fine)
        EXPECT_EQ(nullptr, webs::framing_fault(f, false));
}

TEST(FramingCheck, EveryDoubtAboutWhereTheRequestEndsIsNamed)
{
    const std::pair<std::vector<HeaderField>, const char *> doubtful[] = {
        {fields({{"Content-Length", "0"}, {"Content-Length", "40"}}), "differing Content-Length fields"},
        {fields({{"Content-Length", "5"}, {"Transfer-Encoding", "chunked"}}),
         "Content-Length together with Transfer-Encoding"},
        {fields({{"Transfer-Encoding", "chunked"}, {"Content-Length", "5"}}),
         "Content-Length together with Transfer-Encoding"},
        {fields({{"Transfer-Encoding", "gzip, chunked"}}), "Transfer-Encoding other than chunked"},
        {fields({{"Transfer-Encoding", "xchunked"}}), "Transfer-Encoding other than chunked"},
        {fields({{"Transfer-Encoding", ""}}), "Transfer-Encoding other than chunked"},
        {fields({{"Transfer-Encoding", "chunked"}, {"Transfer-Encoding", "chunked"}}), "Transfer-Encoding given twice"},
        {fields({{"Content-Length ", "5"}}), "header field name is no token"},
        {fields({{" Content-Length", "5"}}), "header field name is no token"},
        {fields({{"", "5"}}), "header field name is no token"},
        {fields({{"X", "a\rContent-Length: 5"}}), "control character in a header field"},
        {fields({{"X", std::string_view("a\0b", 3)}}), "control character in a header field"},
        {fields({{"Host", "a"}, {"host", "a"}}), "Host given twice"},
    };
    for (const auto &[f, reason] : doubtful)
        EXPECT_STREQ(reason, webs::framing_fault(f, false)) << reason;
    EXPECT_STREQ("HTTP/1.1 request without Host", webs::framing_fault(fields({{"X", "y"}}), true));
    EXPECT_EQ(nullptr, webs::framing_fault(fields({{"host", "y"}}), true));
}

// libmicrohttpd as the layer runs it, with a handler that refuses what framing_fault names
// and otherwise answers with the fields it saw: what the check can and cannot see.
class Framing : public ::testing::Test {
protected:
    void SetUp() override { start(0); }
    void TearDown() override { MHD_stop_daemon(daemon); }

    void start(int strictness)
    {
        if (daemon)
            MHD_stop_daemon(daemon);
        port = ts::free_port();
        daemon = MHD_start_daemon(MHD_USE_INTERNAL_POLLING_THREAD, static_cast<uint16_t>(port), nullptr, nullptr,
                                  handler, nullptr, MHD_OPTION_STRICT_FOR_CLIENT, strictness, MHD_OPTION_END);
        ASSERT_NE(nullptr, daemon);
    }

    // Answers the moment the headers are in, as the layer must: a refusal then never
    // reads the body that may hide a request.
    static MHD_Result handler(void *, MHD_Connection *c, const char * /*url*/, const char * /*method*/,
                              const char *version, const char *, size_t *upload_size, void **state)
    {
        static int refused;
        if (*upload_size) {
            *upload_size = 0;
            return MHD_YES;
        }
        if (*state == &refused)
            return MHD_YES;
        std::vector<HeaderField> list = webs::request_header_fields(c);
        const char *fault = checking ? webs::framing_fault(list, strcmp(version, MHD_HTTP_VERSION_1_1) == 0) : nullptr;
        if (!fault && !*state) {
            *state = c;
            return MHD_YES;  // take the body, answer at its end
        }
        *state = fault ? &refused : *state;
        std::string body = fault ? fault : "";
        for (const HeaderField &f : list)
            body += "[" + std::string(f.name) + "=" + std::string(f.value) + "]";
        MHD_Response *r = MHD_create_response_from_buffer(body.size(), body.data(), MHD_RESPMEM_MUST_COPY);
        if (fault)
            MHD_add_response_header(r, MHD_HTTP_HEADER_CONNECTION, "close");
        MHD_Result rc = MHD_queue_response(c, fault ? MHD_HTTP_BAD_REQUEST : MHD_HTTP_OK, r);
        MHD_destroy_response(r);
        return rc;
    }

    std::string send(const std::string &head_and_body, int wait_ms = 1000)
    {
        return ts::raw_http(port, head_and_body, wait_ms);
    }

    static inline bool checking = true;
    int port = 0;
    MHD_Daemon *daemon = nullptr;
};

const std::string kHidden = "GET /hidden HTTP/1.1\r\nHost: x\r\n\r\n";
// Requests whose end is in doubt; each carries a hidden second request.
const std::string kSmuggling[] = {
    "POST /a HTTP/1.1\r\nHost: x\r\nContent-Length: 0\r\nContent-Length: " + std::to_string(kHidden.size()) +
        "\r\n\r\n" + kHidden,
    "POST /a HTTP/1.1\r\nHost: x\r\nContent-Length: 3\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n" + kHidden,
    "POST /a HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\nContent-Length: 3\r\n\r\n0\r\n\r\n" + kHidden,
    "POST /a HTTP/1.1\r\nHost: x\r\nTransfer-Encoding : chunked\r\nContent-Length: 3\r\n\r\nabc" + kHidden,
    "POST /a HTTP/1.1\r\nHost: x\r\nX: y\rContent-Length: 0\r\n\r\n" + kHidden,
};

// The shapes above, and the other doubts the header list shows.
std::vector<std::string> shapes_the_check_sees()
{
    std::vector<std::string> shapes(std::begin(kSmuggling), std::end(kSmuggling));
    shapes.push_back("POST /a HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: identity\r\n\r\n" + kHidden);
    shapes.push_back("GET /a HTTP/1.1\r\nHost: x\r\nHost: attacker.example\r\n\r\n");
    shapes.push_back("GET /a HTTP/1.1\r\n\r\n");
    return shapes;
}

TEST_F(Framing, EachSmugglingShapeThatReachesTheHeaderListGets400)
{
    for (const std::string &shape : shapes_the_check_sees())
        EXPECT_EQ("HTTP/1.1 400 Bad Request", ts::status_line(send(shape))) << shape;
}

TEST_F(Framing, TheRequestHiddenBehindASmugglingShapeIsNeverAnswered)
{
    for (const std::string &shape : shapes_the_check_sees()) {
        std::string got = send(shape);
        EXPECT_EQ(1u, ts::occurrences(got, "\r\nDate: ")) << shape << "\n" << got;
    }
}

TEST_F(Framing, AnHttp10RequestNeedsNoHost)
{
    EXPECT_EQ("HTTP/1.1 200 OK", ts::status_line(send("GET /a HTTP/1.0\r\nConnection: close\r\n\r\n")));
}

// What libmicrohttpd's own strictness (MHD_OPTION_STRICT_FOR_CLIENT 1) would add: none of the
// shapes is refused by it, and its refusal of an HTTP/1.1 request without Host writes the
// status line and headers twice, so the layer does not use it.
TEST_F(Framing, LibmicrohttpdsStrictnessCatchesNoSmugglingShape)
{
    checking = false;
    start(1);
    for (const std::string &shape : kSmuggling)
        EXPECT_EQ("HTTP/1.1 200 OK", ts::status_line(send(shape, 300))) << shape;
    EXPECT_EQ(2u, ts::occurrences(send(kSmuggling[0], 300), "\r\nDate: ")) << "the hidden request is answered";
    EXPECT_EQ(2u, ts::occurrences(send("GET /a HTTP/1.1\r\n\r\n"), "HTTP/1.1 400 Bad Request\r\n"));
    checking = true;
}

// Neither an obs-fold nor a bare LF reaches the header list as what it was, and libmicrohttpd
// 0.9.75 has no switch to refuse them (1.0 has).

// libmicrohttpd appends a folded line to the field's name, so a fold shows only when the
// continuation holds a character no name may hold.
TEST_F(Framing, AnObsFoldBecomesPartOfTheFieldName)
{
    std::string folded = send("GET /a HTTP/1.1\r\nHost: x\r\nX-Folded: a\r\n  b\r\nConnection: close\r\n\r\n");
    EXPECT_EQ("HTTP/1.1 200 OK", ts::status_line(folded));
    EXPECT_NE(std::string::npos, folded.find("[Host=x][X-Foldedb=a][Connection=close]")) << folded;
    std::string spaced = send("GET /a HTTP/1.1\r\nHost: x\r\nX-Folded: a\r\n b c\r\n\r\n");
    EXPECT_EQ("HTTP/1.1 400 Bad Request", ts::status_line(spaced));
    EXPECT_NE(std::string::npos, spaced.find("header field name is no token")) << spaced;
}

TEST_F(Framing, ABareLineFeedEndsALineLikeCrLf)
{
    std::string bare = send("GET /a HTTP/1.1\nHost: x\nX-Bare: a\nConnection: close\n\n");
    EXPECT_EQ("HTTP/1.1 200 OK", ts::status_line(bare));
    EXPECT_NE(std::string::npos, bare.find("[Host=x][X-Bare=a][Connection=close]")) << bare;
}

// The layer's own server: the headers on every kind of reply.
class Layer : public ::testing::Test {
protected:
    void SetUp() override
    {
        ts::reset_device_tree();
        ts::write_file("/mnt/www/page.html", "<p>page</p>");
        ASSERT_TRUE(server.open("route uri=/action handler=action methods=GET|POST\n"
                                "route uri=/private handler=file methods=\n"
                                "route uri=/ handler=file methods=GET|HEAD\n"));
        port = server.port();
        websDefineAction("json", [](Webs *wp) {
            websWrite(wp, "%s", "{}");
            websDone(wp);
        });
        websDefineAction("upload", [](Webs *wp) {
            websReadBody(wp, WebsBodyRule{.upload = true}, [](Webs *wp) {
                websWrite(wp, "%s", "{}");
                websDone(wp);
            });
        });
        websDefineAction("error", [](Webs *wp) { websError(wp, 403, "no"); });
        websDefineAction("silent", [](Webs *) {});
        server.run();
    }

    std::string get(const std::string &target, const std::string &extra = "")
    {
        return ts::raw_http(port, "GET " + target + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n" + extra + "\r\n",
                            2000);
    }

    ts::LayerServer server;
    int port = 0;
};

struct ReplyKind {
    std::string target, extra, status;
    bool no_store;  // action replies and error pages; documents may be kept
};
const ReplyKind kReplyKinds[] = {
    {"/page.html", "", "200 OK", false},
    {"/page.html", "Range: bytes=1-2\r\n", "206 Partial Content", false},
    {"/page.html", "Range: bytes=90-\r\n", "416 Range Not Satisfiable", false},
    {"/page.html", "If-Modified-Since: Fri, 01 Jan 2100 00:00:00 GMT\r\n", "304 Not Modified", false},
    {"/missing.html", "", "404 Not Found", true},
    {"/private/x", "", "403 Forbidden", true},
    {"/action/json", "", "200 OK", true},
    {"/action/error", "", "403 Forbidden", true},
    {"/action/silent", "", "500 Internal Server Error", true},
};

// No sniffing of types, no framing, no referrers.
TEST_F(Layer, EveryKindOfReplyCarriesTheSecurityHeaders)
{
    const std::string security = "X-Content-Type-Options: nosniff\r\nX-Frame-Options: DENY\r\n"
                                 "Content-Security-Policy: frame-ancestors 'none'\r\nReferrer-Policy: no-referrer\r\n";
    for (const ReplyKind &c : kReplyKinds) {
        std::string got = get(c.target, c.extra);
        std::string head = got.substr(0, got.find("\r\n\r\n") + 2);
        EXPECT_EQ("HTTP/1.1 " + c.status, ts::status_line(got)) << c.target;
        size_t at = 0;
        for (size_t line = 0; (line = security.find("\r\n", at)) != std::string::npos; at = line + 2)
            EXPECT_NE(std::string::npos, head.find(security.substr(at, line + 2 - at))) << c.target << "\n" << head;
    }
}

TEST_F(Layer, OnlyDocumentsMayBeStored)
{
    for (const ReplyKind &c : kReplyKinds) {
        std::string got = get(c.target, c.extra);
        std::string head = got.substr(0, got.find("\r\n\r\n") + 2);
        EXPECT_EQ(c.no_store ? 1u : 0u, ts::occurrences(head, "Cache-Control: no-store\r\n")) << c.target << head;
        EXPECT_EQ(c.no_store ? 1u : 0u, ts::occurrences(head, "Cache-Control")) << c.target << head;
    }
}

// Whatever an upload was named, the picture folder serves it only as a picture.
TEST_F(Layer, ThePictureFolderServesOnlyPictures)
{
    const std::string folder = "/mnt/www/images/watermark/";
    for (const char *name : {"a.png", "b.JPG", "c.jpeg", "d.bmp", "x.html", "x.svg", "x.js", "x.gif", "noext"})
        ts::write_file(folder + name, "<script>alert(1)</script>");
    ts::write_file("/mnt/www/images/x.html", "page");
    const std::pair<const char *, const char *> served[] = {
        {"a.png", "image/png"}, {"b.JPG", "image/jpeg"}, {"c.jpeg", "image/jpeg"}, {"d.bmp", "image/bmp"}};
    for (const auto &[name, type] : served) {
        std::string got = get("/images/watermark/" + std::string(name));
        EXPECT_EQ("HTTP/1.1 200 OK", ts::status_line(got)) << name;
        EXPECT_NE(std::string::npos, got.find("Content-Type: " + std::string(type) + "\r\n")) << got;
    }
    for (const char *name : {"x.html", "x.svg", "x.js", "x.gif", "noext"})
        EXPECT_EQ("HTTP/1.1 404 Not Found", ts::status_line(get("/images/watermark/" + std::string(name)))) << name;
    EXPECT_EQ("HTTP/1.1 200 OK", ts::status_line(get("/images/x.html"))) << "other folders are not concerned";
    // A link elsewhere into the folder leads to the same rule.
    ASSERT_EQ(0, symlink((folder + "x.html").c_str(), "/mnt/www/alias.html"));
    EXPECT_EQ("HTTP/1.1 404 Not Found", ts::status_line(get("/alias.html")));
}

// A multipart body whose closing boundary is broken is the client's fault, not a failure to
// store the file part it was in.
TEST_F(Layer, AMultipartBodyBrokenInsideItsFilePartIsABadRequest)
{
    const std::string head = "--bnd\r\nContent-Disposition: form-data; name=\"file\"; filename=\"a.png\"\r\n"
                             "Content-Type: image/png\r\n\r\n" + std::string(600, 'x') + "\r\n";
    for (const std::string &end : {std::string("--bndxxxx"), std::string("--bnd--\r\n")}) {
        std::string body = head + end;
        std::string got = ts::raw_http(port, "POST /action/upload HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n"
                                             "Content-Type: multipart/form-data; boundary=bnd\r\nContent-Length: " +
                                                 std::to_string(body.size()) + "\r\n\r\n" + body,
                                       2000);
        EXPECT_EQ(end == "--bndxxxx" ? "HTTP/1.1 400 Bad Request" : "HTTP/1.1 200 OK", ts::status_line(got)) << end;
    }
}

// The exception: libmicrohttpd writes these pages itself and lets nobody add a header.
TEST_F(Layer, LibmicrohttpdsOwnPagesAreTheOnlyRepliesWithoutTheHeaders)
{
    std::string big = ts::raw_http(port, "GET / HTTP/1.1\r\nHost: x\r\nX-Pad: " + std::string(70000, 'b') + "\r\n\r\n");
    EXPECT_EQ("HTTP/1.1 431 Request Header Fields Too Large", ts::status_line(big));
    EXPECT_EQ(std::string::npos, big.find("nosniff"));
}

} // namespace
