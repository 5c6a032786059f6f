#include "netsdk_link/netsdk_link.h"
#include "storage_support.h"
#include "testsupport.h"

#include <algorithm>
#include <ctime>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

const std::string kSd = std::string(st::kRoot) + "/";

struct Walk {
    std::vector<st::Dir> chain;
    std::string out, err;
};

Walk walk(const char *record = "")
{
    NetsdkLinkPtr head(NETSDK_CREATE_LINK());
    ts::Capture out(1), err(2);
    NETSDK_LINK_SERCH_DIR(kSd.c_str(), head.get(), record);
    return {st::chain_of(head.get()), out.text(), err.text()};
}

std::vector<std::string> names_of(const st::Dir &d)
{
    std::vector<std::string> names;
    for (const st::File &f : d.files)
        names.push_back(f.name);
    return names;
}

TEST(NetsdkWalk, RootFoldersStandInReverseListingOrderWithoutDeeperFilesDownToSixteenLevels)
{
    st::fresh_card();
    st::make_file(kSd + "root.mp4");
    EXPECT_TRUE(walk().chain.empty());
    std::string level16 = kSd + "/second";
    for (int level = 2; level <= 16; ++level)
        level16 += "/d" + std::to_string(level);
    st::make_file(level16 + "/deep.mp4");
    ts::make_dirs(level16 + "/d17/d18");
    for (const char *d : {"first", "third"})
        ts::make_dirs(kSd + d);
    std::vector<std::string> expected = st::listing_order(st::kRoot), chain;
    std::erase_if(expected, [](const std::string &n) { return n.find('.') != std::string::npos; });
    std::reverse(expected.begin(), expected.end());

    Walk w = walk();
    for (const st::Dir &d : w.chain) {
        chain.push_back(d.name);
        EXPECT_EQ(0, d.last_index);
        EXPECT_TRUE(d.files.empty());
    }
    EXPECT_EQ(expected, chain);
    EXPECT_NE(std::string::npos, w.out.find("path:" + level16 + "\n"));
    EXPECT_NE(std::string::npos, w.out.find("path:/mnt/app/web_root/sd//second/d2\npath:/mnt/app/web_root/sd//second\n"));
    EXPECT_EQ(std::string::npos, w.out.find("/d17"));
    EXPECT_TRUE(st::has_error(w.err, "walk_subdir", "dir too deep, not walked:" + level16 + "/d17\n")) << w.err;
}

TEST(NetsdkWalk, FolderHoldsEachFileInListingOrderWithFailedOnesEmptyAndRecordingsMarked)
{
    st::fresh_card();
    const std::string seventy(70, 'n');
    st::make_file(kSd + "day/a.mp4", 1);
    st::make_file(kSd + "day/recodefilelist.txt", 7);
    st::make_file(kSd + "day/b.mp4", 5368709120ULL);
    st::make_file(kSd + "day/" + seventy);
    ASSERT_EQ(0, symlink("/mnt/nowhere", (kSd + "day/gone.mp4").c_str()));
    st::make_file(kSd + seventy + "/" + std::string(40, 'x'));  // a path of 133 characters

    Walk w = walk("a.mp4 b.mp");
    ASSERT_EQ(2u, w.chain.size());
    const st::Dir &day = w.chain[0].name == "day" ? w.chain[0] : w.chain[1];
    const st::Dir &other = w.chain[0].name == "day" ? w.chain[1] : w.chain[0];
    std::vector<std::string> expected = st::listing_order(kSd + "day");
    std::erase(expected, "recodefilelist.txt");
    std::replace(expected.begin(), expected.end(), std::string("gone.mp4"), std::string());
    std::replace(expected.begin(), expected.end(), seventy, std::string(63, 'n'));
    EXPECT_EQ(expected, names_of(day));
    EXPECT_EQ(3, day.last_index);
    for (const st::File &f : day.files) {
        struct stat s;
        if (f.name.empty() || stat((kSd + "day/" + f.name).c_str(), &s) != 0)
            continue;
        char hms[16];
        strftime(hms, sizeof hms, "%H:%M:%S", localtime(&s.st_ctime));
        EXPECT_EQ(static_cast<uint64_t>(s.st_size), f.size) << f.name;
        EXPECT_EQ(f.name == "a.mp4" ? hms + std::string(" recording...") : hms, f.time) << f.name;
    }
    EXPECT_EQ(std::string(63, 'n'), other.name);
    EXPECT_EQ(std::vector<std::string>{""}, names_of(other));

    EXPECT_TRUE(st::has_error(w.err, "NETSDK_GET_FILE_stat", "get file stat:" + kSd + "/day/gone.mp4\n")) << w.err;
    EXPECT_TRUE(st::has_error(w.err, "add_file",
                              "file path too long, skipped:" + kSd + "/" + seventy + "/" + std::string(40, 'x') + "\n"));
    const std::string trace = ">: storage dir file :recodefilelist.txt\n";  // in the root and in day
    EXPECT_NE(w.out.find(trace), w.out.rfind(trace));
    EXPECT_NE(std::string::npos, w.out.find("<DEBUG file apps/app_web/src/netsdk_link, line "));
}

TEST(NetsdkWalk, AFolderKeepsItsFirst1024FilesAndIsReadNoFurther)
{
    // The subfolder must come after the 1024th file; which creation order gives that
    // depends on the file system.
    std::vector<std::string> order;
    for (bool folder_first : {true, false}) {
        st::fresh_card();
        if (folder_first)
            st::make_file(kSd + "big/late/x.mp4");
        for (int i = 0; i < 1500; ++i)
            st::make_file(kSd + "big/f" + std::to_string(i));
        if (!folder_first)
            st::make_file(kSd + "big/late/x.mp4");
        order = st::listing_order(kSd + "big");
        if (std::find(order.begin(), order.end(), "late") - order.begin() >= 1024)
            break;
    }
    ASSERT_GE(std::find(order.begin(), order.end(), "late") - order.begin(), 1024);
    Walk w = walk();
    ASSERT_EQ(1u, w.chain.size());
    EXPECT_EQ(1023, w.chain[0].last_index);
    EXPECT_EQ(std::vector<std::string>(order.begin(), order.begin() + 1024), names_of(w.chain[0]));
    EXPECT_EQ(std::string::npos, w.out.find("late"));
}

} // namespace
