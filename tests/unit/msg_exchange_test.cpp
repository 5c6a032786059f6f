#include "bridge_support.h"
#include "webserver/device_message.h"
#include "webserver/msg_exchange.h"
#include "webserver/routing_table.h"

#include <gtest/gtest.h>
#include <nanomsg/pair.h>
#include <nanomsg/reqrep.h>

namespace {

using bs::has;

const std::string kProgress = R"({"Result":"OK","Parameters":{"UpgradeProgressValue":%}})";

std::string progress(int value)
{
    std::string r = kProgress;
    return r.replace(r.find('%'), 1, std::to_string(value));
}

TEST(MsgExchange, ReceiveTimeOutDependsOnTheCommandAndTheUpgradeSocket)
{
    http_msg_upgrade_fd = 7;
    struct Case {
        const char *command;
        int sock;
        int ms;
    } cases[] = {
        {"StartUpgrade", 7, 180000},       {"StartUpgrade", 8, 3000},
        {"GetScanWIFIHotspot", 8, 180000}, {"GetNetworkWIFIParameters", 8, 5000},
        {"SetNetworkWIFIParameters", 7, 5000}, {"VerifyPassword", 7, 3000},
        {"getscanwifihotspot", 8, 3000},
    };
    for (const Case &c : cases)
        EXPECT_EQ(c.ms, http_msg_recv_timeout(c.command, c.sock)) << c.command << " on " << c.sock;
}

TEST(MsgExchange, CapabilityCommandsComeOnlyFromDeviceCapEntriesAndAreNeverRelayed)
{
    ASSERT_EQ(0, bs::load_routes("GetCap device_cap /mnt/cap.json\nOther device_cap /mnt/other.json\n"
                                 "GetStatus app_a ipc:///tmp/a.ipc\n"));
    char path[HTTP_CAP_PATH_SIZE] = "";
    EXPECT_EQ(1, http_capability_protocol_matching("Other", path));
    EXPECT_STREQ("/mnt/other.json", path);
    EXPECT_EQ(0, http_capability_protocol_matching("GetStatus", path));
    EXPECT_EQ(0, http_capability_protocol_matching("", path)) << "an empty name matches no unused slot";

    std::string reply;
    ts::Capture err(2);
    EXPECT_EQ(-1, bs::relay("GetCap", "{}", &reply));
    EXPECT_TRUE(has(err.text(), ">: http_protocol_matching  sum=-1\n"));
}

TEST(MsgExchange, SilentApplicationAndMissingApplicationBothTimeOutAfterThreeSeconds)
{
    ASSERT_EQ(0, bs::load_routes("GetStatus app_a ipc:///tmp/a.ipc\n"));
    ts::Process sim = bs::start_sim(R"({"GetStatus": {"silent": true}})");
    // Nothing listens at b.ipc: the connection is made in the background and only the
    // exchange fails. Both exchanges run at once to wait the time-out only once.
    ASSERT_EQ(0, bs::load_routes("GetStatus app_a ipc:///tmp/a.ipc\nGetStatus2 app_b ipc:///tmp/b.ipc\n"));
    int missing = -7;
    long long start = ts::now_ms();
    std::thread other([&] {
        std::string ignored;
        missing = bs::relay("GetStatus2", "{}", &ignored);
    });
    std::string reply, reason;
    int silent = bs::relay("GetStatus", "{}", &reply, &reason);
    other.join();
    long long elapsed = ts::now_ms() - start;
    EXPECT_EQ(504, silent);
    EXPECT_EQ(504, missing);
    EXPECT_EQ("Connection service timed out", reason);
    EXPECT_TRUE(elapsed >= 2900 && elapsed < 4500) << elapsed;
    EXPECT_TRUE(has(sim.log(), "devicesim: app_a stays silent to GetStatus\n")) << sim.log();
}

TEST(MsgExchange, CommandListedForTwoReceiversReachesBothAndTheSecondAnswers)
{
    ASSERT_EQ(0, bs::load_routes("GetStatus app_a ipc:///tmp/a.ipc\nGetStatus app_b ipc:///tmp/b.ipc\n"));
    bs::Peer a("ipc:///tmp/a.ipc", NN_REP, {{bs::msg("GetStatus", R"({"From":"a"})")}});
    bs::Peer b("ipc:///tmp/b.ipc", NN_REP, {{bs::msg("GetStatus", R"({"Result":"OK","Parameters":{"Speed":1.5}})")}});
    std::string reply;
    ts::Capture err(2);
    EXPECT_EQ(0, bs::relay("GetStatus", R"({"To":"all"})", &reply));
    EXPECT_EQ("{\n\t\"Result\":\t\"OK\",\n\t\"Parameters\":\t{\n\t\t\"Speed\":\t1.5\n\t}\n}", reply);
    std::string lines = err.text();
    EXPECT_TRUE(has(lines, ">: http_protocol_matching  sum=1\n"));
    EXPECT_TRUE(has(lines, ">: msg sand：name=GetStatus receiver_name=app_a des=\n")) << lines;
    ASSERT_EQ(1u, a.requests().size());
    EXPECT_TRUE(has(a.requests()[0], "\"Receiver\":\t\"app_a\"") && has(a.requests()[0], "\"To\":\t\"all\""));
    EXPECT_EQ('\0', b.requests().at(0).back()) << "the terminating zero travels with the request";
    EXPECT_EQ(-1, http_protocol_command[0].msg_fd) << "the earlier receiver's socket is closed at once";
    EXPECT_EQ(-1, nn_send(http_protocol_command[1].msg_fd, "x", 1, NN_DONTWAIT));
    EXPECT_EQ(EBADF, nn_errno()) << "the last one's by http_msg_socket_uninit";
}

TEST(MsgExchange, UpgradeProgressIsFollowedOnlyOnTheUpgradeApplicationsSocket)
{
    ASSERT_EQ(0, bs::load_routes("StartUpgrade app_update ipc:///tmp/up.ipc\nStartUpgrade2 app_other ipc:///tmp/o.ipc\n"));
    bs::Peer update("ipc:///tmp/up.ipc", NN_PAIR,
                    {{bs::msg("StartUpgrade", progress(40)), bs::msg("StartUpgrade", progress(-5)),
                      bs::msg("StartUpgrade", progress(100))}});
    std::string reply;
    ts::Capture out(1), err(2);
    EXPECT_EQ(0, bs::relay("StartUpgrade", "{}", &reply));
    EXPECT_TRUE(has(reply, "\"UpgradeProgressValue\":\t100")) << reply;
    EXPECT_TRUE(has(err.text(), ">: http_msg_upgrade_fd timeo=180000\n"));
    std::string trace = out.text();
    for (int value : {40, -5, 100})
        EXPECT_TRUE(has(trace, ">: http recv ProgressValue->valueint " + std::to_string(value) + "\n")) << value;

    bs::Peer other("ipc:///tmp/o.ipc", NN_REP, {{bs::msg("StartUpgrade2", progress(40))}});
    EXPECT_EQ(0, bs::relay("StartUpgrade2", "{}", &reply));
    EXPECT_TRUE(has(reply, "\"UpgradeProgressValue\":\t40")) << "another application ends at once";
}

TEST(MsgExchange, RouteNeedsAnIpcAddressAndAConnection)
{
    ASSERT_EQ(0, bs::load_routes("NoAddress app_a /mnt/file\nBadAddress app_b ipcx\n"));
    std::string reply;
    ts::Capture err(2);
    EXPECT_EQ(-1, bs::relay("NoAddress", "{}", &reply));
    EXPECT_EQ(0, http_protocol_command[0].msg_fd) << "no socket was ever opened";
    EXPECT_EQ(-1, bs::relay("BadAddress", "{}", &reply));
    EXPECT_EQ(-1, http_protocol_command[1].msg_fd);
    EXPECT_EQ(-1, bs::relay("", "{}", &reply));
    std::string lines = err.text();
    EXPECT_TRUE(has(lines, ">: NoAddress: receiver app_a has no ipc address \n"));
    EXPECT_TRUE(has(lines, ">: nn_connect(ipcx) fail: Invalid argument\n"));
    EXPECT_TRUE(has(lines, ">: http_msg_socket_init name：BadAddress\n"));
}

} // namespace
