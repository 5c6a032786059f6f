// Recording listing and deletion through the real binary, on a small card.
#include "network/storage.h"
#include "testsupport.h"

#include <gtest/gtest.h>
#include <memory>

namespace {

const std::string kSd = "/mnt/app/web_root/sd/", kKeep = "/mnt/app/web_root/images/watermark/keep.png";

class Recordings : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        dev = std::make_unique<ts::Device>();
        sid = "sessionid=" + dev->login();
    }
    static void TearDownTestSuite() { dev.reset(); }

    void SetUp() override
    {
        ts::remove_tree(kSd);
        for (const char *file : {"recodefilelist.txt", "loose.mp4", "20240601/080000.mp4",
                                 "20240601/recodefilelist.txt", "20240603/deeper/x.mp4"})
            ts::make_file(kSd + file, 10);
        ts::make_file(kSd + "20240601/090000.mp4", 5368709120ULL);
        ts::make_dirs(kSd + "20240602");
        ts::make_file(kKeep, 3);
    }

    static std::string remove(const std::string &body) { return dev->call("set_storage_deletefile", sid, body).body; }

    static inline std::unique_ptr<ts::Device> dev;
    static inline std::string sid;
};

// The server's reply is the handler's, as this process makes it on the same card.
TEST_F(Recordings, TheListingIsTheHandlersReply)
{
    std::string list = dev->call("get_video_directory", sid).body;
    EXPECT_EQ(ts::call(actiongetVideoDirectory, nullptr).reply, list);
    EXPECT_NE(std::string::npos, list.find("\"size\":\t5368709120,"));
}

TEST_F(Recordings, DeletionRemovesFilesAndFolders)
{
    EXPECT_EQ(ts::ok("Successfully to set params"), remove(R"({"mode":1,"file":["20240601/080000.mp4"]})"));
    EXPECT_EQ(ts::ok("Successfully to set params"), remove(R"({"mode":0,"file":["20240602"]})"));
    EXPECT_FALSE(ts::exists(kSd + "20240601/080000.mp4"));
    EXPECT_FALSE(ts::exists(kSd + "20240602"));
}

TEST_F(Recordings, DeletionNeverLeavesTheCard)
{
    const std::string refused = ts::fail("set delect storage fil fail");
    EXPECT_EQ(refused, remove(R"({"mode":1,"file":["20240601/090000.mp4","../images/watermark/keep.png"]})"));
    EXPECT_EQ(refused, remove(R"({"mode":0,"file":["20240602","../images/watermark"]})"));
    EXPECT_TRUE(ts::exists(kKeep));
    EXPECT_TRUE(ts::exists(kSd + "20240601/090000.mp4")) << "a refused request deletes nothing";
}

TEST_F(Recordings, AnUnmountedCardIsReported)
{
    ts::remove_tree(kSd + "recodefilelist.txt");  // the card is no longer mounted
    EXPECT_EQ(ts::fail("storage device not mount"), dev->call("get_video_directory", sid).body);
}

} // namespace
