#include "actions/reply_text.h"
#include "common/owners.h"
#include "network/storage.h"
#include "storage_support.h"
#include "testsupport.h"

#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <sys/mount.h>

namespace {

const std::string kSd = std::string(st::kRoot) + "/";

std::string formatted(const NETSDK_LINK_NODE *head)
{
    char *text = nullptr;
    EXPECT_EQ(0, formatVideoDirParamJSON(&text, head));
    HeapText owner(text);
    return text ? text : "<none>";
}

// The reply the listing action must give for the list: the envelope around cJSON's text.
std::string reply_for(const NETSDK_LINK_NODE *head)
{
    char *reply = nullptr;
    formatParamsJSON(&reply, "Successfully to get params", strdup(st::printed_by_cjson(head).c_str()));
    HeapText owner(reply);
    return reply;
}

TEST(StorageListing, TextEqualsTheFormattedPrinterForOddNamesAndSizes)
{
    std::string controls, high;
    for (int c = 1; c < 32; ++c)
        controls += static_cast<char>(c);
    for (int c = 127; c < 256; ++c)
        high += static_cast<char>(c);
    const uint64_t sizes[] = {0, 1, 2147483647ULL, 2147483648ULL, 5368709120ULL, (1ULL << 53) + 1,
                              1234567890123456789ULL, UINT64_MAX};
    std::vector<st::File> files;
    for (uint64_t size : sizes)
        files.push_back({size, "09:05:03", "s" + std::to_string(size)});
    for (const std::string &name : {std::string("quote\"back\\slash/"), controls, high.substr(0, 63),
                                    std::string("日本語の録画 ñ €.mp4")})
        files.push_back({42, "23:59:59 recording...", name});
    files.push_back({7, "00:00:00", ""});  // holds no file: left out

    std::vector<st::Dir> dirs = {
        {"plain", 0, {}},                      // a folder without files
        {"odd \"dir\"\t\\", (int)files.size() - 1, files},
        {"\x01\x1f", 1, {{1, "01:01:01", "a"}, {2, "02:02:02", "b"}, {3, "03:03:03", "beyond last_index"}}},
        {"negative", -1, {{1, "01:01:01", "a"}}},
    };
    EXPECT_EQ("[]", formatted(st::make_list({}).get()));
    for (size_t n = 1; n <= dirs.size(); ++n) {
        NetsdkLinkPtr list = st::make_list(std::vector<st::Dir>(dirs.begin(), dirs.begin() + n));
        EXPECT_EQ(st::printed_by_cjson(list.get()), formatted(list.get())) << n;
    }
}

TEST(StorageListing, LargeListingEqualsTheFormattedPrinter)
{
    std::mt19937_64 random(8);
    std::vector<st::Dir> dirs;
    for (int d = 0; d < 40; ++d) {
        st::Dir dir{"day" + std::to_string(d), 1023, {}};
        for (int f = 0; f < 1024; ++f) {
            std::string name(1 + random() % 63, 'a');
            for (char &c : name)
                c = static_cast<char>(1 + random() % 255);
            dir.files.push_back({random() >> (random() % 64), "12:34:56", name});
        }
        dirs.push_back(dir);
    }
    NetsdkLinkPtr list = st::make_list(dirs);
    EXPECT_TRUE(st::printed_by_cjson(list.get()) == formatted(list.get()));

    char *text = nullptr;
    ts::Capture err(2);
    EXPECT_EQ(-2, formatVideoDirParamJSON(&text, nullptr));
    EXPECT_NE(std::string::npos, err.text().find(", formatVideoDirParamJSON>: Invalid input params!\n"));
}

TEST(StorageListing, ActionListsTheCardInTheEnvelope)
{
    st::fresh_card();
    st::Outcome o = st::run_action(actiongetVideoDirectory, nullptr);
    EXPECT_EQ(0, o.rc);
    EXPECT_EQ(reply_for(st::make_list({}).get()), o.reply);
    EXPECT_NE(std::string::npos, o.out.find(">: record_file = \n"));

    st::make_file(kSd + "2024-05-01/big.mp4", 5368709120ULL);
    st::make_file(kSd + "2024-05-01/small.mp4", 3);
    ts::make_dirs(kSd + "2024-05-02");
    o = st::run_action(actiongetVideoDirectory, "{}");
    EXPECT_EQ(0, o.rc);
    NetsdkLinkPtr head(NETSDK_CREATE_LINK());
    {
        ts::Capture quiet(1);
        NETSDK_LINK_SERCH_DIR("/mnt/app/web_root/sd/", head.get(), "");
    }
    EXPECT_EQ(reply_for(head.get()), o.reply);
    EXPECT_NE(std::string::npos, o.reply.find("\"size\":\t5368709120,"));
    EXPECT_NE(std::string::npos, o.out.find("path:/mnt/app/web_root/sd//2024-05-02\n"));
    EXPECT_EQ("", o.err);
}

TEST(StorageListing, BothActionsRefuseACardThatIsNotMounted)
{
    const std::string refused = "{\n\t\"Result\":\t\"Fail\",\n\t\"Reason\":\t\"storage device not mount\"\n}";
    auto expect_refused = [&](const char *why) {
        st::Outcome list = st::run_action(actiongetVideoDirectory, nullptr);
        EXPECT_EQ(-1, list.rc) << why;
        EXPECT_EQ(refused, list.reply) << why;
        EXPECT_NE(std::string::npos, list.err.find(", actiongetVideoDirectory>:  Storage device not mounted: "
                                                   "/mnt/app/web_root/sd/recodefilelist.txt\033[0m"))
            << why << list.err;
        st::Outcome del = st::run_action(actionSetStorageDelectFile, R"({"mode":0,"file":["day"]})");
        EXPECT_EQ(-1, del.rc) << why;
        EXPECT_EQ(refused, del.reply) << why;
        EXPECT_NE(std::string::npos, del.err.find(", actionSetStorageDelectFile>:  Storage device not mounted: 0\033[0m"))
            << why << del.err;
    };

    st::fresh_card();
    ASSERT_EQ(0, unlink((kSd + "recodefilelist.txt").c_str()));
    st::make_file(kSd + "day/a.mp4");
    expect_refused("list file missing");
    EXPECT_TRUE(ts::exists(kSd + "day/a.mp4"));

    st::fresh_card();
    ASSERT_EQ(0, mount("tmpfs", st::kRoot, "tmpfs", 0, nullptr));
    st::make_file(kSd + "recodefilelist.txt");
    st::make_file(kSd + "day/a.mp4");
    ASSERT_EQ(0, mount(nullptr, st::kRoot, nullptr, MS_REMOUNT | MS_RDONLY, nullptr));
    expect_refused("read-only card");
    EXPECT_TRUE(ts::exists(kSd + "day/a.mp4"));
    EXPECT_EQ(0, umount(st::kRoot));
}

} // namespace
