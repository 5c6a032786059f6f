// Recording listing and deletion through the real binary, on a small card.
#include "device_support.h"
#include "storage_support.h"

#include "common/owners.h"

#include <cjson/cJSON.h>
#include <ctime>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

const std::string kSd = std::string(st::kRoot) + "/";
const std::string kKeep = "/mnt/app/web_root/images/watermark/keep.png";

// The card: loose files in the root (never listed), a day with two recordings and the list
// file, an empty day, and a day whose recordings lie one level too deep to be listed.
void lay_out_card()
{
    ts::remove_tree(st::kRoot);
    st::make_file(kSd + "recodefilelist.txt");
    st::make_file(kSd + "loose.mp4", 10);
    st::make_file(kSd + "20240601/080000.mp4", 1000);
    st::make_file(kSd + "20240601/090000.mp4", 5368709120ULL);
    st::make_file(kSd + "20240601/recodefilelist.txt");
    ts::make_dirs(kSd + "20240602");
    st::make_file(kSd + "20240603/deeper/x.mp4", 1);
    st::make_file(kKeep, 3);
}

std::string time_of_day(const std::string &path)
{
    struct stat s {};
    stat(path.c_str(), &s);
    struct tm tm {};
    localtime_r(&s.st_ctime, &tm);
    char text[16];
    strftime(text, sizeof text, "%H:%M:%S", &tm);
    return text;
}

// The listing reply worked out from the card itself: days in the reverse of the root's
// listing order, files in their day's order; the array printed on its own and set into the
// envelope as it stands.
std::string expected_listing()
{
    CJsonPtr days_owner(cJSON_CreateArray());
    cJSON *days = days_owner.get();
    for (const std::string &day : st::listing_order(kSd)) {
        struct stat s {};
        if (stat((kSd + day).c_str(), &s) != 0 || !S_ISDIR(s.st_mode))
            continue;
        cJSON *dir = cJSON_CreateObject();
        cJSON_InsertItemInArray(days, 0, dir);
        cJSON_AddStringToObject(dir, "dir_name", day.c_str());
        cJSON *files = cJSON_AddArrayToObject(dir, "file_info");
        for (const std::string &name : st::listing_order(kSd + day)) {
            std::string path = kSd + day + "/" + name;
            if (name == "recodefilelist.txt" || stat(path.c_str(), &s) != 0 || S_ISDIR(s.st_mode))
                continue;
            cJSON *file = cJSON_CreateObject();
            cJSON_AddItemToArray(files, file);
            cJSON_AddNumberToObject(file, "size", static_cast<double>(s.st_size));
            cJSON_AddStringToObject(file, "time", time_of_day(path).c_str());
            cJSON_AddStringToObject(file, "name", name.c_str());
        }
    }
    HeapText listing(cJSON_Print(days));
    CJsonPtr reply(cJSON_CreateObject());
    cJSON_AddStringToObject(reply.get(), "Result", "OK");
    cJSON_AddStringToObject(reply.get(), "Reason", "Successfully to get params");
    cJSON_AddRawToObject(reply.get(), "Parameters", listing.get());
    HeapText text(cJSON_Print(reply.get()));
    return text.get();
}

TEST(Recordings, ListingAndDeletionAnswerThroughTheServerAndNeverLeaveTheCard)
{
    ts::Device dev;
    std::string sid = "sessionid=" + dev.login();
    lay_out_card();

    ts::HttpReply list = dev.call("get_video_directory", sid);
    EXPECT_EQ(200, list.status);
    EXPECT_EQ(expected_listing(), list.body);
    EXPECT_NE(std::string::npos, list.body.find("\"size\":\t5368709120,"));
    EXPECT_NE(std::string::npos, dev.server_log().find("path:/mnt/app/web_root/sd//20240603/deeper\n"));

    const std::string done = ts::success_text("Successfully to set params");
    const std::string refused = ts::failure_text("set delect storage fil fail");
    struct Case {
        const char *body;
        std::string reply, gone, kept;
    } cases[] = {
        {R"({"mode":1,"file":["20240601/080000.mp4"]})", done, "20240601/080000.mp4", "20240601/090000.mp4"},
        {R"({"mode":1,"file":["20240601/090000.mp4","../images/watermark/keep.png"]})", refused, "",
         "20240601/090000.mp4"},
        {R"({"mode":0,"file":["20240602","../images/watermark"]})", refused, "", "20240602"},
        {R"({"mode":0,"file":["20240602"]})", done, "20240602", "20240603"},
        {R"({"mode":1,"file":"20240603"})", ts::failure_text("Invalid input params"), "", "20240603/deeper/x.mp4"},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(c.reply, dev.call("set_storage_deletefile", sid, c.body).body) << c.body;
        if (!c.gone.empty()) {
            EXPECT_FALSE(ts::exists(kSd + c.gone)) << c.body;
        }
        EXPECT_TRUE(ts::exists(kSd + c.kept)) << c.body;
        EXPECT_TRUE(ts::exists(kKeep)) << c.body;
    }

    // A card that is not mounted: its list file is gone.
    ASSERT_EQ(0, unlink((kSd + "recodefilelist.txt").c_str()));
    const std::string not_mounted = ts::failure_text("storage device not mount");
    EXPECT_EQ(not_mounted, dev.call("get_video_directory", sid).body);
    EXPECT_EQ(not_mounted, dev.call("set_storage_deletefile", sid, R"({"mode":1,"file":["20240601/090000.mp4"]})").body);
    EXPECT_TRUE(ts::exists(kSd + "20240601/090000.mp4"));
}

} // namespace
