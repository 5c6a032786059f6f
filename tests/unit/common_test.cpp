// Logging, configuration file access and the command runner. The field-described JSON reader
// is proven through the parsers that use it (language, clock, accounts, login).
#include "common/cfgfile.h"
#include "common/log.h"
#include "common/memory.h"
#include "common/syscmd.h"
#include "testsupport.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <gtest/gtest.h>
#include <random>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>

namespace {

const std::string kDir = "/mnt/usr/config/app_parameters";
const std::string kRecord = kDir + "/record";

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
TEST(Log, LongLinesOfSeveralThreadsNeverInterleave)
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

TEST(SystemCmd, RunsTheProgramOfTheFirstWord)
{
    ts::write_file("/tmp/standins.log", "");
    EXPECT_EQ(0, HTTP_SYSTEM_CMD("sync -f /tmp"));
    std::string log = ts::read_file("/tmp/standins.log");  // "NAME TIME PATH ARGS"
    EXPECT_TRUE(log.starts_with("sync ") && log.ends_with(" /bin/sync -f /tmp\n")) << log;
}

TEST(SystemCmd, LeavesNoChildToReap)
{
    EXPECT_EQ(0, HTTP_SYSTEM_CMD("true"));
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
}

TEST(SystemCmd, NoShellInterpretsTheWords)
{
    ts::write_file("/tmp/wm/a.png", "x");
    ts::write_file("/tmp/wm/*", "star");
    EXPECT_EQ(0, HTTP_SYSTEM_CMD("rm  -rf   /tmp/wm/*"));  // rm gets the star as it stands
    EXPECT_TRUE(ts::exists("/tmp/wm/a.png"));
    EXPECT_FALSE(ts::exists("/tmp/wm/*"));
}

TEST(SystemCmd, TheProgramGetsAnEmptyEnvironment)
{
    ts::Capture out(1);
    EXPECT_EQ(0, HTTP_SYSTEM_CMD("env"));  // prints its environment
    EXPECT_EQ("", out.text());
}

TEST(SystemCmd, AMissingProgramIsReportedOnStandardOutput)
{
    ts::Capture out(1);
    EXPECT_EQ(0, HTTP_SYSTEM_CMD("no-such-program-xyz --flag"));
    EXPECT_EQ("system cmd:<no-such-program-xyz --flag> fail!\n", out.text());
}

TEST(SystemCmd, RefusesACommandWithoutAWord)
{
    ts::Capture out(1), err(2);
    EXPECT_EQ(-1, HTTP_SYSTEM_CMD(nullptr));
    EXPECT_EQ(-1, HTTP_SYSTEM_CMD(""));
    EXPECT_EQ(-1, HTTP_SYSTEM_CMD("     "));
    EXPECT_EQ(0u, out.text().find("cmd NULL\n"));
}

TEST(SystemCmd, RefusesCommandsOrProgramNamesBeyondTheirLimits)
{
    ts::Capture out(1), err(2);
    EXPECT_EQ(-1, HTTP_SYSTEM_CMD(std::string(26, 'a').c_str()));
    EXPECT_EQ(-1, HTTP_SYSTEM_CMD(("true " + std::string(507, 'b')).c_str()));
    EXPECT_EQ(0, HTTP_SYSTEM_CMD(("true " + std::string(506, 'c')).c_str()));  // 511 characters
    EXPECT_EQ(0, HTTP_SYSTEM_CMD(std::string(25, 'a').c_str()));               // no such program, but run
}

class CfgFile : public ::testing::Test {
protected:
    void SetUp() override
    {
        ts::reset_device_tree();
        ts::make_dirs(kDir);
    }
};

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
    std::string names;  // the next write clears a killed writer's leftover
    ts::run({"/bin/ls", "-A", kDir}, &names);
    EXPECT_EQ("record\n", names);
}

mode_t mode_of(const std::string &path)
{
    struct stat st {};
    stat(path.c_str(), &st);
    return st.st_mode & 07777;
}

// Sets the process umask for its lifetime.
struct Umask {
    explicit Umask(mode_t mask) : saved(umask(mask)) {}
    ~Umask() { umask(saved); }
    mode_t saved;
};

