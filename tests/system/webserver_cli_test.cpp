// The webserver binary's command line and start-up, seen from outside.
#include "server_support.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>

namespace {

const std::string kHelp =
    "---------------------------------------------\n"
    "./webserver \t\t\t:  using function  ==> eth0   80 \n"
    "./webserver 88\t\t\t:  using function  ==> eth0   88 (Custom port) \n"
    "./webserver 88\tlo\t\t:  using function  ==> lo\t  88  127.0.0.1  88(Custom port) \n"
    "---------------------------------------------\n";

class WebserverCli : public ::testing::Test {
protected:
    void SetUp() override { ts::lay_out_demo_tree(); }
};

TEST_F(WebserverCli, AnyWordStartingWithHPrintsTheHelpAndExits)
{
    for (const char *word : {"h", "help", "hello"}) {
        std::string out;
        int status = ts::run({ts::bin_path("webserver"), word}, &out, 5000);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << word;
        EXPECT_EQ(kHelp, out) << word;
    }
}

TEST_F(WebserverCli, ThreeArgumentsPrintBothValuesThenTheHelpAndExit)
{
    std::string out;
    int status = ts::run({ts::bin_path("webserver"), "88", "eth0", "x"}, &out, 5000);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ("http_port 88\r\ninterfaces_name eth0\r\n" + kHelp, out);
    // The interface name is cut to 7 characters, the port read as atoi reads it.
    ts::run({ts::bin_path("webserver"), "x1", "eth0-and-more", "x"}, &out, 5000);
    EXPECT_EQ("http_port 0\r\ninterfaces_name eth0-an\r\n" + kHelp, out);
}

TEST_F(WebserverCli, LoopbackServesOn127Only)
{
    ts::ServerProcess server({"88", "lo"});
    ASSERT_TRUE(server.wait_ready(88)) << server.log();
    EXPECT_FALSE(ts::port_accepts("192.0.2.10", 88));
    EXPECT_EQ(200, ts::http_get(ts::local_url(88, "/")).status);
    std::string log = server.log();
    EXPECT_NE(std::string::npos, log.find("http_port 88\r\ninterfaces_name lo\r\n"));
    EXPECT_NE(std::string::npos, log.find("Configuration for "));
    EXPECT_NE(std::string::npos, log.find("Documents:          /mnt/app/web_root\n"));
}

TEST_F(WebserverCli, UnknownInterfaceFallsBackToEth0AndItsAddress)
{
    int port = ts::free_port();
    ts::ServerProcess server({std::to_string(port), "wlan0"});
    ASSERT_TRUE(server.wait_ready(port, "192.0.2.10")) << server.log();
    EXPECT_TRUE(ts::port_accepts("127.0.0.1", port));  // "http://*:PORT" listens everywhere
    std::string log = server.log();
    EXPECT_NE(std::string::npos, log.find("invalid interface name:wlan0   edit default eth0 \n"));
    EXPECT_NE(std::string::npos, log.find("Host:               192.0.2.10\n"));
}

TEST_F(WebserverCli, MissingInterfaceReportsTheIoctlAndServesNothing)
{
    int port = ts::free_port();
    ts::ServerProcess server({std::to_string(port), "eth1"});
    ASSERT_TRUE(server.process().wait_for_log("Cannot ioctl SIOCGIFADDR errno 19", 5000)) << server.log();
    EXPECT_FALSE(ts::port_accepts("127.0.0.1", port));
    EXPECT_TRUE(server.process().running());  // the supervisor goes on
}

TEST_F(WebserverCli, PortInUseReportsCannotListen)
{
    int port = ts::free_port();
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    ASSERT_EQ(0, bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr));
    ASSERT_EQ(0, listen(fd, 1));
    ts::ServerProcess server({std::to_string(port), "eth0"});
    EXPECT_TRUE(server.process().wait_for_log("Cannot listen http://*:" + std::to_string(port), 5000))
        << server.log();
    close(fd);
}

TEST_F(WebserverCli, MissingRouteOrAuthenticationFileEndsTheServerThread)
{
    int port = ts::free_port();
    ts::remove_tree("/mnt/app/web_root/config/auth.txt");
    {
        ts::ServerProcess server({std::to_string(port), "lo"});
        EXPECT_TRUE(server.process().wait_for_log("Cannot load /mnt/app/web_root/config/auth.txt", 5000))
            << server.log();
    }
    ts::remove_tree("/mnt/app/web_root/config/route.txt");
    ts::ServerProcess server({std::to_string(port), "lo"});
    EXPECT_TRUE(server.process().wait_for_log("Cannot initialize server. Exiting.", 5000)) << server.log();
    EXPECT_FALSE(ts::port_accepts("127.0.0.1", port));
}

} // namespace
