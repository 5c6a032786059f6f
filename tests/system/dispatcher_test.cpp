// The dispatcher's gate and reply choice, through the real binary.
#include "device_support.h"

#include <gtest/gtest.h>

namespace {

using ts::coded_failure;

TEST(Dispatcher, GateAnswersEveryOutcomeWithOneReply)
{
    ts::Device dev;
    std::string sid = dev.login();
    ASSERT_EQ(36u, sid.size());

    struct Case {
        std::string action, query, reply;
    } cases[] = {
        {"get_user_param", "", coded_failure(-16, "Session ID is empty")},
        {"get_user_param", "sessionid=", coded_failure(-1, "Invalid URL")},
        {"get_user_param", "foo", coded_failure(-1, "Invalid URL")},
        {"get_user_param", "=x", coded_failure(-1, "Invalid URL")},
        {"get_user_param", "sessionid=00000000-0000-0000-0000-000000000000", coded_failure(-16, "Invalid session ID")},
        {"get_user_param", "sessionid=" + sid + "&sessionid=bogus", coded_failure(-16, "Invalid session ID")},
        {"detection_sessionid", "", coded_failure(-16, "Session ID is empty")},
        {"detection_sessionid", "sessionid=" + sid, ts::plain_ok()},
        {"set_login_time", "sessionid=bogus&other=1", coded_failure(-16, "Invalid session ID")},
        {"set_login_time", "other=1&sessionid=" + sid, ts::plain_ok()},
        {"GetSomething", "sessionid=" + sid, coded_failure(501, "The server does not support this protocol :GetSomething")},
        // A "/" in the query moves the action name behind it, and the query with it.
        {"get_user_param", "sessionid=" + sid + "&x=a/GetOther", coded_failure(-16, "Session ID is empty")},
    };
    for (const auto &c : cases) {
        ts::HttpReply r = dev.call(c.action, c.query);
        EXPECT_EQ(200, r.status) << c.action << "?" << c.query;
        EXPECT_EQ(c.reply, r.body) << c.action << "?" << c.query;
    }
    std::string log = dev.server_log();
    EXPECT_NE(std::string::npos, log.find("<ERROR! apps/app_web/src/webserver:")) << log;
    EXPECT_NE(std::string::npos, log.find(">: Invalid URL\n"));
    EXPECT_NE(std::string::npos, log.find(">: web server not support this protocol! :The server does not support this protocol\n"));
    EXPECT_NE(std::string::npos, log.find("actionName=GetSomething\n"));
    EXPECT_NE(std::string::npos, log.find("actionName=GetOther\n"));
}

TEST(Dispatcher, OpenActionsRunWithoutASessionAndOthersRefreshTheirs)
{
    ts::Device dev;
    ts::HttpReply lang = dev.call("get_Language_Format");
    EXPECT_EQ(200, lang.status);
    EXPECT_NE(std::string::npos, lang.body.find("\"Successfully to get params\""));
    EXPECT_EQ(ts::failure_text("Invalid session id"), dev.call("logout", "", R"({"sessionid":"nope"})").body);

    // A 2-second session stays alive while it is used, and the probe never extends it.
    std::string sid = dev.login(2);
    for (int i = 0; i < 3; ++i) {
        usleep(1'200'000);
        EXPECT_NE(std::string::npos, dev.call("get_user_param", "sessionid=" + sid).body.find("admin")) << i;
    }
    usleep(1'000'000);
    EXPECT_EQ(ts::plain_ok(), dev.call("detection_sessionid", "sessionid=" + sid).body);
    usleep(1'000'000);
    dev.call("detection_sessionid", "sessionid=" + sid);
    usleep(1'200'000);
    EXPECT_EQ(coded_failure(-16, "Invalid session ID"), dev.call("detection_sessionid", "sessionid=" + sid).body);
}

TEST(Dispatcher, RepliesLeaveAsSoonAsTheActionIsDone)
{
    ts::Device dev;
    std::string query = "sessionid=" + dev.login();
    long long start = ts::now_ms();
    for (int i = 0; i < 20; ++i)
        ASSERT_EQ(ts::plain_ok(), dev.call("detection_sessionid", query).body);
    // The event loop is woken for each reply instead of finding it at its next 250 ms turn.
    EXPECT_LT(ts::now_ms() - start, 2000);
}

TEST(Dispatcher, MissingActionNameGetsTheErrorPage)
{
    ts::Device dev;
    // The action route with nothing behind it never reaches an action.
    EXPECT_EQ(404, ts::http_get(ts::local_url(8080, "/action/")).status);
    std::string raw = ts::raw_http(8080, "GET /action/device HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(0u, raw.find("HTTP/1.1 200")) << raw;  // "/action/device": the action name is "device"
}

} // namespace
