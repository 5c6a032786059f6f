// The dispatcher's gate, login, logout and sessions through the real binary, with the
// password checked by the simulated account application.
#include "testsupport.h"

#include <csignal>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <thread>

namespace {

using ts::coded;
using ts::fail;

const std::string kLogin =
    std::string(R"({"username":"admin","password":")") + ts::kAdminDigest + R"(","timeout":600})";

class Gate : public ::testing::Test {
protected:
    static void SetUpTestSuite() { dev = std::make_unique<ts::Device>(); }
    static void TearDownTestSuite() { dev.reset(); }
    static inline std::unique_ptr<ts::Device> dev;
};

TEST_F(Gate, EveryRequestGetsExactlyOneReplyOfTheRightForm)
{
    std::string sid = dev->login();
    const std::string session = "sessionid=" + sid;
    const struct {
        std::string action, query, reply, body = "";
    } cases[] = {
        {"get_user_param", "", coded(-16, "Session ID is empty")},
        {"get_user_param", "sessionid=", coded(-1, "Invalid URL")},
        {"get_user_param", "foo", coded(-1, "Invalid URL")},
        {"get_user_param", "=x", coded(-1, "Invalid URL")},
        {"get_user_param", "sessionid=00000000-0000-0000-0000-000000000000", coded(-16, "Invalid session ID")},
        {"get_user_param", "sessionid=" + sid + "&sessionid=bogus", coded(-16, "Invalid session ID")},
        {"detection_sessionid", "", coded(-16, "Session ID is empty")},
        {"detection_sessionid", "sessionid=" + sid, ts::plain_ok()},
        {"set_login_time", "other=1&sessionid=" + sid, ts::plain_ok()},
        {"GetSomething", "sessionid=" + sid, coded(501, "The server does not support this protocol :GetSomething")},
        // A "/" in the query moves the action name behind it, and the query with it.
        {"get_user_param", "sessionid=" + sid + "&x=a/GetOther", coded(-16, "Session ID is empty")},
        {"get_Language_Format", "",
         ts::params("Successfully to get params", "{\n\t\"language\":\t\"chinese\",\n\t\"mode\":\t0\n}")},
        // The settings actions are wired to their handlers.
        {"set_Language_Format", "", ts::ok("Successfully to set params"), R"({"language":"chinese","mode":0})"},
        {"GetWebServerParameter", session, ts::params("Successfully to get params", "{\n\t\"Port\":\t8080\n}")},
        {"GetWebServerPortStatus", session, fail("http port in use"), R"({"Port":8080})"},
        {"set_user_param", session, ts::ok("Successfully to set params"),
         R"({"operation":2,"user_name":"admin","password":")" + std::string(ts::kAdminDigest) + "\"}"},
    };
    for (const auto &c : cases) {
        ts::HttpReply r = dev->call(c.action, c.query, c.body);
        EXPECT_EQ(200, r.status) << c.action << "?" << c.query;
        EXPECT_EQ(c.reply, r.body) << c.action << "?" << c.query;
    }
    EXPECT_NE(std::string::npos, dev->server().log().find("actionName=GetOther\n"));
    EXPECT_NE(std::string::npos, dev->call("get_device_localtime", session).body.find("\"local_time\":\t\""));
    ts::HttpReply r = dev->call("detection_sessionid", "sessionid=" + sid);
    EXPECT_EQ("application/json; charset=utf-8", r.headers["content-type"]);
    EXPECT_EQ("no-store", r.headers["cache-control"]);
    EXPECT_EQ("nosniff", r.headers["x-content-type-options"]);
    // The action route with nothing behind it never reaches an action; "/action/device" names "device".
    EXPECT_EQ(404, ts::http({.url = ts::local_url(8080, "/action/")}).status);
    EXPECT_EQ("HTTP/1.1 200 OK",
              ts::status_line(ts::raw_http(8080, "GET /action/device HTTP/1.1\r\nHost: localhost\r\n\r\n", 500)));
}

const std::string kAdminList = ts::params("Successfully to get params",
                                          "[{\n\t\t\"user_name\":\t\"admin\",\n\t\t\"password\":\t\"" +
                                              std::string(ts::kAdminDigest) + "\"\n\t}]");

TEST_F(Gate, TheDefaultAdminsLoginOpensASession)
{
    ts::HttpReply r = dev->call("login", "", kLogin);
    std::string sid = r.body.substr(r.body.find("\"sessionid\":\t\"") + 14, 36);
    EXPECT_EQ("{\n\t\"Result\":\t\"OK\",\n\t\"Reason\":\t\"user login successfully\",\n\t\"sessionid\":\t\"" + sid +
                  "\"\n}",
              r.body);
    EXPECT_EQ(kAdminList, dev->call("get_user_param", "sessionid=" + sid).body);
}

// The password is the digest, compared as it stands.
TEST_F(Gate, AWrongPasswordOpensNoSession)
{
    for (const char *password : {"tavel", "45B5D899E8CBBF16302D286D2C2F8E9D"}) {
        std::string body = R"({"username":"admin","password":")" + std::string(password) + R"(","timeout":600})";
        EXPECT_EQ(fail("Invalid username or password"), dev->call("login", "", body).body) << password;
    }
}

TEST_F(Gate, ALoginBodyWithoutATimeOutNeverAsksTheApplication)
{
    const std::string asked = "request: {\"Command\":\"VerifyPassword\"";
    size_t before = ts::occurrences(dev->sim().log(), asked);
    for (const char *body : {R"({"username":"admin","password":"45b5d899e8cbbf16302d286d2c2f8e9d"})", "not json"})
        EXPECT_EQ(fail("Invalid input params"), dev->call("login", "", body).body) << body;
    EXPECT_EQ(before, ts::occurrences(dev->sim().log(), asked));
}

// For that request only.
TEST_F(Gate, CredentialsInTheQueryStandInForASession)
{
    EXPECT_EQ(kAdminList, dev->call("get_user_param", std::string("username=admin&password=") + ts::kAdminDigest).body);
    EXPECT_EQ(fail("Invalid username or password"), dev->call("get_user_param", "username=admin&password=tavel").body);
    EXPECT_EQ(coded(-16, "Session ID is empty"), dev->call("get_user_param", "username=admin").body);
}

TEST_F(Gate, LogoutEndsTheSession)
{
    std::string sid = dev->login();
    EXPECT_EQ(ts::ok("Successfully to set params"), dev->call("logout", "", R"({"sessionid":")" + sid + "\"}").body);
    EXPECT_EQ(coded(-16, "Invalid session ID"), dev->call("get_user_param", "sessionid=" + sid).body);
}

