// The recording walk, listing and deletion in-process, on real trees under the storage root.
#include "common/owners.h"
#include "netsdk_link/netsdk_link.h"
#include "network/storage.h"
#include "testsupport.h"

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <gtest/gtest.h>
#include <random>
#include <set>
#include <sys/mount.h>
#include <sys/stat.h>

namespace {

const std::string kSd = "/mnt/app/web_root/sd/";
const std::string kDone = ts::ok("Successfully to set params"), kNotDeleted = ts::fail("set delect storage fil fail");

void fresh_card()
{
    ts::reset_device_tree();
    ts::make_file(kSd + "recodefilelist.txt", 0);
}

// Entry names of dir in the order the directory listing delivers them.
std::vector<std::string> listing_order(const std::string &dir)
{
    std::vector<std::string> names;
    for (const auto &e : std::filesystem::directory_iterator(dir))
        names.push_back(e.path().filename());
    return names;
}

struct Dir {
    std::string name;
    int last_index;
    std::vector<std::string> names, times;  // of every entry, empty ones included
};

struct Walk {
    std::vector<Dir> chain;
    std::string out, err;
};

Walk walk(const char *recording = "")
{
    NetsdkLinkPtr head(NETSDK_CREATE_LINK());
    Walk w;
    {
        ts::Capture out(1), err(2);
        NETSDK_LINK_SERCH_DIR(kSd.c_str(), head.get(), recording);
        w.out = out.text();
        w.err = err.text();
    }
    for (const NETSDK_LINK_NODE *node = head->next; node; node = node->next) {
        w.chain.push_back({node->dir_name, node->last_index, {}, {}});
        node->files.for_each([&](const NetsdkFileView &f) {
            w.chain.back().names.emplace_back(f.name);
            w.chain.back().times.emplace_back(f.time);
        });
    }
    return w;
}

ts::Outcome remove(const std::string &body) { return ts::call(actionSetStorageDelectFile, body.c_str()); }

TEST(RecordingWalk, RootFoldersStandInReverseListingOrderWithoutDeeperFilesDownToSixteenLevels)
{
    fresh_card();
    ts::make_file(kSd + "root.mp4", 0);
    EXPECT_TRUE(walk().chain.empty());
    std::string level16 = kSd + "/second";
    for (int level = 2; level <= 16; ++level)
        level16 += "/d" + std::to_string(level);
    ts::make_file(level16 + "/deep.mp4", 0);
    ts::make_dirs(level16 + "/d17/d18");
    ts::make_dirs(kSd + "first");
    ts::make_dirs(kSd + "third");
    std::vector<std::string> expected = listing_order(kSd), chain;
    std::erase_if(expected, [](const std::string &n) { return n.find('.') != std::string::npos; });
    std::reverse(expected.begin(), expected.end());
    Walk w = walk();
    for (const Dir &d : w.chain) {
        chain.push_back(d.name);
        EXPECT_TRUE(d.names.empty());
    }
    EXPECT_EQ(expected, chain);
    EXPECT_NE(std::string::npos, w.out.find("path:" + level16 + "\n"));
    EXPECT_EQ(std::string::npos, w.out.find("/d17"));
    EXPECT_TRUE(ts::has_error(w.err, "dir too deep, not walked:" + level16 + "/d17\n")) << w.err;
}

// A folder "day" of files (a recording in progress among them, one entry without a file, one
// long name) and a folder with a long name whose one file's path is too long, walked once.
class WalkOfTwoFolders : public ::testing::Test {
protected:
    void SetUp() override
    {
        fresh_card();
        ts::make_file(kSd + "day/a.mp4", 1);
        ts::make_file(kSd + "day/recodefilelist.txt", 7);
        ts::make_file(kSd + "day/b.mp4", 5368709120ULL);
        ts::make_file(kSd + "day/" + kSeventy, 0);
        ASSERT_EQ(0, symlink("/mnt/nowhere", (kSd + "day/gone.mp4").c_str()));
        ts::make_file(kSd + kSeventy + "/" + std::string(40, 'x'), 0);  // a path of 133 characters
        w = walk("a.mp4 b.mp");
        ASSERT_EQ(2u, w.chain.size());
        day = w.chain[0].name == "day" ? w.chain[0] : w.chain[1];
        other = w.chain[0].name == "day" ? w.chain[1] : w.chain[0];
        listed = listing_order(kSd + "day");
        std::erase(listed, "recodefilelist.txt");
    }

