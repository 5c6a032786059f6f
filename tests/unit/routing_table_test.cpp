#include "bridge_support.h"
#include "webserver/routing_table.h"

#include <cstring>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

auto &table = http_protocol_command;

bool table_is_empty()
{
    static const http_protocol_receiver kZero[HTTP_PROTOCOL_MAX] = {};
    return memcmp(table, kZero, sizeof kZero) == 0;
}

// Loads text; what the reader wrote on stderr goes to *err.
int load(const std::string &text, std::string *err = nullptr)
{
    ts::Capture out(1), capture(2);
    int rc = bs::load_routes(text);
    if (err)
        *err = capture.text();
    return rc;
}

std::string repeat(int count, const std::string &before, const std::string &after)
{
    std::string text;
    for (int i = 0; i < count; ++i)
        text += before + std::to_string(i) + after + "\n";
    return text;
}

TEST(RoutingTable, EmptyCommentOnlyOrMissingFileLeavesTheTableEmpty)
{
    for (const char *text : {"", "# a b c\n#x y ipc://z\n", "ab\n\n\nx\n"}) {
        EXPECT_EQ(0, load(text)) << text;
        EXPECT_TRUE(table_is_empty()) << text;
    }
    ASSERT_EQ(0, load("Get app ipc:///tmp/a.ipc\n"));
    unlink(HTTP_COMMAND_FILE);
    ts::Capture err(2);
    EXPECT_EQ(-7, http_read_config_command());
    EXPECT_NE(std::string::npos, err.text().find(std::string(">:  open file[") + HTTP_COMMAND_FILE + "] failed!\n"));
    EXPECT_TRUE(table_is_empty());
}

TEST(RoutingTable, SpacingCrLfCommentsAndExtraWordsReadLikeTheCanonicalFile)
{
    std::string err;
    ASSERT_EQ(0, load("Get app_a ipc:///tmp/a.ipc\nSet app_a ipc:///tmp/a.ipc\nCap device_cap /c.json\n", &err));
    EXPECT_STREQ("Set", table[0].command[1]);
    EXPECT_STREQ("", table[0].cap_path[1]);
    EXPECT_STREQ("/c.json", table[1].cap_path[0]);
    EXPECT_STREQ("", table[1].ipc_url);
    EXPECT_NE(std::string::npos, err.find(", http_read_config_command>: ###start  Set app_a ipc:///tmp/a.ipc \n"));
    EXPECT_NE(std::string::npos, err.find(", http_read_config_command>: ###end  Cap \n"));
    http_protocol_receiver expected[HTTP_PROTOCOL_MAX];
    memcpy(expected, table, sizeof expected);
    for (const char *variant : {"Get   app_a  ipc:///tmp/a.ipc\n   Set app_a ipc:///tmp/a.ipc   \nCap device_cap /c.json",
                                "Get app_a ipc:///tmp/a.ipc\r\nSet app_a ipc:///tmp/a.ipc\r\nCap device_cap /c.json\r\n",
                                "Get app_a ipc:///tmp/a.ipc four\n#Get app_b x\nSet app_a ipc:///tmp/a.ipc\n\nCap device_cap /c.json"}) {
        EXPECT_EQ(0, load(variant)) << variant;
        EXPECT_EQ(0, memcmp(expected, table, sizeof expected)) << variant;
    }
    // Only spaces separate words, and "#" makes a comment only in the first column.
    ASSERT_EQ(0, load("Get\tStatus app_a ipc:///tmp/a.ipc\n #Set app_a\n"));
    EXPECT_STREQ("Get\tStatus", table[0].command[0]);
    EXPECT_STREQ("#Set", table[0].command[1]);
}

TEST(RoutingTable, BlocksABAGiveThreeEntriesAndTheLastAddressWins)
{
    ASSERT_EQ(0, load("One app_a ipc:///tmp/a1.ipc\nTwo app_a ipc:///tmp/a2.ipc\n"
                      "Three app_b ipc:///tmp/b.ipc\nFour app_a ipc:///tmp/a3.ipc\n"));
    EXPECT_STREQ("ipc:///tmp/a2.ipc", table[0].ipc_url);
    EXPECT_STREQ("app_b", table[1].receiver_name);
    EXPECT_STREQ("Four", table[2].command[0]);
    EXPECT_STREQ("ipc:///tmp/a3.ipc", table[2].ipc_url);
}

TEST(RoutingTable, SixteenReceiversAndSixtyFourCommandsFitOneMoreRefusesTheFile)
{
    std::string err;
    EXPECT_EQ(0, load(repeat(16, "Cmd app_", " ipc:///tmp/x.ipc")));
    EXPECT_STREQ("app_15", table[15].receiver_name);
    EXPECT_EQ(-1, load(repeat(17, "Cmd app_", " ipc:///tmp/x.ipc"), &err));
    EXPECT_NE(std::string::npos, err.find(">: max protocol num 16 \n"));
    EXPECT_TRUE(table_is_empty()) << "a refused file leaves no half table behind";
    EXPECT_EQ(0, load(repeat(64, "Cmd", " app /c")));
    EXPECT_STREQ("/c", table[0].cap_path[63]);
    EXPECT_EQ(-1, load(repeat(65, "Cmd", " app /c"), &err));
    EXPECT_NE(std::string::npos, err.find(">: max protocol num 64 \n"));
}

TEST(RoutingTable, OverlongLinesAndWordsRefuseTheFileNamingTheLine)
{
    const std::string ok = "Get app ipc:///tmp/a.ipc\n";
    struct Case {
        std::string line;
        int rc;
    } cases[] = {
        {std::string(63, 'c') + " app ipc:///x", 0},  {std::string(64, 'c') + " app ipc:///x", -1},
        {"Get " + std::string(31, 'r') + " /c", 0},   {"Get " + std::string(32, 'r') + " /c", -1},
        {"Get app /" + std::string(126, 'p'), 0},     {"Get app /" + std::string(127, 'p'), -1},
        {"Get app ipc://" + std::string(241, 'u'), 0}, {"Get app ipc://" + std::string(242, 'u'), -1},
    };
    for (const Case &c : cases) {
        std::string err;
        EXPECT_EQ(c.rc, load(ok + c.line + "\n" + ok, &err)) << c.line.size();
        if (c.rc != 0) {
            EXPECT_NE(std::string::npos, err.find(std::string(HTTP_COMMAND_FILE) + " line 2")) << err;
            EXPECT_TRUE(table_is_empty());
        }
    }
}

} // namespace
