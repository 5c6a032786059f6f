// Relayed commands through the real server and the device simulator: what the browser
// receives, what the application receives, and what a hung application costs.
#include "common/owners.h"
#include "device_support.h"

#include <cjson/cJSON.h>
#include <gtest/gtest.h>
#include <thread>

namespace {

using ts::coded_failure;

const std::string kRoutes =
    "VerifyPassword app_user ipc:///tmp/app_user.ipc\n"
    "GetVideoEncodeParameters app_media ipc:///tmp/app_media.ipc\n"
    "SetVideoEncodeParameters app_media ipc:///tmp/app_media.ipc\n"
    "GetOsdText app_media ipc:///tmp/app_media.ipc\n"
    "GetOsdColour app_media ipc:///tmp/app_media.ipc\n"
    "GetOsdFont app_media ipc:///tmp/app_media.ipc\n"
    "FormatStorage app_storage ipc:///tmp/app_storage.ipc\n";

// An answer with every kind of value, escapes and nesting, so that any re-printing shows.
const std::string kEncodeResponse =
    R"({"Result":"OK","Parameters":{"Codec":"H.265","Bitrate":4096,"Scale":0.5,"Title":"Front \"door\" \/ caf\u00e9",)"
    R"("Zones":[[0,0],[1920,1080]],"Audio":false,"Extra":null,"Empty":{}}})";

const std::string kScenario = R"({
    "GetVideoEncodeParameters": {"Response": )" + kEncodeResponse + R"(},
    "GetOsdText": {"raw": "Result=OK"},
    "GetOsdColour": {"Command": "getosdcolour"},
    "GetOsdFont": {"Response": "Sans"},
    "FormatStorage": {"silent": true}
})";

// The request the simulator logged last for this application, parsed.
CJsonPtr last_request(const std::string &sim_log, const std::string &receiver)
{
    std::string marker = "devicesim: " + receiver + " request: ";
    size_t at = sim_log.rfind(marker);
    if (at == std::string::npos)
        return nullptr;
    at += marker.size();
    return CJsonPtr(cJSON_Parse(sim_log.substr(at, sim_log.find('\n', at) - at).c_str()));
}

std::vector<std::string> member_names(const cJSON *obj)
{
    std::vector<std::string> names;
    for (const cJSON *m = obj ? obj->child : nullptr; m; m = m->next)
        names.push_back(m->string);
    return names;
}

class Relay : public ::testing::Test {
protected:
    Relay() : dev(8080, kScenario, kRoutes) {}
    ts::Device dev;
};

