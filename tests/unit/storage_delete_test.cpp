#include "network/storage.h"
#include "storage_support.h"
#include "testsupport.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

const std::string kSd = std::string(st::kRoot) + "/";
const std::string kOk = "{\n\t\"Result\":\t\"OK\",\n\t\"Reason\":\t\"Successfully to set params\"\n}";
const std::string kNotDeleted = "{\n\t\"Result\":\t\"Fail\",\n\t\"Reason\":\t\"set delect storage fil fail\"\n}";
const std::string kBadBody = "{\n\t\"Result\":\t\"Fail\",\n\t\"Reason\":\t\"Invalid input params\"\n}";

st::Outcome remove(const std::string &body) { return st::run_action(actionSetStorageDelectFile, body.c_str()); }

TEST(StorageDelete, FilesGoUpToTheFirstEmptyNameAndMissingOnesPassSilently)
{
    st::fresh_card();
    for (const char *f : {"day/a.mp4", "day/b.mp4", "c.mp4"})
        st::make_file(kSd + f);
    st::Outcome o = remove(R"({"mode":1,"file":["day/a.mp4",7,"day/b.mp4"]})");
    EXPECT_EQ(kOk, o.reply);
    EXPECT_EQ("remove file succeed!  len:1", o.out);
    EXPECT_FALSE(ts::exists(kSd + "day/a.mp4"));
    EXPECT_TRUE(ts::exists(kSd + "day/b.mp4"));

    o = remove(R"({"mode":1,"file":["nothing.mp4","c.mp4","day"]})");  // a folder is only logged
    EXPECT_EQ(kOk, o.reply);
    EXPECT_FALSE(ts::exists(kSd + "c.mp4"));
    EXPECT_TRUE(st::has_error(o.err, "DEVSDK_Delect_StorageFile", "remove file failure! path:" + kSd + "/day\n"));
    EXPECT_EQ(std::string::npos, o.err.find("nothing"));

    o = remove(R"({"mode":1,"file":[]})");
    EXPECT_EQ(kOk, o.reply);
    EXPECT_EQ("remove file succeed!  len:0", o.out);

    for (const char *body : {R"({"mode":2,"file":["day/b.mp4"]})", R"({"mode":-1,"file":["day/b.mp4"]})"}) {
        o = remove(body);
        EXPECT_EQ(kNotDeleted, o.reply) << body;
        EXPECT_TRUE(st::has_error(o.err, "DEVSDK_Delect_StorageFile", "Invalid params!\n")) << body;
        EXPECT_TRUE(st::has_error(o.err, "actionSetStorageDelectFile", "Delect file fail! return: -2")) << body;
    }
    const std::pair<const char *, const char *> bad_bodies[] = {
        {R"({"mode":false,"file":["day/b.mp4"]})", "mode is empty or error value type : 1\n"},
        {R"({"mode":1,"file":"day/b.mp4"})", " array is empty or error value type \n"},
        {"mode=1", "json pack into cjson error...\n"}};
    for (auto [body, line] : bad_bodies) {
        o = remove(body);
        EXPECT_EQ(-1, o.rc) << body;
        EXPECT_EQ(kBadBody, o.reply) << body;
        EXPECT_TRUE(st::has_error(o.err, "getStorageFileParamFromJSON", line)) << body << o.err;
    }
    EXPECT_TRUE(ts::exists(kSd + "day/b.mp4"));
}

TEST(StorageDelete, FoldersAreEmptiedAndRemovedUntilOneCannotBe)
{
    st::fresh_card();
    for (int i = 0; i < 1200; ++i)
        st::make_file(kSd + "full/f" + std::to_string(i));
    st::make_file(kSd + "nested/top.mp4");
    st::make_file(kSd + "nested/sub/inner.mp4");
    st::make_file(kSd + "after/a.mp4");
    st::Outcome o = remove(R"({"mode":0,"file":["full/","nested","after"]})");
    EXPECT_EQ(-1, o.rc);
    EXPECT_EQ(kNotDeleted, o.reply);
    EXPECT_FALSE(ts::exists(kSd + "full"));
    EXPECT_FALSE(ts::exists(kSd + "nested/top.mp4"));
    EXPECT_TRUE(ts::exists(kSd + "nested/sub/inner.mp4"));
    EXPECT_TRUE(ts::exists(kSd + "after/a.mp4"));
    const std::string line = "remove dir failure! path:" + kSd + "/nested\n";
    size_t inner = o.err.find(", DEVSDK_Rm_Dir>: " + line);
    EXPECT_NE(std::string::npos, inner) << o.err;
    EXPECT_GT(o.err.find(", DEVSDK_Delect_StorageFile>: " + line), inner);
    EXPECT_TRUE(st::has_error(o.err, "actionSetStorageDelectFile", "Delect file fail! return: -1"));

    std::string body = R"({"mode":1,"file":[)";
    for (int i = 0; i < 1100; ++i) {
        st::make_file(kSd + "f" + std::to_string(i));
        body += (i ? ",\"f" : "\"f") + std::to_string(i) + "\"";
    }
    o = remove(body + "]}");
    EXPECT_EQ(kOk, o.reply);
    EXPECT_FALSE(ts::exists(kSd + "f1023"));
    EXPECT_TRUE(ts::exists(kSd + "f1024"));
    EXPECT_EQ("", o.out);  // no "remove file succeed" line after 1024 names
}

TEST(StorageDelete, NoNameReachesOutsideTheRootAndARefusalDeletesNothing)
{
    st::fresh_card();
    // As long as the root's own name, so that only a full prefix comparison tells them apart.
    const std::string outside = "/mnt/app/web_root/sx";
    st::make_file(outside + "/victim.mp4");
    st::make_file("/mnt/app/web_root/sd2/twin.mp4");
    st::make_file(kSd + "day/keep.mp4");
    st::make_file(kSd + "day/inner.mp4");
    for (auto [target, link] : {std::pair{outside, "out"}, {outside + "/victim.mp4", "victim.mp4"}, {".", "self"},
                                {"day", "today"}, {"loop", "loop"}, {"../sd2", "twin"}})
        ASSERT_EQ(0, symlink(target.c_str(), (kSd + link).c_str()));

    for (const char *name : {"..", "a/../../sx", "day/..", "/mnt/app/web_root/sx", ".", "./", "out", "out/",
                             "out/victim.mp4", "victim.mp4", "self", "self/", "today/../../sx", "loop", "twin",
                             "twin/twin.mp4"})
        for (int mode : {0, 1}) {
            std::string body = "{\"mode\":" + std::to_string(mode) + ",\"file\":[\"day/keep.mp4\",\"" + name + "\"]}";
            st::Outcome o = remove(body);
            EXPECT_EQ(kNotDeleted, o.reply) << body;
            EXPECT_TRUE(st::has_error(o.err, "DEVSDK_Delect_StorageFile",
                                      std::string("refuse file name outside storage: ") + name + "\n"))
                << body;
            for (const std::string &kept : {outside + "/victim.mp4", std::string("/mnt/app/web_root/sd2/twin.mp4"),
                                            kSd + "day/keep.mp4", kSd + "recodefilelist.txt"})
                ASSERT_TRUE(ts::exists(kept)) << body << " removed " << kept;
        }
    // Links that stay inside are followed like any other path.
    st::Outcome o = remove(R"({"mode":1,"file":["today/inner.mp4","./day//keep.mp4"]})");
    EXPECT_EQ(kOk, o.reply) << o.err;
    EXPECT_FALSE(ts::exists(kSd + "day/inner.mp4"));
    EXPECT_FALSE(ts::exists(kSd + "day/keep.mp4"));
}

} // namespace
