// The web layer in-process, with test actions: the request record, the reply sequence,
// routing refusals, the action thread and the life cycle of a server.
#include "server_support.h"
#include "webs/webs.h"

#include <arpa/inet.h>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <mutex>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

// What the test actions saw; reset by the fixture.
struct Seen {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> urls;
    std::string upload_path, upload_content, spool_path, spool_content;
    int active = 0, max_active = 0, silent_calls = 0;
    bool gate_open = false;
} seen;

std::string describe(const WebsUpload *f)
{
    if (!f)
        return "-";
    return std::string(f->clientFilename) + "," + f->contentType + "," + std::to_string(f->size);
}

// Answers with what the request record holds.
void echo(Webs *wp)
{
    {
        std::lock_guard<std::mutex> lock(seen.mutex);
        seen.urls.push_back(wp->url);
        if (wp->currentFile) {
            seen.upload_path = wp->currentFile->filename;
            seen.upload_content = ts::read_file(seen.upload_path);
        }
        if (wp->inputFile) {
            seen.spool_path = wp->inputFile->filename;
            seen.spool_content = ts::read_file(seen.spool_path);
        }
    }
    websSetStatus(wp, 200);
    websWriteHeaders(wp, -1, nullptr);
    websWriteEndHeaders(wp);
    websWrite(wp, "%s %s [%s] %zd %s %s", wp->method, wp->url, wp->input.servp, bufLen(&wp->input),
              describe(wp->currentFile).c_str(), describe(wp->inputFile).c_str());
    websFlush(wp, false);
    websDone(wp);
    websWrite(wp, "written after done");
}

