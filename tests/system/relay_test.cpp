// Relayed commands, capability files and the web port through the real server and the
// device simulator.
#include "common/owners.h"
#include "testsupport.h"

#include <cjson/cJSON.h>
#include <csignal>
#include <gtest/gtest.h>

namespace {

const std::string kConfig = "/mnt/app/web_root/config/";

// An answer with every kind of value, escapes and nesting, so that any re-printing shows.
const std::string kEncodeResponse =
    R"({"Result":"OK","Parameters":{"Codec":"H.265","Bitrate":4096,"Scale":0.5,"Title":"Front \"door\" \/ caf\u00e9",)"
    R"("Zones":[[0,0],[1920,1080]],"Audio":false,"Extra":null,"Empty":{}}})";

TEST(Relay, AnswersReachTheBrowserAsPrintedCapabilitiesComeFromTheirFilesAndFaultsAreCoded)
{
    ts::Device dev(R"({"GetVideoEncodeParameters": {"Response": )" + kEncodeResponse + R"(},
                       "GetOsdText": {"raw": "Result=OK"}})",
                   "VerifyPassword app_user ipc:///tmp/app_user.ipc\n"
                   "GetVideoEncodeParameters app_media ipc:///tmp/app_media.ipc\n"
                   "SetVideoEncodeParameters app_media ipc:///tmp/app_media.ipc\n"
                   "GetOsdText app_media ipc:///tmp/app_media.ipc\n"
                   "GetAudioCap app_media ipc:///tmp/app_media.ipc\n"
                   "GetAudioCap device_cap " + kConfig + "audio_cap.json\n"
                   "get_user_param device_cap " + kConfig + "audio_cap.json\n");
    std::string query = "sessionid=" + dev.login();
    long long before = time(nullptr);
    CJsonPtr expected(cJSON_Parse(kEncodeResponse.c_str()));
    HeapText printed(cJSON_Print(expected.get()));
    EXPECT_EQ(printed.get(), dev.call("GetVideoEncodeParameters", query, R"({"Channel": 1})").body);
    auto last_request = [&dev] {
        std::string log = dev.sim().log();
        size_t at = log.rfind("devicesim: app_media request: ") + 30;
        return log.substr(at, log.find('\n', at) - at);
    };
    const std::string head =
        R"({"Command":"GetVideoEncodeParameters","Sender":"web_server","Receiver":"app_media","Timestamp":)";
    std::string sent = last_request();
    size_t digits = 0;
    long long stamp = std::stoll(sent.substr(head.size()), &digits);
    EXPECT_EQ(head, sent.substr(0, head.size()));
    EXPECT_TRUE(stamp >= before && stamp <= time(nullptr)) << stamp;
    EXPECT_EQ(R"(,"Parameters":{"Channel":1}})", sent.substr(head.size() + digits));

    // A body that is not JSON still reaches the application, without "Parameters"; a body
    // one byte over 64 KiB reaches nothing.
    std::string at_limit = R"({"pad":")" + std::string(65536 - 10, 'x') + R"("})";
    EXPECT_EQ(ts::plain_ok(), dev.call("SetVideoEncodeParameters", query, "Channel=1").body);
    EXPECT_EQ(0u, last_request().find(R"({"Command":"SetVideoEncodeParameters",)"));
    EXPECT_EQ(std::string::npos, last_request().find("\"Parameters\"")) << last_request();
    EXPECT_EQ(ts::plain_ok(), dev.call("SetVideoEncodeParameters", query, at_limit).body);
    EXPECT_EQ(413, dev.call("SetVideoEncodeParameters", query, at_limit + " ").status);
    EXPECT_EQ(2u, ts::occurrences(dev.sim().log(), "request: {\"Command\":\"SetVideoEncodeParameters\""));
    EXPECT_EQ(ts::coded(508, "The server returned an incorrect format parameter"), dev.call("GetOsdText", query).body);

    // A capability is answered from its file, exactly as stored, and never relayed; a built-in
    // action keeps its own answer even when listed as a capability.
    const std::string audio = "{ \"Audio\" :1,\n  \"Channels\": [ 1, 2 ]  }";
    ts::write_file(kConfig + "audio_cap.json", audio);
    EXPECT_EQ(ts::params("Successfully to get params", audio), dev.call("GetAudioCap", query).body);
    EXPECT_NE(std::string::npos, dev.call("get_user_param", query).body.find("\"user_name\":\t\"admin\""));
    EXPECT_EQ(std::string::npos, dev.sim().log().find("request: {\"Command\":\"GetAudioCap\""));

    kill(dev.sim().pid(), SIGTERM);
    EXPECT_EQ(0, dev.sim().wait(3000)) << "under the sanitizers a leak of the simulator makes this non-zero";
}

TEST(WebPort, ChangeMovesTheServerAndTheStoredPortWinsAtStart)
{
    ts::Device dev;
    std::string query = "sessionid=" + dev.login();
    long long start = ts::now_ms();
    EXPECT_EQ(ts::ok("Successfully to set params"), dev.call("SetWebServerParameter", query, R"({"Port":8081})").body);
    EXPECT_TRUE(ts::wait_for_port("127.0.0.1", 8081, true)) << dev.server().log();
    EXPECT_LT(ts::now_ms() - start, 4500);
    EXPECT_FALSE(ts::port_accepts("127.0.0.1", 8080));
    EXPECT_EQ("{\n\t\"Port\":\t8081\n}", ts::read_file(ts::kPortFile));
    // The session survives the move.
    EXPECT_EQ(
        ts::plain_ok(),
        ts::http({.method = "POST", .url = ts::local_url(8081, "/action/device/detection_sessionid?" + query)}).body);
    dev.server().stop();

    ts::Process server = ts::start_server({"8090", "lo"});
    EXPECT_TRUE(ts::wait_for_port("127.0.0.1", 8081, true)) << server.log();
    EXPECT_FALSE(ts::port_accepts("127.0.0.1", 8090));
    EXPECT_NE(std::string::npos, server.log().find("web init port 8081 \n"));
}

} // namespace
