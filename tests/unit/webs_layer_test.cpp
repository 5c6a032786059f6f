// The web layer in-process, with test actions: the request record, the reply sequence,
// routing refusals, the action thread and the life cycle of a server.
#include "layer_server.h"
#include "testsupport.h"
#include "webs/webs.h"
#include "webserver/http_reply.h"

#include <cjson/cJSON.h>

#include "common/event_loop.h"
#include "common/owners.h"

#include <arpa/inet.h>
#include <condition_variable>
#include <csignal>
#include <gtest/gtest.h>
#include <mutex>
#include <thread>

namespace {

// What the test actions saw; reset by the fixture.
struct Seen {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> urls;
    std::string file_content;
    std::vector<WebsHold> waiting;  // requests the "wait" action holds unanswered
    int silent_calls = 0;
} seen;

// Answers with what the request record holds, once its body is in.
void echo_body(Webs *wp)
{
    const WebsUpload *f = wp->currentFile;
    {
        std::lock_guard<std::mutex> lock(seen.mutex);
        seen.urls.push_back(wp->url);
        seen.file_content = f ? ts::read_file(f->filename) : "";
    }
    websSetStatus(wp, 200);
    websWriteHeaders(wp, -1, nullptr);
    websWriteEndHeaders(wp);
    websWrite(wp, "%s %s [%s] %zd %s", wp->method, wp->url, wp->input.servp, bufLen(&wp->input),
              f ? (std::string(f->clientFilename) + "," + f->contentType + "," + std::to_string(f->size)).c_str()
                : "-");
    websFlush(wp, false);
    websDone(wp);
    websWrite(wp, "written after done");
}

void echo(Webs *wp) { websReadBody(wp, {.upload = true}, echo_body); }

// Answers with a coded failure while every cJSON allocation fails.
void starved(Webs *wp)
{
    cJSON_Hooks none = {.malloc_fn = [](size_t) -> void * { return nullptr; }, .free_fn = free};
    cJSON_InitHooks(&none);
    json_perror(wp, -16, "Session ID is empty");
    cJSON_InitHooks(nullptr);
}

// Requests held by a part of the server's loop, as the action queues hold theirs.
struct Parked : LoopPart {
    explicit Parked(EventLoop &) {}
    std::vector<WebsHold> holds;
};

void park(Webs *wp)
{
    EventLoop::current()->part<Parked>().holds.emplace_back(wp);
    std::lock_guard<std::mutex> lock(seen.mutex);
    seen.urls.push_back(wp->url);
    seen.changed.notify_all();
}

// Keeps the request unanswered until the test answers or drops it.
void wait_for_test(Webs *wp)
{
    std::lock_guard<std::mutex> lock(seen.mutex);
    seen.urls.push_back(wp->url);
    seen.waiting.emplace_back(wp);
    seen.changed.notify_all();
}

class Layer : public ::testing::Test {
protected:
    void SetUp() override
    {
        ts::reset_device_tree();
        seen.urls.clear();
        seen.waiting.clear();
        seen.silent_calls = 0;
        ts::write_file("/mnt/www/page.html", "page");
        ts::write_file("/mnt/www/private/key", "k");
        ASSERT_TRUE(server.open("# test routes\n"
                                "route uri=/action handler=action methods=GET|POST\n"
                                "route uri=/readonly handler=action methods=GET\n"
                                "route uri=/private handler=file methods=\n"
                                "route uri=/ handler=file methods=GET|HEAD\n"));
        port = server.port();
        websDefineAction("echo", echo);
        websDefineAction("wait", wait_for_test);
        websDefineAction("park", park);
        websDefineAction("silent", [](Webs *) { std::lock_guard<std::mutex> lock(seen.mutex); ++seen.silent_calls; });
        websDefineAction("starved_fail", starved);
        websDefineAction("refuse", [](Webs *wp) { websError(wp, 403, "no <script>%s</script> & \"more\"", "x"); });
        server.run();
    }

    void TearDown() override
    {
        answer_waiting("");
        server.stop();
    }

