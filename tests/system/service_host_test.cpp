// The service host: the webserver binary's command line and start-up seen from outside, and
// in-process the web server thread, the port supervisor and the language record.
#include "common/language_format.h"
#include "testsupport.h"
#include "webserver/service.h"

#include <cstring>
#include <gtest/gtest.h>
#include <sys/wait.h>

namespace {

const std::string kHelp = "---------------------------------------------\n"
                          "./webserver \t\t\t:  using function  ==> eth0   80 \n"
                          "./webserver 88\t\t\t:  using function  ==> eth0   88 (Custom port) \n"
                          "./webserver 88\tlo\t\t:  using function  ==> lo\t  88  127.0.0.1  88(Custom port) \n"
                          "---------------------------------------------\n";

class WebserverBinary : public ::testing::Test {
protected:
    void SetUp() override { ts::lay_out_demo_tree(); }

    // Runs the binary with these arguments: it must print this and end with status 0.
    static void expect_printed(const std::vector<std::string> &args, const std::string &printed)
    {
        std::vector<std::string> argv = {ts::bin_path("webserver")};
        argv.insert(argv.end(), args.begin(), args.end());
        std::string out;
        int status = ts::run(argv, &out, 5000);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << args[0];
        EXPECT_EQ(printed, out) << args[0];
    }
};

TEST_F(WebserverBinary, HelpWordsPrintTheHelp)
{
    for (const char *word : {"h", "help", "hello"})
        expect_printed({word}, kHelp);
}

// The interface name is cut to 7 characters, the port read as atoi reads it.
TEST_F(WebserverBinary, ThreeArgumentsPrintWhatWasReadThenTheHelp)
{
    expect_printed({"88", "eth0", "x"}, "http_port 88\r\ninterfaces_name eth0\r\n" + kHelp);
    expect_printed({"x1", "eth0-and-more", "x"}, "http_port 0\r\ninterfaces_name eth0-an\r\n" + kHelp);
}

TEST_F(WebserverBinary, LoListensOnTheLoopbackAlone)
{
    ts::Process server = ts::start_server({"88", "lo"});
    ASSERT_TRUE(ts::wait_for_port("127.0.0.1", 88, true)) << server.log();
    EXPECT_FALSE(ts::port_accepts("192.0.2.10", 88));
}

// "http://*:PORT" listens everywhere.
TEST_F(WebserverBinary, AnUnknownInterfaceNameListensEverywhere)
{
    int port = ts::free_port();
    ts::Process server = ts::start_server({std::to_string(port), "wlan0"});
    ASSERT_TRUE(ts::wait_for_port("192.0.2.10", port, true)) << server.log();
    EXPECT_TRUE(ts::port_accepts("127.0.0.1", port));
    EXPECT_NE(std::string::npos, server.log().find("invalid interface name:wlan0   edit default eth0 \n"));
}

TEST_F(WebserverBinary, APortInUseIsReported)
{
    int port = ts::free_port();
    ts::Process server = ts::start_server({std::to_string(port), "eth0"});
    ASSERT_TRUE(ts::wait_for_port("127.0.0.1", port, true)) << server.log();
    ts::Process second({ts::bin_path("webserver"), std::to_string(port), "eth0"}, "/tmp/second.log");
    EXPECT_TRUE(second.wait_for_log("Cannot listen http://*:" + std::to_string(port), 5000)) << second.log();
}

TEST_F(WebserverBinary, AnInterfaceWithoutAnAddressIsReportedWhileTheSupervisorGoesOn)
{
    int port = ts::free_port();
    ts::Process missing = ts::start_server({std::to_string(port), "eth1"});
    EXPECT_TRUE(missing.wait_for_log("Cannot ioctl SIOCGIFADDR errno 19", 5000)) << missing.log();
    EXPECT_FALSE(ts::port_accepts("127.0.0.1", port));
    EXPECT_TRUE(missing.running());
}

class ServiceHost : public ::testing::Test {
protected:
    void SetUp() override
    {
        signal(SIGPIPE, SIG_IGN);
        ts::lay_out_demo_tree();
        port = ts::free_port();
        params = {port, 443, "*", "lo"};
        HTTP_WEB_PORT = port;
    }
    void TearDown() override { web_service_stop(); }

