// Recording listing and deletion through the real binary, on a small card.
#include "network/storage.h"
#include "testsupport.h"

#include <gtest/gtest.h>

namespace {

TEST(Recordings, ListingAndDeletionAnswerThroughTheServerAndNeverLeaveTheCard)
{
    ts::Device dev;
    std::string sid = "sessionid=" + dev.login();
    const std::string sd = "/mnt/app/web_root/sd/", keep = "/mnt/app/web_root/images/watermark/keep.png";
    ts::remove_tree(sd);
    for (const char *file : {"recodefilelist.txt", "loose.mp4", "20240601/080000.mp4", "20240601/recodefilelist.txt",
                             "20240603/deeper/x.mp4"})
        ts::make_file(sd + file, 10);
    ts::make_file(sd + "20240601/090000.mp4", 5368709120ULL);
    ts::make_dirs(sd + "20240602");
    ts::make_file(keep, 3);

    // The server's reply is the handler's, as this process makes it on the same card.
    std::string list = dev.call("get_video_directory", sid).body;
    EXPECT_EQ(ts::call(actiongetVideoDirectory, nullptr).reply, list);
    EXPECT_NE(std::string::npos, list.find("\"size\":\t5368709120,"));

    const std::string done = ts::ok("Successfully to set params"), refused = ts::fail("set delect storage fil fail");
    for (auto [body, reply] :
         {std::pair{R"({"mode":1,"file":["20240601/090000.mp4","../images/watermark/keep.png"]})", refused},
          {R"({"mode":0,"file":["20240602","../images/watermark"]})", refused},
          {R"({"mode":1,"file":["20240601/080000.mp4"]})", done},
          {R"({"mode":0,"file":["20240602"]})", done}})
        EXPECT_EQ(reply, dev.call("set_storage_deletefile", sid, body).body) << body;
    EXPECT_FALSE(ts::exists(sd + "20240601/080000.mp4") || ts::exists(sd + "20240602"));
    EXPECT_TRUE(ts::exists(sd + "20240601/090000.mp4") && ts::exists(keep));
    ts::remove_tree(sd + "recodefilelist.txt");  // the card is no longer mounted
    EXPECT_EQ(ts::fail("storage device not mount"), dev.call("get_video_directory", sid).body);
}

} // namespace
