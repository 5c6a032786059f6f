#include "common/cfgfile.h"
#include "common/owners.h"
#include "testsupport.h"

#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

const std::string kDir = "/mnt/usr/config/app_parameters";
const std::string kRecord = kDir + "/record";

class CfgFile : public ::testing::Test {
protected:
    void SetUp() override
    {
        ts::reset_device_tree();
        ts::make_dirs(kDir);
    }
};

std::string leftovers(const std::string &dir)
{
    std::string names;
    ts::run({"/bin/ls", "-A", dir}, &names);
    return names;
}

TEST_F(CfgFile, RecordIsReadOnlyAtItsExactSize)
{
    char buf[2048];
    for (long size : {2047L, 2049L, 0L}) {
        ts::write_file(kRecord, std::string(static_cast<size_t>(size), 'x'));
        ts::Capture err(2);
        EXPECT_EQ(-1, http_get_cfgfile(kRecord.c_str(), buf, sizeof buf)) << size;
        EXPECT_NE(std::string::npos, err.text().find(kRecord + " (" + std::to_string(size) + " != 2048)\n"));
    }
    ts::write_file(kRecord, std::string(2048, 'r'));
    EXPECT_EQ(0, http_get_cfgfile(kRecord.c_str(), buf, sizeof buf));
    EXPECT_EQ(std::string(2048, 'r'), std::string(buf, sizeof buf));
}

TEST_F(CfgFile, MissingArgumentsAndFilesAreRefusedWithTheirCodes)
{
    char buf[16];
    ts::Capture err(2);
    EXPECT_EQ(-2, http_get_cfgfile(kRecord.c_str(), buf, 0));
    EXPECT_EQ(-2, http_get_cfgfile(nullptr, buf, 16));
    EXPECT_EQ(-2, http_set_cfgfile(kRecord.c_str(), buf, 0));
    EXPECT_EQ(-2, http_set_cfgfile(kRecord.c_str(), nullptr, 16));
    EXPECT_EQ(-1, http_get_cfgfile((kDir + "/missing").c_str(), buf, 16));
    EXPECT_EQ(-7, http_set_cfgfile("/mnt/no/such/dir/file", buf, 16));
    std::string text = err.text();
    EXPECT_NE(std::string::npos, text.find("size[0] invailed\n"));
    EXPECT_NE(std::string::npos, text.find("stat file:" + kDir + "/missing error=2(No such file or directory)\n"));
    EXPECT_NE(std::string::npos, text.find(" open/creat file[/mnt/no/such/dir/file] failed! errno=2("));
    EXPECT_NE(std::string::npos, text.find("\033[1;31m<ERROR! apps/app_web/src/common:"));
}

TEST_F(CfgFile, DirectoryInPlaceOfARecordIsNotRead)
{
    ts::make_dirs(kRecord);
    char buf[40];
    ts::Capture err(2);
    EXPECT_NE(0, http_get_cfgfile(kRecord.c_str(), buf, sizeof buf));
    EXPECT_EQ(-7, http_set_cfgfile(kRecord.c_str(), buf, sizeof buf));
    EXPECT_EQ("record\n", leftovers(kDir));
}

TEST_F(CfgFile, WritersReplaceWholeFilesWithTheirModes)
{
    umask(0022);
    ts::write_file(kRecord, std::string(4096, 'o'), 0600);
    EXPECT_EQ(0, http_set_cfgfile(kRecord.c_str(), "abc", 3));
    EXPECT_EQ("abc", ts::read_file(kRecord));
    struct stat st;
    ASSERT_EQ(0, stat(kRecord.c_str(), &st));
    EXPECT_EQ(0644u, st.st_mode & 0777);

    std::string text = kDir + "/text.json";
    EXPECT_EQ(0, http_set_jsoncfgfile(text.c_str(), "{\"Port\": 80}"));
    ASSERT_EQ(0, stat(text.c_str(), &st));
    EXPECT_EQ(0644u, st.st_mode & 0777);
    umask(0);
    EXPECT_EQ(0, http_set_jsoncfgfile(text.c_str(), ""));
    ASSERT_EQ(0, stat(text.c_str(), &st));
    EXPECT_EQ(0666u, st.st_mode & 0777);
    EXPECT_EQ(0, st.st_size);
    EXPECT_EQ(0, http_set_cfgfile(kRecord.c_str(), "xyz", 3));
    ASSERT_EQ(0, stat(kRecord.c_str(), &st));
    EXPECT_EQ(0664u, st.st_mode & 0777);
    umask(0022);
    EXPECT_EQ("record\ntext.json\n", leftovers(kDir));
}