TEST_F(Relay, AnswerReachesTheBrowserAsPrintedAndTheRequestCarriesTheBody)
{
    std::string sid = dev.login();
    ASSERT_FALSE(sid.empty()) << dev.sim_log();
    std::string query = "sessionid=" + sid;

    long long before = time(nullptr);
    ts::HttpReply r = dev.call("GetVideoEncodeParameters", query, R"({"Channel": 1})");
    EXPECT_EQ(200, r.status);
    CJsonPtr expected(cJSON_Parse(kEncodeResponse.c_str()));
    HeapText printed(cJSON_Print(expected.get()));
    EXPECT_EQ(printed.get(), r.body);
    EXPECT_NE(std::string::npos,
              dev.sim_log().find("devicesim: app_media Response to GetVideoEncodeParameters:\n" + r.body + "\n"));

    CJsonPtr sent = last_request(dev.sim_log(), "app_media");
    ASSERT_TRUE(sent) << dev.sim_log();
    EXPECT_EQ((std::vector<std::string>{"Command", "Sender", "Receiver", "Timestamp", "Parameters"}),
              member_names(sent.get()));
    EXPECT_STREQ("web_server", cJSON_GetObjectItem(sent.get(), "Sender")->valuestring);
    EXPECT_STREQ("app_media", cJSON_GetObjectItem(sent.get(), "Receiver")->valuestring);
    double stamp = cJSON_GetObjectItem(sent.get(), "Timestamp")->valuedouble;
    EXPECT_TRUE(stamp >= before && stamp <= time(nullptr)) << stamp;
    EXPECT_EQ(1, cJSON_GetObjectItem(cJSON_GetObjectItem(sent.get(), "Parameters"), "Channel")->valueint);

    // A body that is not JSON still reaches the application, only without "Parameters".
    EXPECT_EQ(ts::plain_ok(), dev.call("SetVideoEncodeParameters", query, "Channel=1").body);
    sent = last_request(dev.sim_log(), "app_media");
    ASSERT_TRUE(sent);
    EXPECT_STREQ("SetVideoEncodeParameters", cJSON_GetObjectItem(sent.get(), "Command")->valuestring);
    EXPECT_EQ((std::vector<std::string>{"Command", "Sender", "Receiver", "Timestamp"}), member_names(sent.get()));

    // Replies the bridge refuses, each with its code.
    struct Case {
        const char *command;
        std::string reply;
    } faults[] = {
        {"GetOsdText", coded_failure(508, "The server returned an incorrect format parameter")},
        {"GetOsdColour", coded_failure(550, "Failed to request server")},
        {"GetOsdFont", coded_failure(508, "The server returned an incorrect format parameter")},
    };
    for (const Case &c : faults) {
        ts::HttpReply fault = dev.call(c.command, query, "{}");
        EXPECT_EQ(200, fault.status) << c.command;
        EXPECT_EQ(c.reply, fault.body) << c.command;
    }
}

TEST_F(Relay, OnlyAFirmwareImageMayArriveAsASpooledBody)
{
    std::string sid = dev.login();
    std::string query = "sessionid=" + sid;
    // Bodies up to 64 KiB are held in memory and relayed; one byte more is spooled.
    std::string at_limit = R"({"pad":")" + std::string(65536 - 10, 'x') + R"("})";
    ASSERT_EQ(65536u, at_limit.size());
    std::string over = R"({"pad":")" + std::string(65536 - 9, 'x') + R"("})";

    EXPECT_EQ(ts::plain_ok(), dev.call("SetVideoEncodeParameters", query, at_limit).body);
    EXPECT_EQ(413, dev.call("SetVideoEncodeParameters", query, over).status);
    EXPECT_EQ(413, dev.call("set_user_param", query, over).status);
    EXPECT_EQ(413, dev.call("login", "", over).status);
    EXPECT_EQ(1u, ts::occurrences(dev.sim_log(), "request: {\"Command\":\"SetVideoEncodeParameters\""));

    // The server goes on answering on the same terms.
    EXPECT_EQ(ts::plain_ok(), dev.call("detection_sessionid", query).body);
}

TEST_F(Relay, SilentApplicationTimesOutWhilePagesAreStillServed)
{
    std::string sid = dev.login();
    ts::HttpReply relayed;
    long long start = ts::now_ms();
    long long relay_ms = 0;
    std::thread browser([&] {
        relayed = dev.call("FormatStorage", "sessionid=" + sid, "{}");
        relay_ms = ts::now_ms() - start;
    });
    usleep(300'000);
    long long page_start = ts::now_ms();
    ts::HttpReply page = ts::http_get(ts::local_url(dev.port(), "/"));
    long long page_ms = ts::now_ms() - page_start;
    browser.join();

    EXPECT_EQ(200, page.status);
    EXPECT_LT(page_ms, 1000) << "the event loop must not wait for the relay";
    EXPECT_EQ(coded_failure(504, "Connection service timed out"), relayed.body);
    EXPECT_TRUE(relay_ms >= 2900 && relay_ms < 4500) << relay_ms;
    EXPECT_NE(std::string::npos, dev.sim_log().find("devicesim: app_storage stays silent to FormatStorage\n"));
}

} // namespace
