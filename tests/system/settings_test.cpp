// Settings answered by the real server: capability files named in the routing file, and the
// web port, which moves the running server and is read again at start.
#include "device_support.h"

#include <gtest/gtest.h>

namespace {

using ts::failure_text;

const std::string kConfig = "/mnt/app/web_root/config/";

TEST(Settings, CapabilityCommandsAreAnsweredFromTheirFilesBeforeAnyRelay)
{
    ts::Device dev(8080, "",
                   "VerifyPassword app_user ipc:///tmp/app_user.ipc\n"
                   "GetMediaInfo app_media ipc:///tmp/app_media.ipc\n"
                   "GetAudioCap app_media ipc:///tmp/app_media.ipc\n"
                   "GetAudioCap device_cap " + kConfig + "audio_cap.json\n"
                   "GetVideoCap device_cap " + kConfig + "video_cap.json\n"
                   "GetEmptyCap device_cap " + kConfig + "empty_cap.json\n"
                   "GetTextCap device_cap " + kConfig + "text_cap.json\n"
                   "GetLostCap device_cap " + kConfig + "lost_cap.json\n"
                   "get_user_param device_cap " + kConfig + "audio_cap.json\n");
    const std::string audio = "{ \"Audio\" :1,\n  \"Channels\": [ 1, 2 ]  }";
    ts::write_file(kConfig + "audio_cap.json", audio);
    ts::write_file(kConfig + "video_cap.json", "{\"Codecs\":[\"H.264\",\"H.265\"]}\n");
    ts::write_file(kConfig + "empty_cap.json", "");
    ts::write_file(kConfig + "text_cap.json", "Audio=1");
    std::string query = "sessionid=" + dev.login();

    struct Case {
        const char *action;
        std::string reply;
    } cases[] = {
        {"GetAudioCap", ts::params_success("Successfully to get params", audio)},
        {"GetVideoCap", ts::params_success("Successfully to get params", "{\"Codecs\":[\"H.264\",\"H.265\"]}\n")},
        {"GetEmptyCap", failure_text("Failed to get params")},
        {"GetTextCap", failure_text("Failed to get params")},
        {"GetLostCap", failure_text("Failed to get params")},
        {"GetMediaInfo", ts::plain_ok()},  // not a capability: the application answers
    };
    for (const Case &c : cases)
        EXPECT_EQ(c.reply, dev.call(c.action, query).body) << c.action;
    // A built-in action keeps its own answer even when listed as a capability.
    EXPECT_NE(std::string::npos, dev.call("get_user_param", query).body.find("\"user_name\":\t\"admin\""));

    std::string sim = dev.sim_log();
    EXPECT_NE(std::string::npos, sim.find("request: {\"Command\":\"GetMediaInfo\"")) << sim;
    EXPECT_EQ(std::string::npos, sim.find("request: {\"Command\":\"GetAudioCap\"")) << "a capability is never relayed";
}

TEST(Settings, PortChangeMovesTheServerAndRefusedPortsMoveNothing)
{
    const int old_port = 8080, new_port = 8081;
    ts::Device dev(old_port);
    std::string query = "sessionid=" + dev.login();

    EXPECT_EQ(failure_text("http port in use"),
              dev.call("GetWebServerPortStatus", query, "{\"Port\":" + std::to_string(old_port) + "}").body);

    std::string set_new = "{\"Port\":" + std::to_string(new_port) + "}";
    ts::HttpReply moved = dev.call("SetWebServerParameter", query, set_new);
    long long start = ts::now_ms();
    EXPECT_EQ(ts::success_text("Successfully to set params"), moved.body);
    EXPECT_TRUE(ts::wait_for_port("127.0.0.1", new_port, true, 5000)) << dev.server_log();
    EXPECT_LT(ts::now_ms() - start, 4500);
    EXPECT_FALSE(ts::port_accepts("127.0.0.1", old_port));
    const std::string stored = "{\n\t\"Port\":\t" + std::to_string(new_port) + "\n}";
    EXPECT_EQ(stored, ts::read_file(ts::kPortFile));

    // The session survives the move. Refused ports change neither the file nor the server,
    // which is still there after the supervisor's next look.
    std::string url = "/action/device/SetWebServerParameter?" + query;
    for (const char *port : {"0", "65536", "-1", "\"8082\""}) {
        ts::HttpReply r = ts::http_post(ts::local_url(new_port, url), std::string("{\"Port\":") + port + "}");
        EXPECT_EQ(failure_text("Failed to set params"), r.body) << port;
    }
    usleep(3'200'000);  // one look of the 3-second supervisor
    EXPECT_EQ(stored, ts::read_file(ts::kPortFile));
    ts::HttpReply still = ts::http_post(ts::local_url(new_port, "/action/device/detection_sessionid?" + query), "");
    EXPECT_EQ(ts::plain_ok(), still.body) << dev.server_log();
}

TEST(Settings, StoredPortWinsOverTheCommandLineAtStart)
{
    ts::lay_out_demo_tree();
    const int stored = 8090, given = 8091;
    ts::store_port(stored);
    {
        ts::ServerProcess server({std::to_string(given), "lo"});
        EXPECT_TRUE(server.wait_ready(stored)) << server.log();
        EXPECT_FALSE(ts::port_accepts("127.0.0.1", given));
        EXPECT_NE(std::string::npos, server.log().find("web init port " + std::to_string(stored) + " \n"));
    }
    // A device without the file stores the default port and starts there.
    ts::remove_tree(ts::kPortFile);
    ts::Process server({ts::bin_path("webserver"), std::to_string(given), "lo"}, "/tmp/webserver.log");
    EXPECT_TRUE(ts::wait_for_port("127.0.0.1", 80, true, 5000)) << server.log();
    EXPECT_FALSE(ts::port_accepts("127.0.0.1", given));
    EXPECT_NE(std::string::npos, server.log().find("web init port 80 \n"));
    EXPECT_EQ("{\n\t\"Port\":\t80\n}", ts::read_file(ts::kPortFile));
}

} // namespace
