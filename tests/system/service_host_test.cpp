// The service host in-process: the start and stop of the web server thread, the port
// supervisor, and the language record that start-up reads and recreates.
#include "actions/language_format.h"
#include "server_support.h"
#include "webserver/service.h"

#include <cstring>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

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

    // Starts the server and waits until it serves.
    void start()
    {
        ASSERT_EQ(0, web_service_start(&params));
        ASSERT_TRUE(ts::wait_for_port("127.0.0.1", params.http_port, true, 5000));
    }

    static LanguageFormat read_record()
    {
        LanguageFormat record;
        memset(&record, 0xff, sizeof record);
        std::string bytes = ts::read_file(WEB_LANGUAGE_FILE);
        memcpy(&record, bytes.data(), std::min(bytes.size(), sizeof record));
        return record;
    }

    int port = 0;
    WebParams params{};
};

TEST_F(ServiceHost, StartWhileRunningIsRefusedAndStopWithoutServerDoesNothing)
{
    EXPECT_EQ(0, web_service_stop());
    start();
    EXPECT_EQ(-14, web_service_start(&params));
    EXPECT_EQ(0, web_service_stop());
    EXPECT_EQ(1, finished.load());
    EXPECT_EQ(-1, listen_http_sid_ipv4.load());
    EXPECT_FALSE(ts::port_accepts("127.0.0.1", port));

    WebParams bad = params;
    bad.https_port = -1;  // taken as unsigned: far above 65535
    EXPECT_EQ(-2, web_service_start(&bad));
}

TEST(PortArgument, IsReadTheWayAtoiReadsIt)
{
    const std::pair<const char *, int> cases[] = {
        {"88", 88}, {"  88x", 88}, {"+7", 7}, {"-5", -5}, {"abc", 0}, {"", 0},
        {"99999999999", 2147483647}, {"-99999999999", -2147483647 - 1},
    };
    for (auto &[text, port] : cases)
        EXPECT_EQ(port, http_port_from_text(text)) << text;
}

TEST_F(ServiceHost, SupervisorMovesTheServerToTheNewPort)
{
    start();
    int next = ts::free_port();
    HTTP_WEB_PORT = next;
    long long begin = ts::now_ms();
    ts::Capture out(1);
    supervise_once(&params);
    EXPECT_TRUE(ts::wait_for_port("127.0.0.1", next, true, 3000));
    EXPECT_LT(ts::now_ms() - begin, 4000);
    EXPECT_FALSE(ts::port_accepts("127.0.0.1", port));
    EXPECT_EQ(next, params.http_port);
    EXPECT_EQ(0, out.text().rfind("HTTP_WEB_PORT=" + std::to_string(next) +
                                  " web_params.http_port=" + std::to_string(port) + "\r\n", 0));

    // Nothing changes while the ports agree.
    supervise_once(&params);
    EXPECT_TRUE(ts::port_accepts("127.0.0.1", next));
}

TEST_F(ServiceHost, PortOutOfRangeStopsTheServerAndStartsNone)
{
    start();
    HTTP_WEB_PORT = 65536;
    supervise_once(&params);
    EXPECT_EQ(65536, params.http_port);
    EXPECT_EQ(1, finished.load());
    EXPECT_FALSE(ts::port_accepts("127.0.0.1", port));
}

TEST_F(ServiceHost, MissingOrWronglySizedLanguageFileIsRecreated)
{
    for (int size : {-1, 259, 261}) {
        ts::remove_tree(WEB_LANGUAGE_FILE);
        if (size >= 0)
            ts::write_file(WEB_LANGUAGE_FILE, std::string(static_cast<size_t>(size), 'x'), 0640);
        start();
        ASSERT_EQ(0, web_service_stop());
        ASSERT_EQ(260, ts::file_size(WEB_LANGUAGE_FILE)) << size;
        LanguageFormat record = read_record();
        EXPECT_STREQ("chinese", record.language);
        EXPECT_EQ(0, record.mode);
        EXPECT_STREQ("login.html", record.index_page);
        EXPECT_EQ(std::string(128 - 8, '\0'), std::string(record.language + 8, 120));  // zero behind the text
    }
}

TEST_F(ServiceHost, ValidLanguageFileIsLeftAsItIsAndTheIndexIsStillTheLoginPage)
{
    LanguageFormat record{};
    strcpy(record.language, "english");
    record.mode = -7;
    strcpy(record.index_page, "other.html");
    ts::write_file(WEB_LANGUAGE_FILE, std::string(reinterpret_cast<char *>(&record), sizeof record));
    start();
    EXPECT_EQ(ts::read_file("/mnt/app/web_root/login.html"), ts::http_get(ts::local_url(port, "/")).body);
    LanguageFormat stored = read_record();
    EXPECT_STREQ("english", stored.language);
    EXPECT_EQ(-7, stored.mode);
    EXPECT_STREQ("other.html", stored.index_page);
}

TEST_F(ServiceHost, UnwritableLanguageFileGivesUpAfterBoundedTries)
{
    ts::remove_tree(WEB_LANGUAGE_FILE);
    ts::make_dirs(WEB_LANGUAGE_FILE);  // a directory in its place: neither readable nor writable
    ts::Capture out(1);
    long long begin = ts::now_ms();
    start();
    EXPECT_LT(ts::now_ms() - begin, 4000);
    std::string log = out.text();
    EXPECT_NE(std::string::npos, log.find("ERROR :GET WEB_LANGUAGE_FILE failed!\n"));
    EXPECT_NE(std::string::npos, log.find("WEB_LANGUAGE_FILE failed!\n"));
    EXPECT_NE(std::string::npos, log.find("going on with the default language in memory"));
    EXPECT_EQ(200, ts::http_get(ts::local_url(port, "/")).status);
}

} // namespace
