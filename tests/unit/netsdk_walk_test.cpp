#include "netsdk_link/netsdk_link.h"
#include "storage_support.h"
#include "testsupport.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const std::string kSd = std::string(st::kRoot) + "/";

struct Walk {
    std::vector<st::Dir> chain;
    std::string out, err;
};

Walk walk(const char *record = "")
{
    NetsdkLinkPtr head(NETSDK_CREATE_LINK());
    Walk w;
    ts::Capture out(1), err(2);
    NETSDK_LINK_SERCH_DIR(kSd.c_str(), head.get(), record);
    w.err = err.text();
    w.out = out.text();
    w.chain = st::chain_of(head.get());
    return w;
}

std::vector<std::string> names_of(const st::Dir &d)
{
    std::vector<std::string> names;
    for (const st::File &f : d.files)
        names.push_back(f.name);
    return names;
}

bool has_error(const std::string &err, const char *func, const std::string &message)
{
    return err.find(std::string(", ") + func + ">: " + message + "\033[0m") != std::string::npos;
}

TEST(NetsdkWalk, RootFilesStayOutAndRootFoldersStandInReverseListingOrder)
{
    st::fresh_card();
    st::make_file(kSd + "root.mp4");
    EXPECT_TRUE(walk().chain.empty());

    for (const char *d : {"first", "second", "third"})
        ts::make_dirs(kSd + d);
    std::vector<std::string> expected = st::listing_order(st::kRoot);
    expected.erase(std::remove_if(expected.begin(), expected.end(),
                                  [](const std::string &n) { return n.find('.') != std::string::npos; }),
                   expected.end());
    std::reverse(expected.begin(), expected.end());

    Walk w = walk();
    std::vector<std::string> chain;
    for (const st::Dir &d : w.chain) {
        chain.push_back(d.name);
        EXPECT_EQ(0, d.last_index);
        EXPECT_TRUE(d.files.empty());
    }
    EXPECT_EQ(expected, chain);
    EXPECT_NE(std::string::npos, w.out.find("path:/mnt/app/web_root/sd//second\n"));
}

TEST(NetsdkWalk, FolderFilesKeepListingOrderSizeAndChangeTimeWithoutTheListFile)
{
    st::fresh_card();
    st::make_file(kSd + "day/a.mp4", 1);
    st::make_file(kSd + "day/recodefilelist.txt", 7);
    st::make_file(kSd + "day/b.mp4", 5368709120ULL);
    st::make_file(kSd + "day/c.jpg", 333);

    Walk w = walk();
    ASSERT_EQ(1u, w.chain.size());
    const st::Dir &day = w.chain[0];
    EXPECT_EQ(2, day.last_index);
    std::vector<std::string> expected = st::listing_order(kSd + "day");
    expected.erase(std::find(expected.begin(), expected.end(), "recodefilelist.txt"));
    EXPECT_EQ(expected, names_of(day));
    for (const st::File &f : day.files) {
        struct stat s;
        ASSERT_EQ(0, stat((kSd + "day/" + f.name).c_str(), &s));
        char hms[16];
        strftime(hms, sizeof hms, "%H:%M:%S", localtime(&s.st_ctime));
        EXPECT_EQ(static_cast<uint64_t>(s.st_size), f.size) << f.name;
        EXPECT_EQ(hms, f.time) << f.name;
    }
    // Skipped in the root and in the folder, each after its trace.
    std::string trace = ">: storage dir file :recodefilelist.txt\n";
    size_t first = w.out.find(trace);
    ASSERT_NE(std::string::npos, first);
    EXPECT_NE(std::string::npos, w.out.find(trace, first + 1));
    EXPECT_EQ(0u, w.out.find("<DEBUG file apps/app_web/src/netsdk_link, line "));
}

TEST(NetsdkWalk, DeeperFoldersAreWalkedAndPrintedButLeftOutDownToSixteenLevels)
{
    st::fresh_card();
    st::make_file(kSd + "day/sub/deep.mp4");
    ts::make_dirs(kSd + "day/sub/subsub");
    Walk w = walk();
    ASSERT_EQ(1u, w.chain.size());
    EXPECT_TRUE(w.chain[0].files.empty());
    EXPECT_NE(std::string::npos, w.out.find("path:/mnt/app/web_root/sd//day/sub/subsub\n"
                                            "path:/mnt/app/web_root/sd//day/sub\n"
                                            "path:/mnt/app/web_root/sd//day\n"));

    st::fresh_card();
    std::string path = kSd;
    for (int level = 1; level <= 18; ++level)
        path += "d" + std::to_string(level) + "/";
    ts::make_dirs(path);
    w = walk();
    std::string sixteen = kSd + "/d1", seventeen;
    for (int level = 2; level <= 17; ++level)
        (level <= 16 ? sixteen : seventeen = sixteen) += "/d" + std::to_string(level);
    EXPECT_NE(std::string::npos, w.out.find("path:" + sixteen + "\n"));
    EXPECT_EQ(std::string::npos, w.out.find("path:" + seventeen));
    EXPECT_TRUE(has_error(w.err, "walk_subdir", "dir too deep, not walked:" + seventeen + "\n")) << w.err;
}