    // The entry of day for this file.
    size_t entry(const std::string &name) const
    {
        return static_cast<size_t>(std::find(listed.begin(), listed.end(), name) - listed.begin());
    }

    const std::string kSeventy = std::string(70, 'n');
    Walk w;
    Dir day, other;
    std::vector<std::string> listed;  // day's files in listing order, the list file left out
};

TEST_F(WalkOfTwoFolders, AFolderHoldsAnEntryForEachFileInListingOrder)
{
    ASSERT_EQ(listed.size(), day.names.size());
    EXPECT_EQ(static_cast<int>(listed.size()) - 1, day.last_index);
    for (const char *name : {"a.mp4", "b.mp4"})
        EXPECT_EQ(name, day.names[entry(name)]);
}

TEST_F(WalkOfTwoFolders, AnEntryWithoutAFileStaysEmpty)
{
    EXPECT_EQ("", day.names.at(entry("gone.mp4")));
    EXPECT_EQ("", day.times.at(entry("gone.mp4")));
}

TEST_F(WalkOfTwoFolders, NamesAreCutTo63Characters)
{
    EXPECT_EQ(std::string(63, 'n'), day.names.at(entry(kSeventy)));
    EXPECT_EQ(std::string(63, 'n'), other.name);
}

TEST_F(WalkOfTwoFolders, AFileWhosePathIsTooLongStaysEmpty)
{
    EXPECT_EQ(std::vector<std::string>{""}, other.names);
}

TEST_F(WalkOfTwoFolders, OnlyTheRecordingInProgressIsMarked)
{
    struct stat s;
    ASSERT_EQ(0, stat((kSd + "day/a.mp4").c_str(), &s));
    char hms[16];
    strftime(hms, sizeof hms, "%H:%M:%S", localtime(&s.st_ctime));
    EXPECT_EQ(hms + std::string(" recording..."), day.times.at(entry("a.mp4")));
    EXPECT_EQ(hms, day.times.at(entry("b.mp4")));  // "b.mp" names no file
}

TEST(RecordingWalk, AFolderIsReadNoFurtherThanItsFirst1024Files)
{
    // On tmpfs (the test's /mnt) a folder lists its entries newest first: the subfolder made
    // first comes after the 1024th file.
    fresh_card();
    ts::make_file(kSd + "big/late/x.mp4", 0);
    for (int i = 0; i < 1500; ++i)
        ts::make_file(kSd + "big/f" + std::to_string(i), 0);
    std::vector<std::string> order = listing_order(kSd + "big");
    ASSERT_GE(std::find(order.begin(), order.end(), "late") - order.begin(), 1024);
    Walk w = walk();
    ASSERT_EQ(1u, w.chain.size());
    EXPECT_EQ(1023, w.chain[0].last_index);
    EXPECT_EQ(std::vector<std::string>(order.begin(), order.begin() + 1024), w.chain[0].names);
    EXPECT_EQ(std::string::npos, w.out.find("late"));
}

TEST(RecordingListing, AnEmptyCardListsNothing)
{
    fresh_card();
    EXPECT_EQ(ts::params("Successfully to get params", "[]"), ts::call(actiongetVideoDirectory, nullptr).reply);
}

// Odd names, sizes beyond 32 and 53 bits, and a large card.
TEST(RecordingListing, ReplyIsTheFormattedPrintOfTheCardWhateverItHolds)
{
    fresh_card();
    std::string controls, high;
    for (int c = 1; c < 256; ++c)
        (c < 32 ? controls : high) += static_cast<char>(c == '/' ? '_' : c);
    for (uint64_t size : {0ULL, 2147483647ULL, 2147483648ULL, 5368709120ULL, (1ULL << 53) + 1, 1ULL << 62})
        ts::make_file(kSd + "sizes/s" + std::to_string(size), size);
    for (const std::string &name : {controls, high.substr(0, 63), high.substr(63, 63), high.substr(126),
                                    std::string("日本語の録画 ñ €.mp4"), std::string("quote\"back\\slash")})
        ts::make_file(kSd + "o/" + name, 42);
    ts::make_file(kSd + "odd \"dir\"\t\\" + controls + "/a.mp4", 0);
    ASSERT_EQ(0, symlink("/mnt/nowhere", (kSd + "o/gone.mp4").c_str()));  // an entry without a file
    ts::make_dirs(kSd + "empty");
    std::mt19937 random(8);
    std::set<std::string> random_names;
    for (int f = 0; f < 8 * 1024; ++f) {  // a large card of random names and sizes
        std::string name = "r" + std::string(random() % 63, 'a');
        std::generate(name.begin() + 1, name.end(), [&] { return static_cast<char>(1 + random() % 255); });
        std::replace(name.begin(), name.end(), '/', '_');
        ts::make_file(kSd + *random_names.insert("day" + std::to_string(f / 1024) + "/" + name).first, random());
    }
    // The listing is what cJSON prints for the tree it holds: escapes, numbers and layout.
    std::string reply = ts::call(actiongetVideoDirectory, nullptr).reply;
    CJsonPtr tree(cJSON_Parse(reply.c_str()));
    HeapText again(cJSON_Print(cJSON_GetObjectItem(tree.get(), "Parameters")));
    EXPECT_TRUE(again && reply == ts::params("Successfully to get params", again.get()));
    EXPECT_EQ(random_names.size() + 13, ts::occurrences(reply, "\"name\":\t\""));
    EXPECT_NE(std::string::npos, reply.find("\"size\":\t5368709120,"));
}

TEST(RecordingListing, BothActionsRefuseACardThatIsNotMounted)
{
    for (bool read_only : {false, true}) {
        fresh_card();
        if (read_only) {
            ASSERT_EQ(0, mount("tmpfs", kSd.c_str(), "tmpfs", 0, nullptr));
        }
        ts::make_file(kSd + "recodefilelist.txt", 0);
        ts::make_file(kSd + "day/a.mp4", 0);
        if (read_only) {
            ASSERT_EQ(0, mount(nullptr, kSd.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr));
        } else {
            ts::remove_tree(kSd + "recodefilelist.txt");
        }
        ts::Outcome list = ts::call(actiongetVideoDirectory, nullptr), del = remove(R"({"mode":0,"file":["day"]})");
        EXPECT_EQ(std::pair(-1, -1), std::pair(list.rc, del.rc)) << read_only;
        EXPECT_EQ(ts::fail("storage device not mount"), list.reply) << read_only;
        EXPECT_EQ(ts::fail("storage device not mount"), del.reply) << read_only;
        EXPECT_TRUE(ts::exists(kSd + "day/a.mp4")) << read_only;
    }
    EXPECT_EQ(0, umount(kSd.c_str()));
}

TEST(RecordingDeletion, FilesGoUpToTheFirstNameThatIsNoText)
{
    fresh_card();
    for (const char *f : {"day/a.mp4", "day/b.mp4"})
        ts::make_file(kSd + f, 0);
    EXPECT_EQ("remove file succeed!  len:1", remove(R"({"mode":1,"file":["day/a.mp4",7,"day/b.mp4"]})").out);
    EXPECT_FALSE(ts::exists(kSd + "day/a.mp4"));
    EXPECT_TRUE(ts::exists(kSd + "day/b.mp4"));
}

TEST(RecordingDeletion, MissingFilesAndFoldersArePassedOver)
{
    fresh_card();
    ts::make_file(kSd + "day/c.mp4", 0);
    ts::make_file(kSd + "c.mp4", 0);
    EXPECT_EQ(kDone, remove(R"({"mode":1,"file":["nothing.mp4","c.mp4","day"]})").reply);
    EXPECT_FALSE(ts::exists(kSd + "c.mp4"));
    EXPECT_TRUE(ts::exists(kSd + "day/c.mp4"));
    EXPECT_EQ(kDone, remove(R"({"mode":1,"file":[]})").reply);
}

TEST(RecordingDeletion, UnusableBodiesDeleteNothing)
{
    fresh_card();
    ts::make_file(kSd + "day/b.mp4", 0);
    const std::pair<const char *, std::string> refused[] = {
        {R"({"mode":2,"file":["day/b.mp4"]})", kNotDeleted},
        {R"({"mode":-1,"file":["day/b.mp4"]})", kNotDeleted},
        {R"({"mode":false,"file":["day/b.mp4"]})", ts::fail("Invalid input params")},
        {R"({"mode":1,"file":"day/b.mp4"})", ts::fail("Invalid input params")},
        {"mode=1", ts::fail("Invalid input params")},
    };
    for (const auto &[body, reply] : refused)
        EXPECT_EQ(reply, remove(body).reply) << body;
    EXPECT_TRUE(ts::exists(kSd + "day/b.mp4"));
}

TEST(RecordingDeletion, OnlyTheFirst1024NamesAreRead)
{
    fresh_card();
    std::string body = R"({"mode":1,"file":[)";
    for (int i = 0; i < 1100; ++i) {
        ts::make_file(kSd + "f" + std::to_string(i), 0);
        body += (i ? ",\"f" : "\"f") + std::to_string(i) + "\"";
    }
    EXPECT_EQ(kDone, remove(body + "]}").reply);
    EXPECT_FALSE(ts::exists(kSd + "f1023"));
    EXPECT_TRUE(ts::exists(kSd + "f1024"));
}

TEST(RecordingDeletion, FoldersGoOneByOneUntilOneCannotBeRemoved)
{
    fresh_card();
    for (int i = 0; i < 1200; ++i)
        ts::make_file(kSd + "full/f" + std::to_string(i), 0);
    ts::make_file(kSd + "nested/top.mp4", 0);
    ts::make_file(kSd + "nested/sub/inner.mp4", 0);
    ts::make_file(kSd + "after/a.mp4", 0);
    ts::Outcome o = remove(R"({"mode":0,"file":["full/","nested","after"]})");
    EXPECT_EQ(-1, o.rc);
    EXPECT_EQ(kNotDeleted, o.reply);
    EXPECT_FALSE(ts::exists(kSd + "full"));
    EXPECT_FALSE(ts::exists(kSd + "nested/top.mp4"));
    EXPECT_TRUE(ts::exists(kSd + "nested/sub/inner.mp4"));
    EXPECT_TRUE(ts::exists(kSd + "after/a.mp4"));
}

// Files outside the root (one beside it, as long as the root's own name, so that only a full
// prefix comparison tells them apart), files inside, and links out of the root and within it.
class Escapes : public ::testing::Test {
protected:
    void SetUp() override
    {
        fresh_card();
        for (const std::string &file : kept)
            ts::make_file(file, 0);
        for (auto [target, link] : {std::pair{kOutside, "out"}, {kOutside + "/victim.mp4", "victim.mp4"},
                                    {".", "self"}, {"day", "today"}, {"loop", "loop"}, {"../sd2", "twin"}})
            ASSERT_EQ(0, symlink(target.c_str(), (kSd + link).c_str()));
    }