    void start()
    {
        ASSERT_EQ(0, web_service_start(&params));
        ASSERT_TRUE(ts::wait_for_port("127.0.0.1", params.http_port, true));
    }

    int port = 0;
    WebParams params{};
};

TEST_F(ServiceHost, StopWithoutAServerDoesNothing)
{
    EXPECT_EQ(0, web_service_stop());
}

TEST_F(ServiceHost, AStartIsRefusedWhileAServerRuns)
{
    start();
    EXPECT_EQ(-14, web_service_start(&params));
    EXPECT_TRUE(ts::port_accepts("127.0.0.1", port));
}

// The move itself is proven through the binary (the web port test); here what it cannot reach.
TEST_F(ServiceHost, TheSupervisorLeavesTheServerAloneWhileThePortsAgree)
{
    start();
    supervise_once(&params);
    EXPECT_TRUE(ts::port_accepts("127.0.0.1", port));
    EXPECT_EQ(0, finished.load());
}

TEST_F(ServiceHost, TheSupervisorStopsTheServerOnAnUnusablePort)
{
    start();
    HTTP_WEB_PORT = 65536;
    supervise_once(&params);
    EXPECT_EQ(65536, params.http_port);
    EXPECT_EQ(1, finished.load());
    EXPECT_EQ(-1, listen_http_sid_ipv4.load());
    EXPECT_FALSE(ts::port_accepts("127.0.0.1", port));
}

TEST_F(ServiceHost, AnHttpsPortAbove65535IsRefused)
{
    WebParams bad = {port, -1, "*", "lo"};  // -1, taken as unsigned: far above 65535
    EXPECT_EQ(-2, web_service_start(&bad));
}

std::string language_record(const char *language, int mode, const char *index)
{
    LanguageFormat r{};
    memcpy(r.language, language, strlen(language));
    r.mode = mode;
    memcpy(r.index_page, index, strlen(index));
    return std::string(reinterpret_cast<char *>(&r), sizeof r);
}

TEST_F(ServiceHost, AMissingOrWronglySizedLanguageFileIsRecreated)
{
    for (int size : {-1, 259, 261}) {
        ts::remove_tree(WEB_LANGUAGE_FILE);
        if (size >= 0)
            ts::write_file(WEB_LANGUAGE_FILE, std::string(static_cast<size_t>(size), 'x'), 0640);
        start();
        ASSERT_EQ(0, web_service_stop());
        EXPECT_EQ(language_record("chinese", 0, "login.html"), ts::read_file(WEB_LANGUAGE_FILE)) << size;
    }
}

TEST_F(ServiceHost, AValidLanguageFileIsKept)
{
    ts::write_file(WEB_LANGUAGE_FILE, language_record("english", -7, "other.html"));
    start();
    EXPECT_EQ(ts::read_file("/mnt/app/web_root/login.html"), ts::http({.url = ts::local_url(port, "/")}).body);
    EXPECT_EQ(language_record("english", -7, "other.html"), ts::read_file(WEB_LANGUAGE_FILE));
}

TEST_F(ServiceHost, UnwritableLanguageFileGivesUpAfterBoundedTries)
{
    ts::remove_tree(WEB_LANGUAGE_FILE);
    ts::make_dirs(WEB_LANGUAGE_FILE);  // a directory in its place: neither readable nor writable
    ts::Capture out(1);
    long long begin = ts::now_ms();
    start();
    EXPECT_LT(ts::now_ms() - begin, 4000);
    EXPECT_NE(std::string::npos, out.text().find("going on with the default language in memory"));
    EXPECT_EQ(200, ts::http({.url = ts::local_url(port, "/")}).status);
}

} // namespace