    // Answers every held request with text (drops them unanswered when text is empty).
    static void answer_waiting(const std::string &text)
    {
        std::vector<WebsHold> held;
        {
            std::lock_guard<std::mutex> lock(seen.mutex);
            held.swap(seen.waiting);
        }
        for (WebsHold &h : held) {
            if (!text.empty()) {
                websWrite(h.get(), "%s", text.c_str());
                websDone(h.get());
            }
        }
    }

    static bool wait_held(size_t n)
    {
        std::unique_lock<std::mutex> lock(seen.mutex);
        return seen.changed.wait_for(lock, std::chrono::seconds(5), [n] { return seen.waiting.size() == n; });
    }

    std::string url(const std::string &path) const { return ts::local_url(port, path); }

    ts::LayerServer server;
    int port = 0;
};

// A two-part upload whose parts repeat the field and file name; the reply of echo.
std::string upload_two_parts(int port, const std::string &first)
{
    std::string part = "--XX\r\nContent-Disposition: form-data; name=\"f\"; filename=\"a.png\"\r\n"
                       "Content-Type: image/png\r\n\r\n";
    std::string body = part + first + "\r\n" + part + "second\r\n--XX--\r\n";
    return ts::raw_http(port, "POST /action/echo HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\nContent-Type: "
                              "multipart/form-data; boundary=XX\r\nContent-Length: " +
                                  std::to_string(body.size()) + "\r\n\r\n" + body);
}

// A later part must not replace the first.
TEST_F(Layer, TheFirstFilePartBecomesTheCurrentFile)
{
    std::string first = std::string(3000, 'q').replace(0, 1, 1, '\0');
    std::string reply = upload_two_parts(port, first);
    EXPECT_TRUE(reply.ends_with("\r\n\r\nPOST /action/echo [] 0 a.png,image/png,3000")) << reply;
    EXPECT_EQ(first, seen.file_content);
}

TEST_F(Layer, TheFilePartIsRemovedAfterTheRequest)
{
    std::string reply = upload_two_parts(port, "first");
    ASSERT_TRUE(reply.ends_with(",5")) << "the part was stored: " << reply;
    EXPECT_EQ(0, ts::temp_files());
}

TEST_F(Layer, RoutingRefusalsAnswerWithTheirStatus)
{
    const struct {
        const char *method, *path;
        long status;
        const char *allow;
    } cases[] = {
        {"GET", "/private/key", 403, ""},        {"DELETE", "/action/echo", 405, "GET, POST"},
        {"POST", "/readonly/echo", 405, "GET"},  {"GET", "/action", 404, ""},
        {"GET", "/action/", 404, ""},            {"GET", "/action/undefined/x", 404, ""},
        {"GET", "/actionecho", 404, ""},  // prefixes match whole segments
        {"POST", "/page.html", 405, "GET, HEAD"}, {"GET", "/action/silent", 500, ""},
    };
    for (const auto &c : cases) {
        ts::HttpReply r = ts::http({.method = c.method, .url = url(c.path)});
        EXPECT_EQ(c.status, r.status) << c.method << " " << c.path;
        EXPECT_EQ(c.allow, r.headers["allow"]) << c.method << " " << c.path;
    }
    EXPECT_EQ(1, seen.silent_calls);
}

TEST_F(Layer, AnErrorPageEscapesItsMessage)
{
    ts::HttpReply page = ts::http({.url = url("/action/refuse")});
    EXPECT_EQ(403, page.status);
    EXPECT_EQ("text/html; charset=utf-8", page.headers["content-type"]);
    EXPECT_NE(std::string::npos, page.body.find("no &lt;script&gt;x&lt;/script&gt; &amp; &quot;more&quot;"));
    EXPECT_EQ(std::string::npos, page.body.find("<script>"));
}

TEST_F(Layer, FailureReplyKeepsItsFormWhenTheHeapIsExhausted)
{
    EXPECT_EQ("{\n\t\"Result\":\t\"Fail\",\n\t\"ErrorNo\":\t-16,\n\t\"Reason\":\t\"\"\n}",
              ts::http({.url = url("/action/starved_fail")}).body);
}

TEST_F(Layer, AWaitingRequestHoldsUpNeitherDocumentsNorOtherActions)
{
    ts::HttpReply held;
    std::thread client([&] { held = ts::http({.url = url("/action/wait/1")}); });
    ASSERT_TRUE(wait_held(1));
    long long start = ts::now_ms();
    EXPECT_EQ("page", ts::http({.url = url("/page.html")}).body);
    EXPECT_EQ("GET /action/echo/x [] 0 -", ts::http({.url = url("/action/echo/x")}).body);
    EXPECT_LT(ts::now_ms() - start, 500);
    answer_waiting("late");
    client.join();
    EXPECT_EQ("late", held.body);
    // A request whose last hold goes without a reply is answered by the layer.
    std::thread dropped([&] { held = ts::http({.url = url("/action/wait/2")}); });
    ASSERT_TRUE(wait_held(1));
    answer_waiting("");
    dropped.join();
    EXPECT_EQ(500, held.status);
}

TEST_F(Layer, CloseAnswersTheRequestsItsPartsHeldAsUnavailable)
{
    ts::HttpReply first;
    std::thread a([&] { first = ts::http({.url = url("/action/park/a")}); });
    {
        std::unique_lock<std::mutex> lock(seen.mutex);
        ASSERT_TRUE(seen.changed.wait_for(lock, std::chrono::seconds(5), [] { return seen.urls.size() == 1; }));
    }
    server.stop();
    a.join();
    EXPECT_EQ(503, first.status);
}

// The body of an action is read only once the procedure asks for it: a refusal at the
// headers goes out at once, without "100 Continue" and without reading the body.
TEST_F(Layer, TheBodyIsReadOnlyOnceTheProcedureAsksForIt)
{
    const std::string expect = " HTTP/1.1\r\nHost: localhost\r\nExpect: 100-continue\r\nContent-Length: 5\r\n\r\n";
    std::string refused = ts::raw_http(port, "POST /action/refuse" + expect, 500);
    EXPECT_EQ("HTTP/1.1 403 Forbidden", ts::status_line(refused));
    EXPECT_EQ(std::string::npos, refused.find("100 Continue"));
    std::string asked = ts::raw_http(port, "POST /action/echo" + expect, 300);
    EXPECT_EQ("HTTP/1.1 100 Continue", ts::status_line(asked));
}

TEST_F(Layer, AClientThatGoesAwayWhileItsRequestWaitsIsNoticedAtOnce)
{
    std::string head = "GET /action/wait/gone HTTP/1.1\r\nHost: localhost\r\n\r\n";
    {
        UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in addr{.sin_family = AF_INET, .sin_port = htons(static_cast<uint16_t>(port)),
                         .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
        ASSERT_EQ(0, connect(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr));
        ASSERT_EQ(static_cast<ssize_t>(head.size()), send(fd.get(), head.data(), head.size(), MSG_NOSIGNAL));
        ASSERT_TRUE(wait_held(1));
        EXPECT_FALSE(websClientGone(seen.waiting[0].get()));
    }
    long long closed = ts::now_ms();
    EXPECT_TRUE(ts::eventually([] { return websClientGone(seen.waiting[0].get()); }, 1000));
    EXPECT_LT(ts::now_ms() - closed, 1000);
    answer_waiting("nobody reads this");  // a reply after the client went is dropped
    EXPECT_EQ("page", ts::http({.url = url("/page.html")}).body);
}

TEST_F(Layer, ClientDroppingMidRequestOrMidReplyLeavesNothingBehind)
{
    ts::write_file("/mnt/www/big.bin", std::string(8 << 20, 'b'));
    ts::raw_http(port, "GET /big.bin HTTP/1.1\r\nHost: localhost\r\n\r\n", 20);
    std::string head = "POST /action/echo HTTP/1.1\r\nHost: localhost\r\nContent-Length: 400000\r\n";
    ts::raw_http(port, head + "\r\n" + std::string(200000, 'd'), 200);
    ts::raw_http(port, head + "Content-Type: multipart/form-data; boundary=XX\r\n\r\n--XX\r\nContent-Disposition: "
                              "form-data; name=\"f\"; filename=\"a.png\"\r\n\r\n" + std::string(200000, 'd'), 200);
    EXPECT_EQ(200, ts::http({.url = url("/page.html")}).status);
    EXPECT_EQ(0, ts::temp_files());
    EXPECT_TRUE(seen.urls.empty());
}

} // namespace