    // Whether every file is still there; the failure names the first one gone.
    ::testing::AssertionResult all_kept() const
    {
        for (const std::string &file : kept)
            if (!ts::exists(file))
                return ::testing::AssertionFailure() << "removed " << file;
        return ::testing::AssertionSuccess();
    }

    // Each name leaving the root, after these (a list's opening entries), in both modes:
    // refused, and every file still there.
    void expect_each_refused(const std::string &before) const
    {
        for (const std::string &name : kLeaving)
            for (int mode : {0, 1}) {
                std::string body = "{\"mode\":" + std::to_string(mode) + ",\"file\":[" + before + "\"" + name + "\"]}";
                EXPECT_EQ(kNotDeleted, remove(body).reply) << body;
                ASSERT_TRUE(all_kept()) << body;
            }
    }

    static inline const std::string kOutside = "/mnt/app/web_root/sx";
    const std::string kept[4] = {kOutside + "/victim.mp4", "/mnt/app/web_root/sd2/twin.mp4", kSd + "day/keep.mp4",
                                 kSd + "day/inner.mp4"};
    const std::vector<std::string> kLeaving = {"..",   "a/../../sx", "day/..", "/mnt/app/web_root/sx", ".",
                                               "./",   "out",        "out/",   "out/victim.mp4", "victim.mp4",
                                               "self", "self/",      "today/../../sx", "loop", "twin",
                                               "twin/twin.mp4"};
};

TEST_F(Escapes, NoNameReachesOutsideTheRoot)
{
    expect_each_refused("");
}

TEST_F(Escapes, ARefusedNameKeepsTheFilesNamedBeforeIt)
{
    expect_each_refused("\"day/keep.mp4\",");
}

TEST_F(Escapes, LinksThatStayInsideAreFollowed)
{
    EXPECT_EQ(kDone, remove(R"({"mode":1,"file":["today/inner.mp4","./day//keep.mp4"]})").reply);
    EXPECT_FALSE(ts::exists(kSd + "day/inner.mp4"));
    EXPECT_FALSE(ts::exists(kSd + "day/keep.mp4"));
}

} // namespace