TEST_F(Gate, ALogoutWithoutALiveSessionIsRefused)
{
    std::string sid = dev->login();
    std::string logout = R"({"sessionid":")" + sid + "\"}";
    ASSERT_EQ(ts::ok("Successfully to set params"), dev->call("logout", "", logout).body);
    EXPECT_EQ(fail("Invalid session id"), dev->call("logout", "", logout).body);
    EXPECT_EQ(fail("Invalid input params"), dev->call("logout", "", "{}").body);
}

// The login waits out the exchange with the account application.
TEST_F(Gate, AHungAccountApplicationTimesTheLoginOut)
{
    struct Resume {
        ~Resume() { kill(dev->sim().pid(), SIGCONT); }
    } resume;
    ASSERT_TRUE(dev->sim().freeze());
    EXPECT_EQ(coded(504, "Connection service timed out"), dev->call("login", "", kLogin).body);
}

// Sessions count whole seconds of the monotonic clock: one of 2 seconds made in second S is
// alive in S + 2 and gone in S + 3; a use in S + 1 keeps it to S + 3. The suite makes four
// sessions in S, uses one and probes another in S + 1, and keeps what S + 3 showed.
class SessionTimeOuts : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        ts::Device dev;
        long long made = ts::fresh_second();
        std::string probed = dev.login(2), used = dev.login(2), zero = dev.login(0), negative = dev.login(-5);
        ASSERT_EQ(made, ts::monotonic_seconds()) << "the logins took a second";
        ts::wait_for_second(made + 1);
        probed_in_s1 = dev.call("detection_sessionid", "sessionid=" + probed).body;
        used_in_s1 = dev.call("get_user_param", "sessionid=" + used).body;
        ts::wait_for_second(made + 3);
        for (auto [name, id] : {std::pair{"probed", probed}, {"used", used}, {"zero", zero}, {"negative", negative}})
            in_s3[name] = dev.call("detection_sessionid", "sessionid=" + id).body;
    }

    static inline std::string probed_in_s1, used_in_s1;
    static inline std::map<std::string, std::string> in_s3;  // the probe's reply for each session
};

TEST_F(SessionTimeOuts, AUseKeepsASessionAlive)
{
    EXPECT_NE(std::string::npos, used_in_s1.find("admin")) << used_in_s1;
    EXPECT_EQ(ts::plain_ok(), in_s3["used"]);
}

TEST_F(SessionTimeOuts, TheProbeDoesNotKeepASessionAlive)
{
    EXPECT_EQ(ts::plain_ok(), probed_in_s1);
    EXPECT_EQ(coded(-16, "Invalid session ID"), in_s3["probed"]);
}

TEST_F(SessionTimeOuts, TimeOutsBelowOneLastHalfAnHour)
{
    EXPECT_EQ(ts::plain_ok(), in_s3["zero"]);
    EXPECT_EQ(ts::plain_ok(), in_s3["negative"]);
}

TEST(GateWithoutPasswordRoute, NobodyGetsIn)
{
    ts::Device dev("", "GetNetworkWIFIParameters app_network ipc:///tmp/app_network.ipc\n", 8081);
    EXPECT_EQ(coded(550, "Failed to request server"), dev.call("login", "", kLogin).body);
    EXPECT_EQ(coded(-1, "Invalid username or password"),
              dev.call("get_user_param", std::string("username=admin&password=") + ts::kAdminDigest).body);
}

} // namespace
