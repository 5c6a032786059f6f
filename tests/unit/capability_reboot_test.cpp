#include "actions/capability_actions.h"
#include "actions/reboot_action.h"
#include "settings_support.h"
#include "testsupport.h"

#include <gtest/gtest.h>
#include <sstream>

namespace {

using namespace std::string_literals;

const std::string kCapFile = "/mnt/app/web_root/config/device_cap.json";

ts::HandlerRun get_cap(const char *path)
{
    return ts::call_handler([&](char **out) { return actionGetDeviceCap(path, nullptr, out); });
}

class Capability : public ::testing::Test {
protected:
    void SetUp() override
    {
        ts::reset_device_tree();
        ts::make_dirs("/mnt/app/web_root/config");
    }
};

TEST_F(Capability, FileIsAnsweredExactlyAsStored)
{
    for (const std::string &stored : {"{ \"Audio\" :1,\n  \"Channels\": [ 1, 2 ]  }\n"s, "[]"s, "7"s}) {
        ts::write_file(kCapFile, stored);
        ts::HandlerRun get = get_cap(kCapFile.c_str());
        EXPECT_EQ(0, get.rc);
        EXPECT_EQ(ts::params_reply("Successfully to get params", stored), get.reply);
    }
}

TEST_F(Capability, MissingEmptyAndNonJsonFilesAreRefused)
{
    // Cut short, two values, not JSON at all, and a NUL byte hiding the rest.
    for (const std::string &stored : {"{\"Audio\":"s, "{} {}"s, "Audio=1"s, "{}\0{\"x\""s}) {
        ts::write_file(kCapFile, stored);
        ts::HandlerRun get = get_cap(kCapFile.c_str());
        EXPECT_EQ(-1, get.rc) << stored;
        EXPECT_EQ(ts::fail_reply("Failed to get params"), get.reply);
    }
    for (bool empty : {false, true}) {
        if (empty)
            ts::write_file(kCapFile, "");
        else
            ts::remove_tree(kCapFile);
        ts::HandlerRun get = get_cap(kCapFile.c_str());
        EXPECT_EQ(ts::fail_reply("Failed to get params"), get.reply);
        EXPECT_NE(std::string::npos, get.out.find(">: open " + kCapFile + " failed use default para\n")) << get.out;
    }
    ts::HandlerRun no_path = get_cap(nullptr);
    EXPECT_EQ(-1, no_path.rc);
    EXPECT_EQ(ts::fail_reply("Invalid input params"), no_path.reply);
}

// The stand-ins of reboot and sync record "NAME SECONDS.NANOSECONDS" in /tmp/standins.log.
TEST(Reboot, SyncsWaitsPrintsTheBannerAndAsksTwiceForTheRestart)
{
    ts::write_file("/tmp/standins.log", "");
    ts::HandlerRun reboot = ts::call_handler([](char **out) { return actionSetDeviceReboot(nullptr, out); });
    EXPECT_EQ(0, reboot.rc);
    EXPECT_EQ("<null>", reboot.reply);
    EXPECT_EQ("\n"
              "_________________________________________________________________\n"
              "|                Device Start Restart <system>                  |\n"
              "|_______________________________________________________________|\n",
              reboot.out);

    std::istringstream log(ts::read_file("/tmp/standins.log"));
    std::vector<std::pair<std::string, double>> calls;
    std::string name;
    double at;
    while (log >> name >> at)
        calls.emplace_back(name, at);
    ASSERT_EQ(3u, calls.size()) << ts::read_file("/tmp/standins.log");
    EXPECT_EQ("sync", calls[0].first);
    EXPECT_EQ("reboot", calls[1].first);
    EXPECT_EQ("reboot", calls[2].first);
    EXPECT_NEAR(8.0, calls[1].second - calls[0].second, 0.5);
    EXPECT_NEAR(3.0, calls[2].second - calls[1].second, 0.5);
}

} // namespace
