// Relayed commands, capability files and the web port through the real server and the
// device simulator.
#include "common/owners.h"
#include "testsupport.h"

#include <cjson/cJSON.h>
#include <csignal>
#include <gtest/gtest.h>
#include <memory>

namespace {

const std::string kConfig = "/mnt/app/web_root/config/";

// An answer with every kind of value, escapes and nesting, so that any re-printing shows.
const std::string kEncodeResponse =
    R"({"Result":"OK","Parameters":{"Codec":"H.265","Bitrate":4096,"Scale":0.5,"Title":"Front \"door\" \/ caf\u00e9",)"
    R"("Zones":[[0,0],[1920,1080]],"Audio":false,"Extra":null,"Empty":{}}})";

class Relay : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        dev = std::make_unique<ts::Device>(R"({"GetVideoEncodeParameters": {"Response": )" + kEncodeResponse + R"(},
                                               "GetOsdText": {"raw": "Result=OK"}})",
                                           "VerifyPassword app_user ipc:///tmp/app_user.ipc\n"
                                           "GetVideoEncodeParameters app_media ipc:///tmp/app_media.ipc\n"
                                           "SetVideoEncodeParameters app_media ipc:///tmp/app_media.ipc\n"
                                           "GetOsdText app_media ipc:///tmp/app_media.ipc\n"
                                           "GetAudioCap app_media ipc:///tmp/app_media.ipc\n"
                                           "GetAudioCap device_cap " + kConfig + "audio_cap.json\n"
                                           "get_user_param device_cap " + kConfig + "audio_cap.json\n");
        query = "sessionid=" + dev->login();
        ts::write_file(kConfig + "audio_cap.json", kAudio);
    }
    static void TearDownTestSuite()
    {
        kill(dev->sim().pid(), SIGTERM);
        EXPECT_EQ(0, dev->sim().wait(3000)) << "under the sanitizers a leak of the simulator makes this non-zero";
        dev.reset();
    }

    // The last request app_media received, as its log shows it.
    static std::string last_request()
    {
        std::string log = dev->sim().log();
        size_t at = log.rfind("devicesim: app_media request: ") + 30;
        return log.substr(at, log.find('\n', at) - at);
    }
    static size_t requests_for(const std::string &command)
    {
        return ts::occurrences(dev->sim().log(), "request: {\"Command\":\"" + command + "\"");
    }

    static inline const std::string kAudio = "{ \"Audio\" :1,\n  \"Channels\": [ 1, 2 ]  }";
    static inline std::unique_ptr<ts::Device> dev;
    static inline std::string query;
};

TEST_F(Relay, AnAnswerReachesTheBrowserAsCJsonPrintsIt)
{
    CJsonPtr expected(cJSON_Parse(kEncodeResponse.c_str()));
    HeapText printed(cJSON_Print(expected.get()));
    EXPECT_EQ(printed.get(), dev->call("GetVideoEncodeParameters", query, R"({"Channel": 1})").body);
}

TEST_F(Relay, TheApplicationGetsTheWholeDeviceMessage)
{
    long long before = time(nullptr);
    dev->call("GetVideoEncodeParameters", query, R"({"Channel": 1})");
    const std::string head =
        R"({"Command":"GetVideoEncodeParameters","Sender":"web_server","Receiver":"app_media","Timestamp":)";
    std::string sent = last_request();
    size_t digits = 0;
    long long stamp = std::stoll(sent.substr(head.size()), &digits);
    EXPECT_EQ(head, sent.substr(0, head.size()));
    EXPECT_TRUE(stamp >= before && stamp <= time(nullptr)) << stamp;
    EXPECT_EQ(R"(,"Parameters":{"Channel":1}})", sent.substr(head.size() + digits));
}

TEST_F(Relay, ABodyThatIsNotJsonIsSentWithoutParameters)
{
    EXPECT_EQ(ts::plain_ok(), dev->call("SetVideoEncodeParameters", query, "Channel=1").body);
    EXPECT_EQ(0u, last_request().find(R"({"Command":"SetVideoEncodeParameters",)"));
    EXPECT_EQ(std::string::npos, last_request().find("\"Parameters\"")) << last_request();
}

TEST_F(Relay, ABodyOver64KiBReachesNoApplication)
{
    std::string at_limit = R"({"pad":")" + std::string(65536 - 10, 'x') + R"("})";
    size_t before = requests_for("SetVideoEncodeParameters");
    EXPECT_EQ(ts::plain_ok(), dev->call("SetVideoEncodeParameters", query, at_limit).body);
    EXPECT_EQ(413, dev->call("SetVideoEncodeParameters", query, at_limit + " ").status);
    EXPECT_EQ(before + 1, requests_for("SetVideoEncodeParameters"));
}

TEST_F(Relay, AnAnswerThatIsNotJsonIsCoded508)
{
    EXPECT_EQ(ts::coded(508, "The server returned an incorrect format parameter"), dev->call("GetOsdText", query).body);
}

// Exactly as stored.
TEST_F(Relay, ACapabilityIsAnsweredFromItsFileWithoutARelay)
{
    EXPECT_EQ(ts::params("Successfully to get params", kAudio), dev->call("GetAudioCap", query).body);
    EXPECT_EQ(0u, requests_for("GetAudioCap"));
}

TEST_F(Relay, ABuiltInActionKeepsItsAnswerWhenListedAsACapability)
{
    EXPECT_NE(std::string::npos, dev->call("get_user_param", query).body.find("\"user_name\":\t\"admin\""));
}

// The move takes the supervisor's turn of a few seconds, so the suite moves the server once.
class WebPort : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        dev = std::make_unique<ts::Device>();
        query = "sessionid=" + dev->login();
        long long start = ts::now_ms();
        reply = dev->call("SetWebServerParameter", query, R"({"Port":8081})").body;
        moved = ts::wait_for_port("127.0.0.1", 8081, true);
        move_ms = ts::now_ms() - start;
    }
    static void TearDownTestSuite() { dev.reset(); }

    static inline std::unique_ptr<ts::Device> dev;
    static inline std::string query, reply;
    static inline bool moved = false;
    static inline long long move_ms = -1;
};

TEST_F(WebPort, AChangeMovesTheServer)
{
    EXPECT_EQ(ts::ok("Successfully to set params"), reply);
    EXPECT_TRUE(moved) << dev->server().log();
    EXPECT_LT(move_ms, 4500);
    EXPECT_FALSE(ts::port_accepts("127.0.0.1", 8080));
}

TEST_F(WebPort, AChangeIsStored)
{
    EXPECT_EQ("{\n\t\"Port\":\t8081\n}", ts::read_file(ts::kPortFile));
}

TEST_F(WebPort, TheSessionSurvivesTheMove)
{
    EXPECT_EQ(
        ts::plain_ok(),
        ts::http({.method = "POST", .url = ts::local_url(8081, "/action/device/detection_sessionid?" + query)}).body);
}

TEST(WebPortAtStart, TheStoredPortWinsOverTheCommandLine)
{
    ts::lay_out_demo_tree();
    ts::write_file(ts::kPortFile, "{\n\t\"Port\":\t8081\n}");
    ts::Process server = ts::start_server({"8090", "lo"});
    EXPECT_TRUE(ts::wait_for_port("127.0.0.1", 8081, true)) << server.log();
    EXPECT_FALSE(ts::port_accepts("127.0.0.1", 8090));
    EXPECT_NE(std::string::npos, server.log().find("web init port 8081 \n"));
}

} // namespace