TEST_F(CfgFile, TextReadersReturnContentOrNothing)
{
    std::string text = kDir + "/cap.json";
    int len = -5;
    EXPECT_EQ(nullptr, http_get_datafile(text.c_str(), &len));
    EXPECT_EQ(0, len);

    ts::write_file(text, "");
    {
        ts::Capture err(2);
        len = -5;
        EXPECT_EQ(nullptr, http_get_datafile(text.c_str(), &len));
        EXPECT_EQ(0, len);
        EXPECT_EQ("", err.text());
    }
    HeapText empty(http_get_jsoncfgfile(text.c_str()));
    ASSERT_NE(nullptr, empty);
    EXPECT_STREQ("", empty.get());

    ts::write_file(text, "{\n\t\"a\":\t1\n}");
    HeapText data(http_get_datafile(text.c_str(), &len));
    ASSERT_NE(nullptr, data);
    EXPECT_STREQ("{\n\t\"a\":\t1\n}", data.get());
    EXPECT_EQ(11, len);
    HeapText again(http_get_jsoncfgfile(text.c_str()));
    EXPECT_STREQ(data.get(), again.get());
    EXPECT_EQ(nullptr, http_get_jsoncfgfile((kDir + "/none").c_str()));
    ts::Capture err(2);
    EXPECT_EQ(nullptr, http_get_datafile(nullptr, &len));
    EXPECT_NE(std::string::npos, err.text().find("get_data_length["));
}

TEST_F(CfgFile, JsonWriterIntoMissingDirectoryFails)
{
    ts::Capture err(2);
    EXPECT_EQ(-7, http_set_jsoncfgfile("/mnt/none/x.json", "{}"));
    EXPECT_NE(std::string::npos, err.text().find("fopen: No such file or directory"));
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
            for (int i = 0; i < 500; ++i) {
                const std::string &rec = (i % 2) ? a : b;
                http_set_cfgfile(kRecord.c_str(), rec.data(), 2048);
            }
            _exit(0);
        }
        usleep(std::uniform_int_distribution<int>(0, 20000)(rng));
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        char buf[2048];
        ASSERT_EQ(0, http_get_cfgfile(kRecord.c_str(), buf, sizeof buf)) << "round " << round;
        std::string got(buf, sizeof buf);
        ASSERT_TRUE(got == a || got == b) << "torn record in round " << round;
    }
    // The next write clears a leftover of a killed writer.
    ASSERT_EQ(0, http_set_cfgfile(kRecord.c_str(), a.data(), 2048));
    EXPECT_EQ(std::string::npos, leftovers(kDir).find(".new"));
}

TEST_F(CfgFile, ConcurrentWritersLeaveOneOfTheirRecords)
{
    std::string a(2048, 'A'), b(2048, 'B');
    std::atomic<bool> stop{false};
    std::atomic<int> bad{0};
    auto writer = [&](const std::string &rec) {
        for (int i = 0; i < 300; ++i)
            if (http_set_cfgfile(kRecord.c_str(), rec.data(), 2048) != 0)
                ++bad;
    };
    std::thread reader([&] {
        char buf[2048];
        while (!stop) {
            if (http_get_cfgfile(kRecord.c_str(), buf, sizeof buf) == 0) {
                std::string got(buf, sizeof buf);
                if (got != a && got != b)
                    ++bad;
            }
        }
    });
    {
        ts::Capture err(2);
        std::thread t1(writer, a), t2(writer, b);
        t1.join();
        t2.join();
        stop = true;
        reader.join();
    }
    EXPECT_EQ(0, bad.load());
    std::string got = ts::read_file(kRecord);
    EXPECT_TRUE(got == a || got == b);
}

} // namespace
