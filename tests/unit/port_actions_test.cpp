#include "actions/port_actions.h"
#include "common/owners.h"
#include "settings_support.h"
#include "testsupport.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace {

const std::string kDir = "/mnt/usr/config/app_parameters";
constexpr int kUntouched = -99;

ts::HandlerRun get_port(int *port)
{
    return ts::call_handler([&](char **out) { return actionGetPortParam(nullptr, out, port); });
}

ts::HandlerRun set_port(const char *body, int *port)
{
    return ts::call_handler([&](char **out) { return actionSetPortParam(body, out, port); });
}

ts::HandlerRun port_status(int port)
{
    std::string body = "{\"Port\":" + std::to_string(port) + "}";
    return ts::call_handler([&](char **out) { return actionGetPortStatus(body.c_str(), out); });
}

class PortActions : public ::testing::Test {
protected:
    void SetUp() override
    {
        ts::reset_device_tree();
        ts::make_dirs(kDir);
    }
};

TEST_F(PortActions, GetCreatesAMissingFileAndReturnsAStoredObjectVerbatim)
{
    const std::string fresh = "{\n\t\"Port\":\t80\n}", other = "{ \"Port\" : 8080,\n  \"Owner\": \"x\" }\n";
    const struct {
        const char *stored;  // nullptr: no file
        int port;            // kUntouched: refused
        std::string after;
    } cases[] = {
        {nullptr, 80, fresh},
        {"", 80, fresh},
        {other.c_str(), 8080, other},
        {"Port=8080", kUntouched, "Port=8080"},
        {R"({"Port":"8080"})", kUntouched, R"({"Port":"8080"})"},
    };
    for (const auto &c : cases) {
        if (c.stored)
            ts::write_file(WEB_PORT_FILE, c.stored);
        int port = kUntouched;
        ts::HandlerRun get = get_port(&port);
        EXPECT_EQ(c.port, port) << c.after;
        EXPECT_EQ(c.port == kUntouched ? -1 : 0, get.rc);
        EXPECT_EQ(c.port == kUntouched ? ts::fail_reply("Failed to get params")
                                       : ts::params_reply("Successfully to get params", c.after),
                  get.reply);
        EXPECT_EQ(c.after, ts::read_file(WEB_PORT_FILE));
    }
    ts::remove_tree(kDir);  // the default cannot be stored, so the second read finds nothing
    int port = kUntouched;
    EXPECT_EQ(ts::fail_reply("Failed to get params"), get_port(&port).reply);
    EXPECT_EQ(kUntouched, port);
}

TEST_F(PortActions, SetReplacesTheFileAndHandsOverOnlyAUsablePort)
{
    ts::write_file(WEB_PORT_FILE, R"({"Port":80,"Owner":"installer"})");
    for (int wanted : {8081, 1, 65535}) {
        int port = 80;
        std::string body = "{\"Port\":" + std::to_string(wanted) + "}";
        EXPECT_EQ(ts::ok_reply("Successfully to set params"), set_port(body.c_str(), &port).reply);
        EXPECT_EQ(wanted, port);
        EXPECT_EQ("{\n\t\"Port\":\t" + std::to_string(wanted) + "\n}", ts::read_file(WEB_PORT_FILE));
    }
    const std::string stored = ts::read_file(WEB_PORT_FILE);
    for (const char *body : {R"({"Port":0})", R"({"Port":65536})", R"({"Port":-1})", R"({"Port":1e12})",
                             R"({"Port":"8081"})"}) {
        int port = 80;
        ts::HandlerRun set = set_port(body, &port);
        EXPECT_EQ(-1, set.rc) << body;
        EXPECT_EQ(80, port);
        EXPECT_EQ(ts::fail_reply("Failed to set params"), set.reply);
        EXPECT_EQ(stored, ts::read_file(WEB_PORT_FILE));
    }
    ts::remove_tree(kDir);
    int port = 80;
    ts::HandlerRun unwritable = set_port(R"({"Port":8081})", &port);
    EXPECT_EQ(ts::fail_reply("Failed to set params"), unwritable.reply);
    EXPECT_NE(std::string::npos, unwritable.err.find(ts::error_line("actionSetPortParam", "Set http port Fail!\n")));
    EXPECT_EQ(80, port);
}

TEST_F(PortActions, StatusTellsAListeningPortFromOneNetstatDoesNotList)
{
    UniqueFd listener(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    ASSERT_EQ(0, bind(listener.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr));
    ASSERT_EQ(0, listen(listener.get(), 1));
    ASSERT_EQ(0, getsockname(listener.get(), reinterpret_cast<sockaddr *>(&addr), &len));
    ts::HandlerRun busy = port_status(ntohs(addr.sin_port));
    EXPECT_EQ(-1, busy.rc);
    EXPECT_EQ(ts::fail_reply("http port in use"), busy.reply);

    std::string listed;
    ts::run({"/bin/sh", "-c", "netstat -tuln"}, &listed);
    int unlisted = 20000;
    while (listed.find(std::to_string(unlisted)) != std::string::npos)
        ++unlisted;
    ts::HandlerRun available = port_status(unlisted);
    EXPECT_EQ(0, available.rc);
    EXPECT_EQ(ts::ok_reply("Port available"), available.reply);

    for (int refused : {0, 65536})
        EXPECT_EQ(ts::fail_reply("Failed to get params"), port_status(refused).reply);
}

} // namespace
