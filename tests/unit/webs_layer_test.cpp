// The web layer in-process, with test actions: the request record, the reply sequence,
// routing refusals, the action thread and the life cycle of a server.
#include "testsupport.h"
#include "webs/webs.h"
#include "webserver/http_reply.h"

#include <cjson/cJSON.h>

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
    int active = 0, max_active = 0, silent_calls = 0;
    bool gate_open = false;
} seen;

// Answers with what the request record holds.
void echo(Webs *wp)
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

// Answers with a coded failure while every cJSON allocation fails.
void starved(Webs *wp)
{
    cJSON_Hooks none = {.malloc_fn = [](size_t) -> void * { return nullptr; }, .free_fn = free};
    cJSON_InitHooks(&none);
    json_perror(wp, -16, "Session ID is empty");
    cJSON_InitHooks(nullptr);
}

// Holds the request until the test opens the gate; records how many run at once.
void gate(Webs *wp)
{
    std::unique_lock<std::mutex> lock(seen.mutex);
    seen.urls.push_back(wp->url);
    seen.max_active = std::max(seen.max_active, ++seen.active);
    seen.changed.notify_all();
    seen.changed.wait(lock, [] { return seen.gate_open; });
    --seen.active;
    lock.unlock();
    websWrite(wp, "done");
    websDone(wp);
}

class Layer : public ::testing::Test {
protected:
    void SetUp() override
    {
        signal(SIGPIPE, SIG_IGN);
        ts::reset_device_tree();
        seen.urls.clear();
        seen.active = seen.max_active = seen.silent_calls = 0;
        seen.gate_open = false;
        ts::write_file("/mnt/www/page.html", "page");
        ts::write_file("/mnt/www/private/key", "k");
        ts::write_file("/mnt/routes.txt", "# test routes\n"
                                          "route uri=/action handler=action methods=GET|POST\n"
                                          "route uri=/readonly handler=action methods=GET\n"
                                          "route uri=/private handler=file methods=\n"
                                          "route uri=/ handler=file methods=GET|HEAD\n");
        ASSERT_EQ(0, websOpen("/mnt/www", "/mnt/routes.txt"));
        port = ts::free_port();
        ASSERT_GE(websListen(("http://127.0.0.1:" + std::to_string(port)).c_str()), 0);
        websDefineAction("echo", echo);
        websDefineAction("gate", gate);
        websDefineAction("silent", [](Webs *) { std::lock_guard<std::mutex> lock(seen.mutex); ++seen.silent_calls; });
        websDefineAction("starved_fail", starved);
        websDefineAction("refuse", [](Webs *wp) { websError(wp, 403, "no <script>%s</script> & \"more\"", "x"); });
        finished = 0;
        loop = std::thread([this] { websServiceEvents(&finished); });
    }

    void TearDown() override
    {
        open_gate();
        stop();
    }

    void stop()
    {
        if (loop.joinable()) {
            finished = 1;
            loop.join();
            websClose();
        }
    }

    static void open_gate()
    {
        std::lock_guard<std::mutex> lock(seen.mutex);
        seen.gate_open = true;
        seen.changed.notify_all();
    }

    static bool wait_active(int n)
    {
        std::unique_lock<std::mutex> lock(seen.mutex);
        return seen.changed.wait_for(lock, std::chrono::seconds(5), [n] { return seen.active == n; });
    }

    std::string url(const std::string &path) const { return ts::local_url(port, path); }

    std::atomic<int> finished{1};
    std::thread loop;
    int port = 0;
};

// A later part that repeats the field and file name must not replace the first.
TEST_F(Layer, FirstFilePartBecomesCurrentFileAndIsRemovedAfterTheRequest)
{
    std::string part = "--XX\r\nContent-Disposition: form-data; name=\"f\"; filename=\"a.png\"\r\n"
                       "Content-Type: image/png\r\n\r\n";
    std::string first = std::string(3000, 'q').replace(0, 1, 1, '\0');
    std::string body = part + first + "\r\n" + part + "second\r\n--XX--\r\n";
    std::string reply =
        ts::raw_http(port, "POST /action/echo HTTP/1.1\r\nHost: x\r\nConnection: close\r\nContent-Type: "
                           "multipart/form-data; boundary=XX\r\nContent-Length: " +
                               std::to_string(body.size()) + "\r\n\r\n" + body);
    EXPECT_TRUE(reply.ends_with("\r\n\r\nPOST /action/echo [] 0 a.png,image/png,3000")) << reply;
    EXPECT_EQ(first, seen.file_content);
    EXPECT_EQ(0, ts::temp_files());
}

TEST_F(Layer, RefusalsAnswerWithTheirStatusAndAnEscapedPage)
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

TEST_F(Layer, ActionsRunOneAtATimeInArrivalOrderWhileDocumentsAreServed)
{
    std::vector<std::thread> clients;
    for (int i = 0; i < 4; ++i) {
        clients.emplace_back(
            [this, i] { EXPECT_EQ("done", ts::http({.url = url("/action/gate/" + std::to_string(i))}).body); });
        if (i == 0)
            ASSERT_TRUE(wait_active(1));
        else
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    long long start = ts::now_ms();
    EXPECT_EQ("page", ts::http({.url = url("/page.html")}).body);
    EXPECT_LT(ts::now_ms() - start, 100);
    open_gate();
    for (auto &t : clients)
        t.join();
    EXPECT_EQ(1, seen.max_active);
    EXPECT_EQ((std::vector<std::string>{"/action/gate/0", "/action/gate/1", "/action/gate/2", "/action/gate/3"}),
              seen.urls);
}

TEST_F(Layer, CloseWaitsForTheRunningActionAndAnswersThoseQueued)
{
    ts::HttpReply first, second;
    std::thread a([&] { first = ts::http({.url = url("/action/gate/a")}); });
    ASSERT_TRUE(wait_active(1));
    std::thread b([&] { second = ts::http({.url = url("/action/gate/b")}); });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    std::thread closer([this] { stop(); });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(1, seen.active);  // still waiting for the running procedure
    open_gate();
    closer.join();
    a.join();
    b.join();
    EXPECT_EQ(200, first.status);
    EXPECT_TRUE(second.status == 503 || second.status == 0) << second.status;
    EXPECT_EQ(std::vector<std::string>{"/action/gate/a"}, seen.urls);
}

TEST_F(Layer, ClientDroppingMidRequestOrMidReplyLeavesNothingBehind)
{
    ts::write_file("/mnt/www/big.bin", std::string(8 << 20, 'b'));
    ts::raw_http(port, "GET /big.bin HTTP/1.1\r\nHost: x\r\n\r\n", 20);
    std::string head = "POST /action/echo HTTP/1.1\r\nHost: x\r\nContent-Length: 400000\r\n";
    ts::raw_http(port, head + "\r\n" + std::string(200000, 'd'), 200);
    ts::raw_http(port, head + "Content-Type: multipart/form-data; boundary=XX\r\n\r\n--XX\r\nContent-Disposition: "
                              "form-data; name=\"f\"; filename=\"a.png\"\r\n\r\n" + std::string(200000, 'd'), 200);
    EXPECT_EQ(200, ts::http({.url = url("/page.html")}).status);
    EXPECT_EQ(0, ts::temp_files());
    EXPECT_TRUE(seen.urls.empty());
}

} // namespace
