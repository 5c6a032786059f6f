// The reboot action: what it asks of the system, and in which order. Its pauses are sleep()
// calls of whole seconds; this binary has its own sleep(), which the action links to, so a
// pause takes no time and shows in the log of calls instead.
#include "actions/reboot_action.h"
#include "testsupport.h"

#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

extern "C" unsigned int sleep(unsigned int)
{
    std::ofstream("/tmp/standins.log", std::ios::app) << "pause\n";
    return 0;
}

namespace {

// The calls in /tmp/standins.log, each as its name and the path it was run by ("sync
// /bin/sync"), or "pause"; one per line.
std::string calls()
{
    std::istringstream log(ts::read_file("/tmp/standins.log"));
    std::string calls;
    for (std::string line; std::getline(log, line);) {
        std::istringstream words(line);
        std::string name, time, path;
        words >> name >> time >> path;
        calls += name + (path.empty() ? "" : " " + path) + "\n";
    }
    return calls;
}

// The programs run directly come from /bin; only a shell looks them up in PATH, which
// names another folder here. So the last reboot shows that it went through the shell.
TEST(Reboot, SyncsThenRestartsThenAsksTheShellAgain)
{
    ts::write_file("/tmp/standins.log", "");
    ASSERT_EQ(0, setenv("PATH", "/usr/sbin", 1));
    ts::Outcome reboot = ts::call(actionSetDeviceReboot, nullptr);
    EXPECT_EQ(0, reboot.rc);
    EXPECT_EQ("<null>", reboot.reply) << "the dispatcher answers, if the device is still up";
    EXPECT_EQ("sync /bin/sync\n"
              "pause\n"
              "reboot /bin/reboot\n"
              "pause\n"
              "reboot /usr/sbin/reboot\n",
              calls());
}

} // namespace
