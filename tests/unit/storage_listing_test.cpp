#include "actions/reply_text.h"
#include "common/owners.h"
#include "network/storage.h"
#include "storage_support.h"
#include "testsupport.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <sys/mount.h>

namespace {

const std::string kSd = std::string(st::kRoot) + "/";

TEST(StorageListing, ReplyHoldsTheFormattedPrintOfTheCardForOddNamesSizesAndLargeCards)
{
    st::fresh_card();
    EXPECT_NE(std::string::npos, st::run_action(actiongetVideoDirectory, nullptr).reply.find("\"Parameters\":\t[]\n}"));

    std::string controls, high;
    for (int c = 1; c < 256; ++c)
        (c < 32 ? controls : high) += static_cast<char>(c == '/' ? '_' : c);
    for (uint64_t size : {0ULL, 2147483647ULL, 2147483648ULL, 5368709120ULL, (1ULL << 53) + 1, 1ULL << 62})
        st::make_file(kSd + "sizes/s" + std::to_string(size), size);
    for (const std::string &name : {controls, high.substr(0, 63), high.substr(63, 63), high.substr(126),
                                    std::string("日本語の録画 ñ €.mp4"), std::string("quote\"back\\slash")})
        st::make_file(kSd + "o/" + name, 42);
    st::make_file(kSd + "odd \"dir\"\t\\" + controls + "/a.mp4");
    ts::make_dirs(kSd + "empty");
    std::mt19937 random(8);
    for (int d = 0; d < 8; ++d)
        for (int f = 0; f < 1024; ++f) {
            std::string name = "r" + std::string(random() % 63, 'a');
            for (char &c : name)
                c = c == 'r' ? c : static_cast<char>(1 + random() % 255);
            std::replace(name.begin(), name.end(), '/', '_');
            st::make_file(kSd + "day" + std::to_string(d) + "/" + name, random());
        }

    st::Outcome o = st::run_action(actiongetVideoDirectory, nullptr);
    EXPECT_EQ(0, o.rc);
    NetsdkLinkPtr head(NETSDK_CREATE_LINK());
    {
        ts::Capture quiet(1);
        NETSDK_LINK_SERCH_DIR("/mnt/app/web_root/sd/", head.get(), "");
    }
    char *expected = nullptr;
    formatParamsJSON(&expected, "Successfully to get params", strdup(st::printed_by_cjson(head.get()).c_str()));
    HeapText owner(expected);
    EXPECT_TRUE(expected == o.reply);
    EXPECT_NE(std::string::npos, o.reply.find("\"size\":\t5368709120,"));
    EXPECT_NE(std::string::npos, o.out.find(">: record_file = \n"));
    EXPECT_NE(std::string::npos, o.out.find("path:/mnt/app/web_root/sd//empty\n"));
    EXPECT_EQ("", o.err);
}

TEST(StorageListing, BothActionsRefuseACardThatIsNotMounted)
{
    const std::string refused = "{\n\t\"Result\":\t\"Fail\",\n\t\"Reason\":\t\"storage device not mount\"\n}";
    auto expect_refused = [&](const char *why) {
        st::Outcome list = st::run_action(actiongetVideoDirectory, nullptr);
        st::Outcome del = st::run_action(actionSetStorageDelectFile, R"({"mode":0,"file":["day"]})");
        EXPECT_EQ(std::pair(-1, -1), std::pair(list.rc, del.rc)) << why;
        EXPECT_EQ(refused, list.reply) << why;
        EXPECT_EQ(refused, del.reply) << why;
        EXPECT_TRUE(st::has_error(list.err, "actiongetVideoDirectory",
                                  " Storage device not mounted: /mnt/app/web_root/sd/recodefilelist.txt"));
        EXPECT_TRUE(st::has_error(del.err, "actionSetStorageDelectFile", " Storage device not mounted: 0"));
        EXPECT_TRUE(ts::exists(kSd + "day/a.mp4")) << why;
    };
    st::fresh_card();
    ASSERT_EQ(0, unlink((kSd + "recodefilelist.txt").c_str()));
    st::make_file(kSd + "day/a.mp4");
    expect_refused("list file missing");

    st::fresh_card();
    ASSERT_EQ(0, mount("tmpfs", st::kRoot, "tmpfs", 0, nullptr));
    st::make_file(kSd + "recodefilelist.txt");
    st::make_file(kSd + "day/a.mp4");
    ASSERT_EQ(0, mount(nullptr, st::kRoot, nullptr, MS_REMOUNT | MS_RDONLY, nullptr));
    expect_refused("read-only card");
    EXPECT_EQ(0, umount(st::kRoot));
}

} // namespace
