// Login, logout and per-request credentials through the real server, with the password
// checked by the simulated account application.
#include "common/owners.h"
#include "device_support.h"

#include <cjson/cJSON.h>
#include <csignal>
#include <gtest/gtest.h>

namespace {

using ts::coded_failure;
using ts::failure_text;
using ts::kAdminDigest;

std::string login_body(const std::string &password, const std::string &timeout_member = R"(,"timeout":600)")
{
    return R"({"username":"admin","password":")" + password + "\"" + timeout_member + "}";
}

std::string login_reply(const std::string &sid)
{
    CJsonPtr obj(cJSON_CreateObject());
    cJSON_AddStringToObject(obj.get(), "Result", "OK");
    cJSON_AddStringToObject(obj.get(), "Reason", "user login successfully");
    cJSON_AddStringToObject(obj.get(), "sessionid", sid.c_str());
    HeapText text(cJSON_Print(obj.get()));
    return text.get();
}

// "get_user_param" on a fresh device: the one default account.
std::string admin_list()
{
    return ts::params_success("Successfully to get params", std::string("[{\n\t\t\"user_name\":\t\"admin\",\n\t\t"
                                                                        "\"password\":\t\"") +
                                                                kAdminDigest + "\"\n\t}]");
}

bool valid_id(const std::string &id)
{
    if (id.size() != 36)
        return false;
    for (size_t i = 0; i < id.size(); ++i) {
        bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? id[i] != '-' : !isxdigit(static_cast<unsigned char>(id[i])) || isupper(id[i]))
            return false;
    }
    return true;
}

TEST(Login, DefaultAdminLogsInUsesTheSessionAndLogsOut)
{
    ts::Device dev;
    ts::HttpReply r = dev.call("login", "", login_body(kAdminDigest));
    CJsonPtr tree(cJSON_Parse(r.body.c_str()));
    const cJSON *id = cJSON_GetObjectItemCaseSensitive(tree.get(), "sessionid");
    ASSERT_TRUE(cJSON_IsString(id)) << r.body;
    std::string sid = id->valuestring;
    EXPECT_TRUE(valid_id(sid)) << sid;
    EXPECT_EQ(login_reply(sid), r.body);
    EXPECT_NE(std::string::npos, dev.sim_log().find(std::string(R"("Parameters":{"UserName":"admin","Password":")") +
                                                    kAdminDigest + R"(","MD5Password":1}})"))
        << dev.sim_log();
    EXPECT_EQ(admin_list(), dev.call("get_user_param", "sessionid=" + sid).body);

    // Refused logins open no session and, without a time-out, never ask the application.
    size_t asked = ts::occurrences(dev.sim_log(), "request: {\"Command\":\"VerifyPassword\"");
    struct Case {
        std::string body, reply;
    } refused[] = {
        {login_body("tavel"), failure_text("Invalid username or password")},
        {login_body("45B5D899E8CBBF16302D286D2C2F8E9D"), failure_text("Invalid username or password")},
        {login_body(kAdminDigest, ""), failure_text("Invalid input params")},
        {"not json", failure_text("Invalid input params")},
    };
    for (const Case &c : refused)
        EXPECT_EQ(c.reply, dev.call("login", "", c.body).body) << c.body;
    EXPECT_EQ(asked + 2, ts::occurrences(dev.sim_log(), "request: {\"Command\":\"VerifyPassword\""));

    // Credentials in the query stand in for a session, for this request only.
    EXPECT_EQ(admin_list(), dev.call("get_user_param", std::string("username=admin&password=") + kAdminDigest).body);
    EXPECT_EQ(failure_text("Invalid username or password"),
              dev.call("get_user_param", "username=admin&password=tavel").body);
    EXPECT_EQ(coded_failure(-16, "Session ID is empty"), dev.call("get_user_param", "username=admin").body);

    std::string logout = R"({"sessionid":")" + sid + "\"}";
    EXPECT_EQ(ts::success_text("Successfully to set params"), dev.call("logout", "", logout).body);
    EXPECT_EQ(coded_failure(-16, "Invalid session ID"), dev.call("get_user_param", "sessionid=" + sid).body);
    EXPECT_EQ(failure_text("Invalid session id"), dev.call("logout", "", logout).body);
    EXPECT_EQ(failure_text("Invalid input params"), dev.call("logout", "", "{}").body);
}

TEST(Login, TimeOutsBelowOneLastHalfAnHourAndAHungApplicationTimesOut)
{
    ts::Device dev;
    std::string one = dev.login(1), zero = dev.login(0), negative = dev.login(-5);
    ASSERT_TRUE(!one.empty() && !zero.empty() && !negative.empty()) << dev.server_log();

    // The account application stops answering: the login waits out the exchange's time-out.
    kill(dev.sim().pid(), SIGSTOP);
    long long start = ts::now_ms();
    ts::HttpReply hung = dev.call("login", "", login_body(kAdminDigest));
    long long waited = ts::now_ms() - start;
    kill(dev.sim().pid(), SIGCONT);
    EXPECT_EQ(coded_failure(504, "Connection service timed out"), hung.body);
    EXPECT_TRUE(waited >= 2900 && waited < 4500) << waited;

    // Three seconds later the one-second session is gone, the others live on.
    EXPECT_EQ(coded_failure(-16, "Invalid session ID"), dev.call("detection_sessionid", "sessionid=" + one).body);
    EXPECT_EQ(ts::plain_ok(), dev.call("detection_sessionid", "sessionid=" + zero).body);
    EXPECT_EQ(ts::plain_ok(), dev.call("detection_sessionid", "sessionid=" + negative).body);
}

TEST(Login, WithoutAPasswordRouteNobodyGetsIn)
{
    ts::Device dev(8080, "", "GetNetworkWIFIParameters app_network ipc:///tmp/app_network.ipc\n");
    EXPECT_EQ(coded_failure(550, "Failed to request server"), dev.call("login", "", login_body(kAdminDigest)).body);
    EXPECT_EQ(coded_failure(-1, "Invalid username or password"),
              dev.call("get_user_param", std::string("username=admin&password=") + kAdminDigest).body);
    EXPECT_EQ(std::string::npos, dev.sim_log().find("VerifyPassword"));
}

} // namespace