TEST(NetsdkWalk, AFolderKeepsItsFirst1024FilesAndIsReadNoFurther)
{
    // The subfolder must come after the 1024th file in the listing; which creation order
    // gives that depends on the file system.
    std::vector<std::string> order;
    size_t files_before_late = 0;
    for (bool folder_first : {true, false}) {
        st::fresh_card();
        if (folder_first)
            st::make_file(kSd + "big/late/x.mp4");
        for (int i = 0; i < 1500; ++i)
            st::make_file(kSd + "big/f" + std::to_string(i));
        if (!folder_first)
            st::make_file(kSd + "big/late/x.mp4");
        order = st::listing_order(kSd + "big");
        files_before_late = std::find(order.begin(), order.end(), "late") - order.begin();
        if (files_before_late >= 1024)
            break;
    }
    ASSERT_GE(files_before_late, 1024u) << "no creation order puts the folder late";

    Walk w = walk();
    ASSERT_EQ(1u, w.chain.size());
    EXPECT_EQ(1023, w.chain[0].last_index);
    EXPECT_EQ(std::vector<std::string>(order.begin(), order.begin() + 1024), names_of(w.chain[0]));
    EXPECT_EQ(std::string::npos, w.out.find("late"));
}

TEST(NetsdkWalk, NamesAreCutTo63AndPathsTooLongForTheirTextAreSkipped)
{
    st::fresh_card();
    std::string seventy(70, 'n');
    st::make_file(kSd + "short/" + seventy);
    st::make_file(kSd + seventy + "/" + std::string(40, 'x'));  // 133 characters of path
    st::make_file(kSd + seventy + "/" + std::string(30, 'y'));  // 123: fits

    Walk w = walk();
    ASSERT_EQ(2u, w.chain.size());
    for (const st::Dir &d : w.chain) {
        if (d.name == "short") {
            EXPECT_EQ(std::vector<std::string>{std::string(63, 'n')}, names_of(d));
            continue;
        }
        EXPECT_EQ(std::string(63, 'n'), d.name);
        EXPECT_EQ(1, d.last_index);  // the skipped file keeps its index
        std::vector<std::string> names = names_of(d);
        EXPECT_EQ(1, std::count(names.begin(), names.end(), std::string(30, 'y')));
        EXPECT_EQ(1, std::count(names.begin(), names.end(), ""));
    }
    EXPECT_TRUE(has_error(w.err, "add_file",
                          "file path too long, skipped:" + kSd + "/" + seventy + "/" + std::string(40, 'x') + "\n"))
        << w.err;
}

TEST(NetsdkWalk, AFileWhoseStatFailsTakesAnIndexButHoldsNoFile)
{
    st::fresh_card();
    st::make_file(kSd + "day/kept.mp4");
    ASSERT_EQ(0, symlink("/mnt/nowhere", (kSd + "day/gone.mp4").c_str()));
    Walk w = walk();
    ASSERT_EQ(1u, w.chain.size());
    EXPECT_EQ(1, w.chain[0].last_index);
    std::vector<std::string> names = names_of(w.chain[0]);
    EXPECT_EQ(1, std::count(names.begin(), names.end(), "kept.mp4"));
    EXPECT_EQ(1, std::count(names.begin(), names.end(), ""));
    EXPECT_TRUE(has_error(w.err, "NETSDK_GET_FILE_stat", "get file stat:" + kSd + "/day/gone.mp4\n")) << w.err;
}

TEST(NetsdkWalk, FileStatMarksRecordingFilesAndRefusesBadPaths)
{
    st::fresh_card();
    st::make_file(kSd + "day/now.mp4", 10);
    const std::string path = kSd + "/day/now.mp4";
    struct Case {
        const char *record;
        bool marked;
    } cases[] = {{"old.mp4 now.mp4 next.mp4", true}, {"now.mp", false}, {"", false}, {nullptr, false}};
    for (const Case &c : cases) {
        NETSDK_FILE_INFO e{};
        ASSERT_EQ(0, NETSDK_GET_FILE_stat(path.c_str(), &e, c.record));
        EXPECT_STREQ("now.mp4", e.name);
        EXPECT_EQ(c.marked ? 21u : 8u, strlen(e.time)) << e.time;
        EXPECT_EQ(c.marked, strstr(e.time, " recording...") == e.time + 8) << e.time;
    }

    NETSDK_FILE_INFO untouched{77, "t", "n"};
    ts::Capture err(2);
    EXPECT_EQ(-1, NETSDK_GET_FILE_stat((kSd + "/day/none.mp4").c_str(), &untouched, ""));
    EXPECT_EQ(-1, NETSDK_GET_FILE_stat(nullptr, &untouched, ""));
    EXPECT_EQ(77u, untouched.size);
    EXPECT_STREQ("n", untouched.name);
    char cwd[4096];
    ASSERT_TRUE(getcwd(cwd, sizeof cwd));
    ASSERT_EQ(0, chdir((kSd + "day").c_str()));
    NETSDK_FILE_INFO bare{};
    EXPECT_EQ(0, NETSDK_GET_FILE_stat("now.mp4", &bare, ""));
    ASSERT_EQ(0, chdir(cwd));
    EXPECT_STREQ("now.mp4", bare.name);
    EXPECT_EQ(10u, bare.size);
    std::string lines = err.text();
    EXPECT_TRUE(has_error(lines, "NETSDK_GET_FILE_stat", "get file stat:" + kSd + "/day/none.mp4\n")) << lines;
    EXPECT_TRUE(has_error(lines, "NETSDK_GET_FILE_stat", "Invalid parameter path:(null)\n")) << lines;
    EXPECT_TRUE(has_error(lines, "NETSDK_GET_FILE_stat", "parse file name fail:now.mp4\n")) << lines;
}

} // namespace
