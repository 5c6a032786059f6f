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

ts::HandlerRun port_status(const std::string &body)
{
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

TEST_F(PortActions, GetCreatesAMissingOrEmptyFileWithPort80)
{
    for (bool empty : {false, true}) {
        if (empty)
            ts::write_file(WEB_PORT_FILE, "");
        int port = kUntouched;
        ts::HandlerRun get = get_port(&port);
        EXPECT_EQ(0, get.rc);
        EXPECT_EQ(80, port);
        EXPECT_EQ(ts::params_reply("Successfully to get params", "{\n\t\"Port\":\t80\n}"), get.reply);
        EXPECT_EQ("{\n\t\"Port\":\t80\n}", ts::read_file(WEB_PORT_FILE));
    }
}

TEST_F(PortActions, GetReturnsTheStoredObjectVerbatim)
{
    const std::string stored = "{ \"Port\" : 8080,\n  \"Owner\": \"installer\" }\n";
    ts::write_file(WEB_PORT_FILE, stored);
    int port = kUntouched;
    ts::HandlerRun get = get_port(&port);
    EXPECT_EQ(0, get.rc);
    EXPECT_EQ(8080, port);
    EXPECT_EQ(ts::params_reply("Successfully to get params", stored), get.reply);
}

TEST_F(PortActions, GetRefusesAFileWithoutANumericPort)
{
    for (const char *stored : {"Port=8080", R"({"port":8080})", R"({"Port":"8080"})"}) {
        ts::write_file(WEB_PORT_FILE, stored);
        int port = kUntouched;
        ts::HandlerRun get = get_port(&port);
        EXPECT_EQ(-1, get.rc) << stored;
        EXPECT_EQ(kUntouched, port);
        EXPECT_EQ(ts::fail_reply("Failed to get params"), get.reply);
        EXPECT_EQ(stored, ts::read_file(WEB_PORT_FILE));
    }
    // The default cannot be stored: the second read finds nothing.
    ts::remove_tree(kDir);
    int port = kUntouched;
    EXPECT_EQ(ts::fail_reply("Failed to get params"), get_port(&port).reply);
    EXPECT_EQ(kUntouched, port);
}

TEST_F(PortActions, SetReplacesTheFileAndHandsOverTheNewPort)
{
    ts::write_file(WEB_PORT_FILE, R"({"Port":80,"Owner":"installer"})");
    for (int wanted : {8081, 1, 65535}) {
        int port = 80;
        std::string body = "{\"Port\":" + std::to_string(wanted) + "}";
        ts::HandlerRun set = set_port(body.c_str(), &port);
        EXPECT_EQ(0, set.rc);
        EXPECT_EQ(wanted, port);
        EXPECT_EQ(ts::ok_reply("Successfully to set params"), set.reply);
        EXPECT_EQ("{\n\t\"Port\":\t" + std::to_string(wanted) + "\n}", ts::read_file(WEB_PORT_FILE));
    }
}

TEST_F(PortActions, SetRefusesPortsNoServerCanUseAndBadBodies)
{
    const std::string stored = "{\n\t\"Port\":\t80\n}";
    ts::write_file(WEB_PORT_FILE, stored);
    const char *const bodies[] = {R"({"Port":0})", R"({"Port":65536})", R"({"Port":-1})", R"({"Port":1e12})",
                                  R"({"Port":"8081"})", R"({"port":8081})", "{\"Port\":", nullptr};
    for (const char *body : bodies) {
        int port = 80;
        ts::HandlerRun set = set_port(body, &port);
        EXPECT_EQ(-1, set.rc) << (body ? body : "null");
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
    ASSERT_TRUE(listener);
    int fd = listener.get();
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    ASSERT_EQ(0, bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr));
    ASSERT_EQ(0, listen(fd, 1));
    ASSERT_EQ(0, getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len));
    int listening = ntohs(addr.sin_port);

    ts::HandlerRun busy = port_status("{\"Port\":" + std::to_string(listening) + "}");
    EXPECT_EQ(-1, busy.rc);
    EXPECT_EQ(ts::fail_reply("http port in use"), busy.reply);
    EXPECT_NE(std::string::npos, busy.err.find(ts::error_line("actionGetPortStatus", "http port in use\n")));

    std::string listed;
    ts::run({"/bin/sh", "-c", "netstat -tuln"}, &listed);
    int unlisted = 20000;
    while (listed.find(std::to_string(unlisted)) != std::string::npos)
        ++unlisted;
    ts::HandlerRun available = port_status("{\"Port\":" + std::to_string(unlisted) + "}");
    EXPECT_EQ(0, available.rc);
    EXPECT_EQ(ts::ok_reply("Port available"), available.reply);
    listener.reset();

    for (const char *body : {R"({"Port":0})", R"({"Port":65536})", R"({"Port":"80"})", "80"}) {
        ts::HandlerRun refused = port_status(body);
        EXPECT_EQ(-1, refused.rc) << body;
        EXPECT_EQ(ts::fail_reply("Failed to get params"), refused.reply);
    }
}

} // namespace
