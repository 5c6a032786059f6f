// Logging, configuration file access, the command runner and the field-described JSON reader.
#include "common/cfgfile.h"
#include "common/log.h"
#include "common/owners.h"
#include "common/syscmd.h"
#include "json2c/json_fields.h"
#include "testsupport.h"

#include <atomic>
#include <csignal>
#include <gtest/gtest.h>
#include <filesystem>
#include <random>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>

namespace {

const std::string kDir = "/mnt/usr/config/app_parameters";
const std::string kRecord = kDir + "/record";

std::string leftovers()
{
    std::string names;
    ts::run({"/bin/ls", "-A", kDir}, &names);
    return names;
}

TEST(Log, LinesCarryTheirPrefixesOnTheirStreams)
{
    ts::Capture out(1), err(2);
    int line = __LINE__ + 1;
    HTTP_ERROR("Invalid URL\n");
    HTTP_DEBUG("actionName=%s\n", "login");
    HTTP_PRINT("http_port %d\r\n", 88);
    EXPECT_EQ("\033[1;31m<ERROR! tests/unit:" + std::to_string(line) + ", TestBody>: Invalid URL\n\033[0m", err.text());
    EXPECT_EQ("<DEBUG file tests/unit, line " + std::to_string(line + 1) + ">: actionName=login\nhttp_port 88\r\n",
              out.text());
}

// Lines longer than the formatter's stack buffer, from four threads at once.
TEST(Log, LongLinesOfSeveralThreadsAreWrittenWholeAndNeverInterleave)
{
    ts::Capture err(2);
    std::vector<std::thread> threads;
    for (char c : {'a', 'b', 'c', 'd'})
        threads.emplace_back([c] {
            for (int i = 0; i < 200; ++i)
                HTTP_ERROR("%s\n", std::string(3000, c).c_str());
        });
    for (auto &t : threads)
        t.join();
    std::string all = err.text();
    size_t lines = 0;
    for (size_t pos = 0; (pos = all.find("\033[1;31m<ERROR! ", pos)) != std::string::npos; ++lines) {
        pos = all.find(">: ", pos) + 3;
        ASSERT_EQ(std::string(3000, all[pos]) + "\n\033[0m", all.substr(pos, 3005));
    }
    EXPECT_EQ(800u, lines);
}

TEST(SystemCmd, RunsOneProgramWithoutShellOrEnvironmentAndReapsIt)
{
    ts::write_file("/tmp/standins.log", "");
    EXPECT_EQ(0, HTTP_SYSTEM_CMD("sync"));
    EXPECT_EQ(0u, ts::read_file("/tmp/standins.log").find("sync "));
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "a child was left to reap";
    ts::write_file("/tmp/wm/a.png", "x");
    ts::write_file("/tmp/wm/*", "star");
    EXPECT_EQ(0, HTTP_SYSTEM_CMD("rm  -rf   /tmp/wm/*"));  // rm gets the star as it stands
    EXPECT_TRUE(ts::exists("/tmp/wm/a.png"));
    EXPECT_FALSE(ts::exists("/tmp/wm/*"));

    ts::Capture out(1);
    EXPECT_EQ(0, HTTP_SYSTEM_CMD("env"));  // prints its environment: nothing
    EXPECT_EQ(0, HTTP_SYSTEM_CMD("no-such-program-xyz --flag"));
    EXPECT_EQ("system cmd:<no-such-program-xyz --flag> fail!\n", out.text());
}

TEST(SystemCmd, RefusesEmptyAndOverlongCommands)
{
    ts::Capture out(1), err(2);
    EXPECT_EQ(-1, HTTP_SYSTEM_CMD(nullptr));
    for (const std::string &cmd :
         {std::string(), std::string("     "), std::string(26, 'a'), "true " + std::string(507, 'b')})
        EXPECT_EQ(-1, HTTP_SYSTEM_CMD(cmd.c_str())) << cmd.size();
    EXPECT_EQ(0, HTTP_SYSTEM_CMD(("true " + std::string(506, 'c')).c_str()));  // 511 characters
    EXPECT_EQ(0, HTTP_SYSTEM_CMD(std::string(25, 'a').c_str()));               // no such program, but run
    EXPECT_EQ(0u, out.text().find("cmd NULL\n"));
}

class CfgFile : public ::testing::Test {
protected:
    void SetUp() override
    {
        ts::reset_device_tree();
        ts::make_dirs(kDir);
    }
};

// Exact sizes are proven through the account and language files; these are the odd places.
TEST_F(CfgFile, MissingArgumentsFoldersAndDirectoriesInPlaceOfFilesAreRefused)
{
    char buf[16];
    ts::make_dirs(kDir + "/dir");
    ts::Capture err(2);
    EXPECT_EQ(-2, http_get_cfgfile(nullptr, buf, 16));
    EXPECT_EQ(-2, http_set_cfgfile(kRecord.c_str(), nullptr, 16));
    EXPECT_EQ(-7, http_set_cfgfile("/mnt/no/such/dir/file", buf, 16));
    EXPECT_EQ(-7, http_set_jsoncfgfile("/mnt/none/x.json", "{}"));
    EXPECT_NE(0, http_get_cfgfile((kDir + "/dir").c_str(), buf, 16));
    EXPECT_EQ(-7, http_set_cfgfile((kDir + "/dir").c_str(), buf, 16));
    EXPECT_EQ("dir\n", leftovers());
}

// A replaced file takes the writer's mode, whatever the old file's was.
TEST_F(CfgFile, WritersReplaceWholeFilesWithTheModeOfTheUmask)
{
    const std::string text = kDir + "/text.json";
    ts::write_file(kRecord, std::string(4096, 'o'), 0600);
    for (mode_t mask : {022, 0}) {
        umask(mask);
        EXPECT_EQ(0, http_set_cfgfile(kRecord.c_str(), "abc", 3));
        EXPECT_EQ(0, http_set_jsoncfgfile(text.c_str(), ""));
        EXPECT_EQ(0664u & ~mask, static_cast<unsigned>(std::filesystem::status(kRecord).permissions()));
        EXPECT_EQ(0666u & ~mask, static_cast<unsigned>(std::filesystem::status(text).permissions()));
    }
    umask(022);
    EXPECT_EQ("abc", ts::read_file(kRecord));
    EXPECT_EQ("record\ntext.json\n", leftovers());
}

// A writer killed at any moment leaves the old record or the new one, whole.
TEST_F(CfgFile, KilledWriterNeverLeavesATornRecord)
{
    std::string a(2048, 'A'), b(2048, 'B');
    ASSERT_EQ(0, http_set_cfgfile(kRecord.c_str(), a.data(), 2048));
    std::mt19937 rng(7);
    for (int round = 0; round < 25; ++round) {
        pid_t child = fork();
        if (child == 0) {
            for (int i = 0; i < 500; ++i)
                http_set_cfgfile(kRecord.c_str(), (i % 2 ? a : b).data(), 2048);
            _exit(0);
        }
        usleep(std::uniform_int_distribution<int>(0, 20000)(rng));
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        char buf[2048];
        ASSERT_EQ(0, http_get_cfgfile(kRecord.c_str(), buf, sizeof buf)) << "round " << round;
        ASSERT_TRUE(std::string(buf, 2048) == a || std::string(buf, 2048) == b) << "torn record in round " << round;
    }
    ASSERT_EQ(0, http_set_cfgfile(kRecord.c_str(), a.data(), 2048));
    EXPECT_EQ("record\n", leftovers()) << "the next write clears a killed writer's leftover";
}

TEST_F(CfgFile, ConcurrentWritersLeaveOneOfTheirRecords)
{
    std::string a(2048, 'A'), b(2048, 'B');
    std::atomic<bool> stop{false};
    std::atomic<int> bad{0};
    auto writer = [&](const std::string &rec) {
        for (int i = 0; i < 300; ++i)
            bad += http_set_cfgfile(kRecord.c_str(), rec.data(), 2048) != 0;
    };
    std::thread reader([&] {
        char buf[2048];
        while (!stop)
            if (http_get_cfgfile(kRecord.c_str(), buf, sizeof buf) == 0)
                bad += std::string(buf, 2048) != a && std::string(buf, 2048) != b;
    });
    {
        ts::Capture err(2);  // the reader may find no file before the first rename
        std::thread t1(writer, a), t2(writer, b);
        t1.join();
        t2.join();
        stop = true;
        reader.join();
    }
    EXPECT_EQ(0, bad.load());
}

struct Parsed {
    int port = -7;
    char name[8] = "";
    char lang[16] = "";
    int sec = -7;
};

int parse(const char *text, Parsed *p, std::string *err)
{
    static const char *const kLanguages[] = {"chinese", "english", nullptr};
    const JsonField fields[] = {
        json_text_one_of("language", p->lang, sizeof p->lang, kLanguages, "Invalid params!\n"),
        json_int("Port", &p->port),
        json_text("name", p->name, sizeof p->name, false),
        json_int_in("tm_sec", &p->sec, 0, 59, "Invalid params ! <sec>\n"),
    };
    ts::Capture capture(2);
    CJsonPtr tree;
    int rc = json_parse_text(text, &tree, LOG_HERE);
    if (rc == 0)
        rc = json_read_fields(tree.get(), fields, LOG_HERE);
    *err = capture.text();
    return rc;
}

TEST(JsonFields, FirstFailingFieldNamesItselfWithItsTypeCodeInTheCallersName)
{
    const struct {
        const char *body;
        int rc;
        const char *line;
    } cases[] = {
        {"not json", -15, "json pack into cjson error...\n"},
        {R"({"Port":1})", -2, "language is empty or error value type : -1\n"},
        {R"({"Language":"chinese","Port":1})", -2, "language is empty or error value type : -1\n"},
        {R"({"language":"English","Port":"80"})", -2, "Invalid params!\n"},
        {R"({"language":"chinese","Port":"80"})", -2, "Port is empty or error value type : 16\n"},
        {R"({"language":"chinese","Port":false})", -2, "Port is empty or error value type : 1\n"},
        {R"({"language":"chinese","Port":1,"name":""})", -2, "name is empty or error value type : 16\n"},
        {R"({"language":"chinese","Port":1,"name":["x"]})", -2, "name is empty or error value type : 32\n"},
        {R"({"language":"chinese","Port":1,"name":"x","tm_sec":60})", -2, "Invalid params ! <sec>\n"},
        {R"({"language":"chinese","Port":1,"name":"x","tm_sec":{}})", -2, "tm_sec is empty or error value type : 64\n"},
    };
    for (const auto &c : cases) {
        Parsed p;
        std::string err;
        EXPECT_EQ(c.rc, parse(c.body, &p, &err)) << c.body;
        EXPECT_TRUE(ts::has_error(err, c.line, "parse")) << c.body << "\n" << err;
    }
}

} // namespace
