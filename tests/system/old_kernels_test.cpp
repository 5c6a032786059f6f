// The server on kernels older than its newest system calls: getrandom (Linux 3.17) and
// openat2 (5.6) fail with ENOSYS under a seccomp filter (tests/tools/enosys), and the
// server must still issue random session ids and serve documents, kept inside the root.
#include "testsupport.h"

#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <regex>
#include <set>
#include <sys/mount.h>
#include <unistd.h>

namespace {

std::vector<std::string> without(const std::string &calls) { return {ts::host_tool_path("enosys"), calls}; }

bool is_session_id(const std::string &id)
{
    static const std::regex form("[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}");
    return std::regex_match(id, form);
}

ts::HttpReply get(const std::string &path, const std::vector<std::string> &headers = {})
{
    return ts::http({.url = ts::local_url(8080, path), .headers = headers});
}

// The device with a server that finds neither getrandom nor openat2; without openat2 every
// document is looked up through realpath.
class WithoutGetrandomOrOpenat2 : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        dev = std::make_unique<ts::Device>("", "", 8080, without("getrandom,openat2"));
        ASSERT_EQ(0, symlink("20240501/080000.mp4", "/mnt/app/web_root/sd/latest.mp4"));
        ASSERT_EQ(0, symlink("/mnt", "/mnt/app/web_root/out"));
        ASSERT_EQ(0, symlink("config", "/mnt/app/web_root/pub"));
    }
    static void TearDownTestSuite() { dev.reset(); }
    static inline std::unique_ptr<ts::Device> dev;
};

TEST_F(WithoutGetrandomOrOpenat2, SessionIdsStayRandom)
{
    std::set<std::string> ids;
    for (int i = 0; i < 8; ++i) {
        std::string id = dev->login();
        EXPECT_TRUE(is_session_id(id)) << "[" << id << "] " << dev->server().log();
        ids.insert(id);
    }
    EXPECT_EQ(8u, ids.size());
    EXPECT_EQ(ts::plain_ok(), dev->call("detection_sessionid", "sessionid=" + *ids.begin()).body);
}

TEST_F(WithoutGetrandomOrOpenat2, DocumentsAreServed)
{
    std::string page = ts::read_file("/mnt/app/web_root/login.html");
    EXPECT_EQ(page, get("/").body);
    EXPECT_EQ(page, get("/login.html").body);
    std::string recording = ts::read_file("/mnt/app/web_root/sd/20240501/080000.mp4");
    ts::HttpReply part = get("/sd/latest.mp4", {"Range: bytes=4-11"});
    EXPECT_EQ(206, part.status);
    EXPECT_EQ(recording.substr(4, 8), part.body);
}

TEST_F(WithoutGetrandomOrOpenat2, DocumentsStayInsideTheRoot)
{
    for (const char *refused : {"/out/app/web_root/config/auth.txt", "/pub/route.txt", "/config/route.txt",
                                "/sd/../../app/web_root/config/auth.txt", "/missing.html"}) {
        ts::HttpReply r = get(refused);
        EXPECT_TRUE(r.status >= 400 && r.status < 500) << refused << " answered " << r.status;
        for (const char *secret : {"route uri=", "role name="})
            EXPECT_EQ(std::string::npos, r.body.find(secret)) << refused;
    }
}

TEST(OldKernels, WithNoRandomSourceAtAllNoSessionIsIssued)
{
    // No getrandom, and /dev/urandom gives nothing (an empty file over it): a login must be
    // refused rather than answered with an id that is not random.
    if (ts::skipped_under_emulation("a server without any random source",
                                    "the emulator needs random bytes to start a program"))
        GTEST_SKIP();
    ts::write_file("/tmp/empty", "");
    ASSERT_EQ(0, mount("/tmp/empty", "/dev/urandom", nullptr, MS_BIND, nullptr)) << strerror(errno);
    struct Unmount {
        ~Unmount() { umount2("/dev/urandom", MNT_DETACH); }
    } unmount;
    ts::Device dev("", "", 8080, without("getrandom"));
    EXPECT_EQ("", dev.login());
    EXPECT_TRUE(ts::has_error(dev.server().log(), "More than the maximum number of clients\n")) << dev.server().log();
    EXPECT_TRUE(dev.server().running());
    EXPECT_EQ(200, get("/login.html").status);
}

}  // namespace