TEST_F(CfgFile, NewFilesGetTheirOwnModeUnderTheUmask)
{
    const std::string text = kDir + "/text.json";
    Umask open(0);
    ASSERT_EQ(0, http_set_cfgfile(kRecord.c_str(), "r", 1));
    ASSERT_EQ(0, http_set_jsoncfgfile(text.c_str(), "{}"));
    EXPECT_EQ(0664u, mode_of(kRecord));
    EXPECT_EQ(0666u, mode_of(text));
    umask(077);
    ts::remove_tree(kRecord);
    ts::remove_tree(text);
    ASSERT_EQ(0, http_set_cfgfile(kRecord.c_str(), "r", 1));
    ASSERT_EQ(0, http_set_jsoncfgfile(text.c_str(), "{}"));
    EXPECT_EQ(0600u, mode_of(kRecord));
    EXPECT_EQ(0600u, mode_of(text));
}

// A rename puts a new inode in place: the writers must carry the old file's mode over, or
// the account digests become readable by everyone.
TEST_F(CfgFile, RewrittenFilesKeepTheirMode)
{
    const std::string text = kDir + "/text.json";
    Umask strict(077);  // the umask shapes new files only
    ASSERT_EQ(0, http_set_cfgfile(kRecord.c_str(), "r", 1));
    ASSERT_EQ(0, http_set_jsoncfgfile(text.c_str(), "{}"));
    for (mode_t mode : {0600u, 0640u, 0444u, 0707u}) {
        chmod(kRecord.c_str(), mode);
        chmod(text.c_str(), mode);
        ASSERT_EQ(0, http_set_cfgfile(kRecord.c_str(), "rr", 2));
        ASSERT_EQ(0, http_set_jsoncfgfile(text.c_str(), "{ }"));
        EXPECT_EQ(mode, mode_of(kRecord));
        EXPECT_EQ(mode, mode_of(text));
        EXPECT_EQ("rr", ts::read_file(kRecord));
    }
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

// The text reader hands over the bytes as they stand: it neither parses nor limits them.
TEST_F(CfgFile, JsonTextIsReadAsItStands)
{
    const std::string text = kDir + "/text.json";
    for (const std::string &stored : {std::string("{\n\t\"Port\":\t80\n}"), std::string("not {json"), std::string(),
                                      std::string(1 << 20, 'j') + "\n"}) {
        ts::write_file(text, stored);
        HeapText got(http_get_jsoncfgfile(text.c_str()));
        ASSERT_TRUE(got) << stored.size() << " bytes";
        EXPECT_EQ(stored, got.get());
    }
}

TEST_F(CfgFile, JsonTextOfAMissingFileIsNone)
{
    EXPECT_EQ(nullptr, HeapText(http_get_jsoncfgfile((kDir + "/missing.json").c_str())).get());
    EXPECT_EQ(nullptr, HeapText(http_get_jsoncfgfile(nullptr)).get());
}

} // namespace

namespace {

long resident_kib()
{
    std::string status = ts::read_file("/proc/self/status");
    return std::stol(status.substr(status.find("VmRSS:") + 6));
}

}  // namespace

TEST(Memory, FreedBlocksBelowALiveOneGoBackToTheSystem)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer's allocator is not the C library's";
#endif
    if (ts::skipped_under_emulation("the test's resident memory", "the emulator's own memory would count"))
        GTEST_SKIP();
    // 16 MiB in small blocks, all freed but the last: the heap's top stays in use, so only
    // a trim of the free pages below it can give them back.
    std::vector<void *> blocks(16 * 1024);
    for (void *&b : blocks) {
        b = malloc(1000);
        ASSERT_NE(nullptr, b);
        memset(b, 1, 1000);
    }
    for (size_t i = 0; i + 1 < blocks.size(); ++i)
        free(blocks[i]);
    long before = resident_kib();
    release_free_memory();
    long after = resident_kib();
    free(blocks.back());
    EXPECT_LT(after, before - 8 * 1024) << "before " << before << " KiB, after " << after << " KiB";
}
