#include "bridge_support.h"
#include "webserver/routing_table.h"

#include <gtest/gtest.h>
#include <nanomsg/reqrep.h>
#include <csignal>

namespace {

using bs::has;

constexpr char kAccountFile[] = "/mnt/usr/config/app_parameters/usermgnt_para";
constexpr char kAdminDigest[] = "45b5d899e8cbbf16302d286d2c2f8e9d";

class DeviceSim : public testing::Test {
protected:
    void SetUp() override
    {
        ts::reset_device_tree();
        ASSERT_EQ(0, bs::load_routes(ts::read_file(ts::source_path("demo/web_root/config/command_para"))));
    }

    std::string relay(const std::string &command, const std::string &payload, int *code = nullptr)
    {
        std::string reply;
        int rc = bs::relay(command, payload.c_str(), &reply);
        return code ? (*code = rc, reply) : reply;
    }

    // The password check's answer for a user name and a digest text.
    std::string verify(const std::string &user, const std::string &digest)
    {
        return relay("VerifyPassword", R"({"UserName":")" + user + R"(","Password":")" + digest + R"(","MD5Password":1})");
    }
};

// Stops the simulator; its exit status (under the sanitizers a leak makes it non-zero).
int stop(ts::Process &sim)
{
    kill(sim.pid(), SIGTERM);
    return sim.wait(3000);
}

const std::string kValid = "\"PassValidation\":\t1";
const std::string kInvalid = "\"PassValidation\":\t0";

TEST_F(DeviceSim, PasswordsAreCheckedAgainstTheAccountFileOrTheDefaultAdmin)
{
    ts::Process sim = bs::start_sim();
    EXPECT_TRUE(has(verify("admin", kAdminDigest), kValid)) << "no account file: the default admin";
    EXPECT_TRUE(has(verify("admin", "tavel"), kInvalid)) << "the digest text is compared, not the password";
    EXPECT_TRUE(has(relay("VerifyPassword", "not json"), kInvalid));

    std::string accounts(2048, '\0');
    accounts.replace(2 * 128, 8, "operator");
    accounts.replace(2 * 128 + 64, 32, std::string(32, 'a'));
    ts::write_file(kAccountFile, accounts);
    EXPECT_TRUE(has(verify("operator", std::string(32, 'a')), kValid));
    EXPECT_TRUE(has(verify("operator", std::string(32, 'A')), kInvalid));
    EXPECT_TRUE(has(verify("admin", kAdminDigest), kInvalid));
    ts::write_file(kAccountFile, accounts.substr(1));
    EXPECT_TRUE(has(verify("admin", kAdminDigest), kValid)) << "a wrongly sized file counts as missing";
}

TEST_F(DeviceSim, NetworkAndUpgradeApplicationsAnswerLikeTheDevice)
{
    ts::Process sim = bs::start_sim();
    EXPECT_EQ("{\n\t\"Result\":\t\"OK\"\n}", relay("SetNetworkWIFIParameters", R"({"SSID":"Lab","DHCP":0})"));
    std::string wifi = relay("GetNetworkWIFIParameters", "");
    EXPECT_TRUE(has(wifi, "\"SSID\":\t\"Lab\"") && has(wifi, "\"DHCP\":\t0") && has(wifi, "\"Mode\":\t\"STA\"")) << wifi;
    EXPECT_TRUE(has(relay("SetNetworkWIFIParameters", "[]"), "\"Result\":\t\"Fail\""));
    EXPECT_TRUE(has(relay("GetScanWIFIHotspot", ""), "\"HotspotList\":\t[{"));
    EXPECT_EQ("{\n\t\"Result\":\t\"OK\"\n}", relay("FormatStorage", "{}"));

    long long start = ts::now_ms();
    EXPECT_TRUE(has(relay("StartUpgrade", R"({"UpgradeImageFile":"/tmp/upgrade"})"), "\"UpgradeProgressValue\":\t100"));
    EXPECT_GE(ts::now_ms() - start, 400) << "progress 0, 20, ... 100 a moment apart";
    std::string log = sim.log();
    for (const char *value : {"0", "20", "40", "60", "80", "100"})
        EXPECT_TRUE(has(log, std::string("\"UpgradeProgressValue\":\t") + value + "\n")) << value;
    EXPECT_EQ(0, stop(sim));
}

TEST_F(DeviceSim, ScenarioGivesResponsesDelaysAndMalformedReplies)
{
    ts::Process sim = bs::start_sim(R"({
        "GetVideoEncodeParameters": {"Response": {"Result": "OK", "Parameters": {"Bitrate": 4096}}, "delay_ms": 300},
        "SetVideoEncodeParameters": {"raw": "not json"},
        "GetStorageStatus": {"Command": "GetStorageStatu", "Response": {}},
        "FormatStorage": {"replies": [{"Response": "text"}]},
        "VerifyPassword": {"delay_ms": 100}
    })");
    long long start = ts::now_ms();
    std::string reply = relay("GetVideoEncodeParameters", "{}");
    EXPECT_GE(ts::now_ms() - start, 300);
    EXPECT_TRUE(has(sim.log(), "devicesim: app_media Response to GetVideoEncodeParameters:\n" + reply + "\n"))
        << "the browser's answer is byte for byte the printed Response";
    int code = 0;
    relay("SetVideoEncodeParameters", "{}", &code);
    EXPECT_EQ(508, code);
    relay("GetStorageStatus", "{}", &code);
    EXPECT_EQ(550, code);
    relay("FormatStorage", "{}", &code);
    EXPECT_EQ(508, code);
    EXPECT_TRUE(has(verify("admin", kAdminDigest), kValid)) << "a delay alone keeps the built-in answer";
    EXPECT_EQ(0, stop(sim));
}

TEST_F(DeviceSim, LogsEachRequestSurvivesBadInputAndStopsCleanly)
{
    ts::write_file("/tmp/keep.ipc", "not ours");
    ts::Process sim = bs::start_sim();
    int sock = nn_socket(AF_SP, NN_REQ);
    ASSERT_GE(nn_connect(sock, "ipc:///tmp/app_user.ipc"), 0);
    nn_send(sock, "\x01garbage\n", 9, 0);
    char *buf = nullptr;
    int got = nn_recv(sock, &buf, NN_MSG, 0);
    ASSERT_GT(got, 0);
    EXPECT_TRUE(has(std::string(buf, got), R"("Command":"","Response":{"Result":"Fail")"));
    nn_freemsg(buf);
    nn_close(sock);
    EXPECT_TRUE(has(verify("admin", kAdminDigest), kValid)) << "still serving";
    std::string log = sim.log();
    EXPECT_TRUE(has(log, "devicesim: app_user request: \\x01garbage\\x0a\n")) << log;
    EXPECT_TRUE(has(log, R"(devicesim: app_user request: {"Command":"VerifyPassword","Sender":"web_server")"));

    EXPECT_EQ(0, stop(sim));
    EXPECT_FALSE(ts::exists("/tmp/app_user.ipc"));
    EXPECT_EQ("not ours", ts::read_file("/tmp/keep.ipc"));

    std::string out;
    ts::write_file("/tmp/bad.json", R"({"VerifyPassword": {"delay_ms": "soon"}})");
    EXPECT_NE(0, ts::run({ts::bin_path("devicesim"), HTTP_COMMAND_FILE, "/tmp/bad.json"}, &out));
    EXPECT_TRUE(has(out, "command VerifyPassword: bad or unknown member delay_ms")) << out;
}

} // namespace
