#include "common/syscmd.h"
#include "testsupport.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

class SystemCmd : public ::testing::Test {
protected:
    void SetUp() override { ts::reset_device_tree(); }
};

TEST_F(SystemCmd, RunsProgramFromBinAndWaitsForIt)
{
    ts::write_file("/tmp/standins.log", "");
    EXPECT_EQ(0, HTTP_SYSTEM_CMD("sync"));
    EXPECT_EQ(0u, ts::read_file("/tmp/standins.log").find("sync "));
    // The child has been reaped: no zombie is left for anyone else to collect.
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
}

TEST_F(SystemCmd, WordsReachTheProgramUnexpandedAndBlanksCollapse)
{
    ts::make_dirs("/tmp/wm");
    ts::write_file("/tmp/wm/a.png", "x");
    ts::write_file("/tmp/wm/*", "star");
    // rm gets "/tmp/wm/*" as one literal word: only the file named "*" goes.
    EXPECT_EQ(0, HTTP_SYSTEM_CMD("rm  -rf   /tmp/wm/*"));
    EXPECT_TRUE(ts::exists("/tmp/wm/a.png"));
    EXPECT_FALSE(ts::exists("/tmp/wm/*"));
    EXPECT_EQ(0, HTTP_SYSTEM_CMD("  touch /tmp/wm/$HOME  "));
    EXPECT_TRUE(ts::exists("/tmp/wm/$HOME"));
}

TEST_F(SystemCmd, EmptyEnvironmentIsGiven)
{
    ts::write_file("/tmp/envcheck", "");
    // env prints its environment: nothing.
    ts::Capture out(1);
    EXPECT_EQ(0, HTTP_SYSTEM_CMD("env"));
    EXPECT_EQ("", out.text());
}

TEST_F(SystemCmd, UnknownProgramPrintsTheFailLineFromTheChild)
{
    ts::Capture out(1);
    EXPECT_EQ(0, HTTP_SYSTEM_CMD("no-such-program-xyz --flag"));
    EXPECT_EQ("system cmd:<no-such-program-xyz --flag> fail!\n", out.text());
}

TEST_F(SystemCmd, RefusedForms)
{
    ts::Capture out(1), err(2);
    EXPECT_EQ(-1, HTTP_SYSTEM_CMD(nullptr));
    EXPECT_EQ(-1, HTTP_SYSTEM_CMD(""));
    EXPECT_EQ(-1, HTTP_SYSTEM_CMD("     "));
    EXPECT_EQ(-1, HTTP_SYSTEM_CMD(std::string(26, 'a').c_str()));
    EXPECT_EQ(-1, HTTP_SYSTEM_CMD(("touch /tmp/" + std::string(501, 'b')).c_str()));
    EXPECT_EQ("cmd NULL\n", out.text());
    std::string e = err.text();
    EXPECT_NE(std::string::npos, e.find("command without a word refused"));
    EXPECT_NE(std::string::npos, e.find("program name longer than 25 characters refused"));
    EXPECT_NE(std::string::npos, e.find("command of 512 characters or more refused"));
    // 511 characters are still run; the 25-character name is the longest allowed.
    std::string longest = "true " + std::string(506, 'c');
    ASSERT_EQ(511u, longest.size());
    EXPECT_EQ(0, HTTP_SYSTEM_CMD(longest.c_str()));
    EXPECT_EQ(0, HTTP_SYSTEM_CMD(std::string(25, 'a').c_str()));
}

} // namespace
