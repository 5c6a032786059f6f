#include "network/storage.h"
#include "storage_support.h"
#include "testsupport.h"

#include <gtest/gtest.h>
#include <memory>
#include <unistd.h>

namespace {

const std::string kSd = std::string(st::kRoot) + "/";
const std::string kOk = "{\n\t\"Result\":\t\"OK\",\n\t\"Reason\":\t\"Successfully to set params\"\n}";
const std::string kNotDeleted = "{\n\t\"Result\":\t\"Fail\",\n\t\"Reason\":\t\"set delect storage fil fail\"\n}";
const std::string kBadBody = "{\n\t\"Result\":\t\"Fail\",\n\t\"Reason\":\t\"Invalid input params\"\n}";

bool has_error(const std::string &err, const std::string &func, const std::string &message)
{
    return err.find(", " + func + ">: " + message + "\033[0m") != std::string::npos;
}

st::Outcome remove(const std::string &body) { return st::run_action(actionSetStorageDelectFile, body.c_str()); }

TEST(StorageDelete, BodyFillsModeAndNamesOrIsRefusedWithItsLine)
{
    struct Case {
        const char *body;
        int rc, mode;
        std::vector<std::string> names;
        const char *line;
    } cases[] = {
        {R"({"mode":1,"file":["a",7,"b"]})", 0, 1, {"a", "", "b"}, nullptr},
        {R"({"mode":true,"file":[]})", 0, 1, {}, nullptr},
        {R"({"mode":0,"file":[{},null,"x"]})", 0, 0, {"", "", "x"}, nullptr},
        {R"({"mode":false,"file":["a"]})", -2, -1, {}, "mode is empty or error value type : 1\n"},
        {R"({"mode":"1","file":["a"]})", -2, -1, {}, "mode is empty or error value type : 16\n"},
        {R"({"file":["a"]})", -2, -1, {}, "mode is empty or error value type : -1\n"},
        {R"({"mode":1})", -2, 1, {}, " array is empty or error value type \n"},
        {R"({"mode":1,"file":"a"})", -2, 1, {}, " array is empty or error value type \n"},
        {R"({"mode":1,"file":[)", -15, -1, {}, "json pack into cjson error...\n"},
    };
    for (const Case &c : cases) {
        auto p = std::make_unique<StorageFileParam>();
        p->mode = -1;
        ts::Capture err(2);
        EXPECT_EQ(c.rc, getStorageFileParamFromJSON(c.body, p.get())) << c.body;
        std::string lines = err.text();
        EXPECT_EQ(c.mode, p->mode) << c.body;
        for (size_t i = 0; i < c.names.size(); ++i)
            EXPECT_EQ(c.names[i], p->file[i]) << c.body;
        if (c.line) {
            EXPECT_TRUE(has_error(lines, "getStorageFileParamFromJSON", c.line)) << c.body << lines;
        }
    }

    std::string many = R"({"mode":1,"file":[)";
    for (int i = 0; i < 1100; ++i)
        many += (i ? ",\"" : "\"") + std::string(i == 1 ? 70 : 1, 'n') + std::to_string(i) + "\"";
    auto p = std::make_unique<StorageFileParam>();
    EXPECT_EQ(0, getStorageFileParamFromJSON((many + "]}").c_str(), p.get()));
    EXPECT_EQ(std::string(63, 'n'), p->file[1]);
    EXPECT_EQ("n1023", std::string(p->file[1023]));
}

TEST(StorageDelete, FilesGoUpToTheFirstEmptyNameAndMissingOnesPassSilently)
{
    st::fresh_card();
    for (const char *f : {"day/a.mp4", "day/b.mp4", "c.mp4"})
        st::make_file(kSd + f);
    st::Outcome o = remove(R"({"mode":1,"file":["day/a.mp4",7,"day/b.mp4"]})");
    EXPECT_EQ(0, o.rc);
    EXPECT_EQ(kOk, o.reply);
    EXPECT_FALSE(ts::exists(kSd + "day/a.mp4"));
    EXPECT_TRUE(ts::exists(kSd + "day/b.mp4"));
    EXPECT_EQ("remove file succeed!  len:1", o.out);

    o = remove(R"({"mode":1,"file":["nothing.mp4","c.mp4"]})");
    EXPECT_EQ(kOk, o.reply);
    EXPECT_EQ("", o.err);
    EXPECT_FALSE(ts::exists(kSd + "c.mp4"));

    o = remove(R"({"mode":1,"file":[]})");
    EXPECT_EQ(kOk, o.reply);
    EXPECT_EQ("remove file succeed!  len:0", o.out);

    o = remove(R"({"mode":1,"file":["day"]})");  // a folder in file mode is only logged
    EXPECT_EQ(kOk, o.reply);
    EXPECT_TRUE(has_error(o.err, "DEVSDK_Delect_StorageFile", "remove file failure! path:" + kSd + "/day\n")) << o.err;
}

TEST(StorageDelete, ModesOtherThanZeroAndOneAndUnusableBodiesDeleteNothing)
{
    st::fresh_card();
    st::make_file(kSd + "a.mp4");
    struct Case {
        const char *body;
        int rc;
        const std::string &reply;
        const char *func, *line;
    } cases[] = {
        {R"({"mode":2,"file":["a.mp4"]})", -2, kNotDeleted, "DEVSDK_Delect_StorageFile", "Invalid params!\n"},
        {R"({"mode":-1,"file":["a.mp4"]})", -2, kNotDeleted, "actionSetStorageDelectFile", "Delect file fail! return: -2"},
        {R"({"mode":false,"file":["a.mp4"]})", -1, kBadBody, "actionSetStorageDelectFile", "Invalid input params return: -2"},
        {R"({"mode":1})", -1, kBadBody, "actionSetStorageDelectFile", "Invalid input params return: -2"},
        {"mode=1", -1, kBadBody, "actionSetStorageDelectFile", "Invalid input params return: -15"},
        {nullptr, -1, kBadBody, "getStorageFileParamFromJSON", "Invalid params!\n"},
    };
    for (const Case &c : cases) {
        st::Outcome o = st::run_action(actionSetStorageDelectFile, c.body);
        EXPECT_EQ(c.rc, o.rc) << c.body;
        EXPECT_EQ(c.reply, o.reply) << c.body;
        EXPECT_TRUE(has_error(o.err, c.func, c.line)) << c.body << o.err;
        EXPECT_TRUE(ts::exists(kSd + "a.mp4")) << c.body;
    }
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
    const std::string nested = "remove dir failure! path:" + kSd + "/nested\n";
    size_t inner = o.err.find(", DEVSDK_Rm_Dir>: " + nested);
    size_t outer = o.err.find(", DEVSDK_Delect_StorageFile>: " + nested);
    EXPECT_TRUE(inner != std::string::npos && outer != std::string::npos && inner < outer) << o.err;
    EXPECT_TRUE(has_error(o.err, "actionSetStorageDelectFile", "Delect file fail! return: -1")) << o.err;
    EXPECT_EQ("", o.out);
}

TEST(StorageDelete, OnlyTheFirst1024NamesAreHandled)
{
    st::fresh_card();
    std::string body = R"({"mode":1,"file":[)";
    for (int i = 0; i < 1100; ++i) {
        st::make_file(kSd + "f" + std::to_string(i));
        body += (i ? ",\"f" : "\"f") + std::to_string(i) + "\"";
    }
    st::Outcome o = remove(body + "]}");
    EXPECT_EQ(kOk, o.reply);
    EXPECT_FALSE(ts::exists(kSd + "f1023"));
    EXPECT_TRUE(ts::exists(kSd + "f1024"));
    EXPECT_EQ("", o.out);
}

TEST(StorageDelete, NoNameReachesOutsideTheRootAndARefusalDeletesNothing)
{
    st::fresh_card();
    // As long as the root's own name, so that only a full prefix comparison tells them apart.
    const std::string outside = "/mnt/app/web_root/sx";
    st::make_file(outside + "/victim.mp4");
    st::make_file(kSd + "day/keep.mp4");
    st::make_file(kSd + "day/inner.mp4");
    ASSERT_EQ(0, symlink(outside.c_str(), (kSd + "out").c_str()));
    ASSERT_EQ(0, symlink((outside + "/victim.mp4").c_str(), (kSd + "victim.mp4").c_str()));
    ASSERT_EQ(0, symlink(".", (kSd + "self").c_str()));
    ASSERT_EQ(0, symlink("day", (kSd + "today").c_str()));
    ASSERT_EQ(0, symlink("loop", (kSd + "loop").c_str()));
    st::make_file("/mnt/app/web_root/sd2/twin.mp4");
    ASSERT_EQ(0, symlink("../sd2", (kSd + "twin").c_str()));

    const char *escaping[] = {"..", "../outside", "a/../../sx", "day/../..", "day/..", "/mnt/app/web_root/sx",
                              ".", "./", ".//.", "out", "out/", "out/victim.mp4", "victim.mp4", "self", "self/",
                              "today/../../sx", "loop", "twin/twin.mp4", "twin"};
    for (const char *name : escaping)
        for (int mode : {0, 1}) {
            std::string body = "{\"mode\":" + std::to_string(mode) + ",\"file\":[\"day/keep.mp4\",\"" + name + "\"]}";
            st::Outcome o = remove(body);
            EXPECT_EQ(kNotDeleted, o.reply) << body;
            EXPECT_TRUE(has_error(o.err, "DEVSDK_Delect_StorageFile",
                                  std::string("refuse file name outside storage: ") + name + "\n"))
                << body << o.err;
            ASSERT_TRUE(ts::exists(outside + "/victim.mp4")) << body;
            ASSERT_TRUE(ts::exists(kSd + "day/keep.mp4")) << body;
            ASSERT_TRUE(ts::exists(kSd + "recodefilelist.txt")) << body;
            ASSERT_TRUE(ts::exists("/mnt/app/web_root/sd2/twin.mp4")) << body;
        }

    // Links that stay inside are followed like any other path.
    st::Outcome o = remove(R"({"mode":1,"file":["today/inner.mp4","./day//keep.mp4"]})");
    EXPECT_EQ(kOk, o.reply) << o.err;
    EXPECT_FALSE(ts::exists(kSd + "day/inner.mp4"));
    EXPECT_FALSE(ts::exists(kSd + "day/keep.mp4"));
}

} // namespace