void silent(Webs *)
{
    std::lock_guard<std::mutex> lock(seen.mutex);
    ++seen.silent_calls;
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

void refuse(Webs *wp) { websError(wp, 403, "no <script>%s</script> & \"more\"", "x"); }

class Layer : public ::testing::Test {
protected:
    void SetUp() override
    {
        signal(SIGPIPE, SIG_IGN);
        ts::reset_device_tree();
        {
            std::lock_guard<std::mutex> lock(seen.mutex);
            seen.urls.clear();
            seen.upload_path = seen.upload_content = seen.spool_path = seen.spool_content = "";
            seen.active = seen.max_active = seen.silent_calls = 0;
            seen.gate_open = false;
        }
        ts::write_file("/mnt/www/index.html", "<p>home</p>");
        ts::write_file("/mnt/www/page.html", "page");
        ts::write_file("/mnt/www/private/key", "k");
        ts::write_file("/mnt/routes.txt",
                       "# test routes\n"
                       "route uri=/action handler=action methods=GET|POST\n"
                       "route uri=/readonly handler=action methods=GET\n"
                       "route uri=/private handler=file methods=\n"
                       "route uri=/ handler=file methods=GET|HEAD\n");
        ASSERT_EQ(0, websOpen("/mnt/www", "/mnt/routes.txt"));
        port = ts::free_port();
        sid = websListen(("http://127.0.0.1:" + std::to_string(port)).c_str());
        ASSERT_GE(sid, 0);
        websDefineAction("echo", echo);
        websDefineAction("silent", silent);
        websDefineAction("gate", gate);
        websDefineAction("refuse", refuse);
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
        if (!loop.joinable())
            return;
        finished = 1;
        loop.join();
        websClose();
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

    std::string url(const std::string &path) const { return "http://127.0.0.1:" + std::to_string(port) + path; }


    std::atomic<int> finished{1};
    std::thread loop;
    int port = 0;
    int sid = -1;
};

TEST_F(Layer, ActionSeesTheRawTargetMethodAndBodyAndRepliesJson)
{
    ts::HttpReply r = ts::http_post(url("/action/echo/login?x=%41&y=a/b"), "{\"a\":1}");
    EXPECT_EQ(200, r.status);
    EXPECT_EQ("POST /action/echo/login?x=%41&y=a/b [{\"a\":1}] 7 - -", r.body);
    EXPECT_EQ("application/json; charset=utf-8", r.headers["content-type"]);
    EXPECT_EQ("no-store", r.headers["cache-control"]);
    EXPECT_EQ("nosniff", r.headers["x-content-type-options"]);

    ts::HttpReply get = ts::http_get(url("/action/echo"));
    EXPECT_EQ("GET /action/echo [] 0 - -", get.body);
    EXPECT_EQ(2u, seen.urls.size());  // each procedure ran exactly once
}

TEST_F(Layer, ActionWithoutReplyGets500AndRunsOnce)
{
    ts::HttpReply r = ts::http_get(url("/action/silent"));
    EXPECT_EQ(500, r.status);
    EXPECT_EQ("text/html; charset=utf-8", r.headers["content-type"]);
    EXPECT_EQ(1, seen.silent_calls);
}

TEST_F(Layer, ErrorPageEscapesItsMessage)
{
    ts::HttpReply r = ts::http_get(url("/action/refuse"));
    EXPECT_EQ(403, r.status);
    EXPECT_NE(std::string::npos, r.body.find("no &lt;script&gt;x&lt;/script&gt; &amp; &quot;more&quot;"));
    EXPECT_EQ(std::string::npos, r.body.find("<script>"));
}

TEST_F(Layer, RoutesRefuseWithTheirStatus)
{
    struct Case {
        const char *method, *path;
        long status;
        const char *allow;
    } cases[] = {
        {"GET", "/private/key", 403, ""},
        {"DELETE", "/action/echo", 405, "GET, POST"},
        {"POST", "/readonly/echo", 405, "GET"},
        {"GET", "/action", 404, ""},
        {"GET", "/action/", 404, ""},
        {"GET", "/action/undefined/x", 404, ""},
        {"GET", "/actionecho", 404, ""},  // prefixes match whole segments
        {"POST", "/page.html", 405, "GET, HEAD"},
    };
    for (const Case &c : cases) {
        ts::HttpRequest req;
        req.method = c.method;
        req.url = url(c.path);
        ts::HttpReply r = ts::http(req);
        EXPECT_EQ(c.status, r.status) << c.method << " " << c.path;
        EXPECT_EQ(c.allow, r.headers["allow"]) << c.method << " " << c.path;
    }
    EXPECT_EQ("<p>home</p>", ts::http_get(url("/")).body);
    EXPECT_EQ(0u, seen.urls.size());
}

TEST_F(Layer, MultipartFileBecomesCurrentFileAndIsRemovedAfterTheRequest)
{
    std::string picture(3000, 'q');
    picture[0] = '\0';
    ts::write_file("/tmp/w.png", picture);
    ts::HttpRequest req;
    req.method = "POST";
    req.url = url("/action/echo/upload_Image?fileName=w.png");
    req.upload_path = "/tmp/w.png";
    req.upload_name = "w.png";
    req.upload_type = "image/png";
    ts::HttpReply r = ts::http(req);
    EXPECT_EQ("POST /action/echo/upload_Image?fileName=w.png [] 0 w.png,image/png,3000 -", r.body);
    EXPECT_EQ(picture, seen.upload_content);
    EXPECT_EQ(0, seen.upload_path.rfind("/tmp/", 0));
    EXPECT_EQ(0, ts::layer_temp_files());
}

TEST_F(Layer, OnlyTheFirstFilePartIsKeptWhenLaterPartsRepeatItsName)
{
    std::string part = "--XX\r\nContent-Disposition: form-data; name=\"f\"; filename=\"a.png\"\r\n"
                       "Content-Type: image/png\r\n\r\n";
    std::string body = part + "first\r\n" + part + "second part\r\n--XX--\r\n";
    std::string reply = ts::raw_http(port, "POST /action/echo HTTP/1.1\r\nHost: x\r\nConnection: close\r\n"
                                           "Content-Type: multipart/form-data; boundary=XX\r\n"
                                           "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
    EXPECT_NE(std::string::npos, reply.find("a.png,image/png,5 -")) << reply;
    EXPECT_EQ("first", seen.upload_content);
}

TEST_F(Layer, PlainBodyOver64KiBIsSpooledToAFile)
{
    std::string at_limit(64 * 1024, 'm');
    EXPECT_EQ("POST /action/echo [" + at_limit + "] 65536 - -", ts::http_post(url("/action/echo"), at_limit).body);

    std::string big = at_limit + "z";
    ts::HttpReply r = ts::http_post(url("/action/echo"), big);
    EXPECT_EQ("POST /action/echo [] 0 - ,,65537", r.body);
    EXPECT_EQ(big, seen.spool_content);
    EXPECT_EQ(0, ts::layer_temp_files());
}

TEST_F(Layer, StaticPageIsServedWhileAnActionIsBusy)
{
    std::thread busy([this] { EXPECT_EQ("done", ts::http_get(url("/action/gate")).body); });
    ASSERT_TRUE(wait_active(1));
    long long start = ts::now_ms();
    ts::HttpReply page = ts::http_get(url("/page.html"));
    long long took = ts::now_ms() - start;
    EXPECT_EQ("page", page.body);
    EXPECT_LT(took, 100);
    open_gate();
    busy.join();
}

TEST_F(Layer, ActionsRunOneAtATimeInArrivalOrder)
{
    std::vector<std::thread> clients;
    for (int i = 0; i < 4; ++i) {
        clients.emplace_back([this, i] { ts::http_get(url("/action/gate/" + std::to_string(i))); });
        if (i == 0)
            ASSERT_TRUE(wait_active(1));
        else
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
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
    std::thread a([&] { first = ts::http_get(url("/action/gate/a")); });
    ASSERT_TRUE(wait_active(1));
    std::thread b([&] { second = ts::http_get(url("/action/gate/b")); });
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
    std::string head = "POST /action/echo HTTP/1.1\r\nHost: x\r\nContent-Length: 400000\r\n\r\n";
    ts::raw_http(port, head + std::string(200000, 'd'), 200);
    std::string multipart = "POST /action/echo HTTP/1.1\r\nHost: x\r\nContent-Length: 400000\r\n"
                            "Content-Type: multipart/form-data; boundary=XX\r\n\r\n--XX\r\n"
                            "Content-Disposition: form-data; name=\"f\"; filename=\"a.png\"\r\n"
                            "Content-Type: image/png\r\n\r\n";
    ts::raw_http(port, multipart + std::string(200000, 'd'), 200);
    EXPECT_EQ(200, ts::http_get(url("/page.html")).status);
    EXPECT_EQ(0, ts::layer_temp_files());
    EXPECT_TRUE(seen.urls.empty());
}

TEST(LayerSetUp, RouteAndAuthenticationFilesMustBeValid)
{
    ts::reset_device_tree();
    ts::make_dirs("/mnt/www");
    const std::pair<const char *, int> route_files[] = {
        {"route uri=/ handler=file methods=GET|HEAD\n", 0},
        {"# only a comment\n\nroute uri=/a handler=action methods=GET,POST extra=ignored\n", 0},
        {"route uri=/ handler=cgi\n", -1},
        {"route handler=file\n", -1},
        {"route uri=relative handler=file\n", -1},
        {"route uri=/ handler=file methods=get\n", -1},
        {"redirect from=/a to=/b\n", -1},
        {"route uri=/ handler\n", -1},
    };
    for (auto &[text, expected] : route_files) {
        ts::write_file("/mnt/route.txt", text);
        EXPECT_EQ(expected, websOpen("/mnt/www", "/mnt/route.txt")) << text;
        websClose();
    }
    EXPECT_EQ(-1, websOpen("/mnt/www", "/mnt/missing.txt"));
    EXPECT_EQ(-1, websOpen("/mnt/nowhere", "/mnt/route.txt"));

    const std::pair<const char *, int> auth_files[] = {
        {"role name=admin abilities=manage\nuser name=u password=p roles=admin\n", 0},
        {"# nothing\n", 0},
        {"user password=p\n", -1},
        {"role abilities=x\n", -1},
        {"group name=x\n", -1},
    };
    for (auto &[text, expected] : auth_files) {
        ts::write_file("/mnt/auth.txt", text);
        EXPECT_EQ(expected, websLoad("/mnt/auth.txt")) << text;
    }
    EXPECT_EQ(-1, websLoad("/mnt/missing.txt"));
}

TEST(LayerSetUp, ListenRefusesABusyPortAndBadEndpoints)
{
    ts::reset_device_tree();
    ts::write_file("/mnt/route.txt", "route uri=/ handler=file\n");
    ts::make_dirs("/mnt/www");
    ASSERT_EQ(0, websOpen("/mnt/www", "/mnt/route.txt"));
    int port = ts::free_port();
    int busy = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    ASSERT_EQ(0, bind(busy, reinterpret_cast<sockaddr *>(&addr), sizeof addr));
    ASSERT_EQ(0, listen(busy, 1));
    EXPECT_EQ(-1, websListen(("http://*:" + std::to_string(port)).c_str()));
    EXPECT_EQ(-1, websListen("http://127.0.0.1:65536"));
    EXPECT_EQ(-1, websListen("http://localhost:80"));
    EXPECT_EQ(-1, websListen("nonsense"));
    close(busy);
    websClose();
}

TEST(LayerLog, MessagesAreLinesWrittenAtOrBelowTheLevel)
{
    ts::Capture out(1);
    logSetPath("stdout:1");
    logmsg(1, "Configuration for %s", "x");
    logmsg(2, "hidden");
    trace(7, "hidden too\n");
    error("Cannot listen %s", "http://*:80");
    int level = websGetLogLevel();
    logSetPath("stdout:0");
    logmsg(1, "hidden at 0");
    error("still shown");
    EXPECT_EQ("Configuration for x\nCannot listen http://*:80\nstill shown\n", out.text());
    EXPECT_EQ(1, level);
}

} // namespace
