// Firmware upgrades through the real binary and the device simulator: the image stored as
// "/tmp/upgrade" byte for byte with the server's memory flat, the announcement followed to
// the last progress reply, and the refusals and routes that store nothing.
#include "device_support.h"

#include "common/owners.h"

#include <cjson/cJSON.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using ts::coded_failure;

constexpr char kImage[] = "/tmp/upgrade";
constexpr char kAnnouncement[] = R"("Parameters":{"UpgradeImageFile":"/tmp/upgrade"})";

// The final progress reply as the server prints it.
std::string final_progress()
{
    CJsonPtr tree(cJSON_Parse(R"({"Result":"OK","Parameters":{"UpgradeProgressValue":100}})"));
    HeapText text(cJSON_Print(tree.get()));
    return text.get();
}

// A file of mib MiB whose every block differs, so a misplaced block shows.
void write_image(const std::string &path, int mib)
{
    FilePtr f(fopen(path.c_str(), "wb"));
    std::string block(1024 * 1024, '\0');
    for (int i = 0; i < mib; ++i) {
        for (size_t j = 0; j < block.size(); ++j)
            block[j] = static_cast<char>((i * 7 + j) % 251);
        ASSERT_EQ(block.size(), fwrite(block.data(), 1, block.size(), f.get()));
    }
}

ts::HttpReply post_file(int port, const std::string &query, const std::string &path)
{
    ts::HttpRequest req;
    req.method = "POST";
    req.url = ts::local_url(port, "/action/device/StartUpgrade" + (query.empty() ? "" : "?" + query));
    req.body_file = path;
    req.timeout_ms = 60000;
    return ts::http(req);
}

size_t count(const std::string &text, const std::string &part)
{
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++n;
    return n;
}

// Temporary files of the web layer and of the upgrade left in /tmp, once the last request
// has ended (the layer removes its files just after the reply leaves).
int leftovers()
{
    int n = 0;
    for (int tries = 0; tries < 50; ++tries, n = 0) {
        for (const auto &e : std::filesystem::directory_iterator("/tmp")) {
            std::string name = e.path().filename().string();
            n += name.rfind("webs-", 0) == 0 || name.rfind(".upgrade-", 0) == 0;
        }
        if (n == 0)
            break;
        usleep(20'000);
    }
    return n;
}

TEST(Upgrade, ImageReplacesTheOldOneByteForByteAndTheLastProgressIsTheReply)
{
    ts::Device dev;
    std::string sid = dev.login();
    ASSERT_EQ(36u, sid.size());
    ts::write_file(kImage, "previous image");  // the empty body comes first: replaced whole
    std::string small;
    for (int i = 0; i < 3000; ++i)
        small += static_cast<char>(i % 256);  // NUL bytes included: the body is no text
    ts::write_file("/tmp/small.bin", small);
    ts::write_file("/tmp/empty.bin", "");
    write_image("/tmp/large.bin", 100);

    for (const char *body : {"/tmp/empty.bin", "/tmp/small.bin", "/tmp/large.bin"}) {
        ts::HttpReply r = post_file(dev.port(), "sessionid=" + sid, body);
        EXPECT_EQ(200, r.status) << body << r.error;
        EXPECT_EQ(final_progress(), r.body) << body;
        EXPECT_EQ(0, ts::run({"/usr/bin/cmp", "-s", body, kImage})) << body;
        struct stat st {};
        EXPECT_EQ(0, stat(kImage, &st));
        EXPECT_EQ(0600u, st.st_mode & 07777) << body;
    }
    long peak_kib = ts::peak_memory_kib(dev.server().process().pid());
    EXPECT_GT(peak_kib, 0);
    EXPECT_LT(peak_kib, 16 * 1024) << "a 100 MiB image must not pass through the server's memory";
    EXPECT_EQ(0, leftovers());

    std::string sim = dev.sim_log(), log = dev.server_log();
    EXPECT_EQ(3u, count(sim, kAnnouncement)) << sim;
    for (int value = 0; value <= 100; value += 20)
        EXPECT_EQ(3u, count(log, "http recv ProgressValue->valueint " + std::to_string(value) + "\n")) << value;
    EXPECT_NE(std::string::npos, log.find("input :104857600\n"));
}

TEST(Upgrade, RefusedCallersAndAnUnwritableImageStoreNothing)
{
    ts::Device dev;
    std::string sid = dev.login();
    ts::write_file("/tmp/small.bin", "{\"image\":1}");
    write_image("/tmp/large.bin", 1);  // above what is held in memory: spooled
    const std::string fail550 = coded_failure(550, "upgrade wirte fail");

    ts::write_file(kImage, "current image");
    struct Case {
        const char *what;
        std::string query, reply;
    } refused[] = {
        {"no session", "", coded_failure(-16, "Session ID is empty")},
        {"unknown session", "sessionid=00000000-0000-0000-0000-000000000000", coded_failure(-16, "Invalid session ID")},
        {"wrong credentials", "username=admin&password=wrong", ts::failure_text("Invalid username or password")},
    };
    for (const Case &c : refused) {
        for (const char *body : {"/tmp/small.bin", "/tmp/large.bin"}) {
            EXPECT_EQ(c.reply, post_file(dev.port(), c.query, body).body) << c.what << " " << body;
            EXPECT_EQ("current image", ts::read_file(kImage)) << c.what << " " << body;
        }
    }

    // A directory where the image goes cannot be replaced by it.
    ASSERT_EQ(0, unlink(kImage));
    ts::make_dirs(std::string(kImage) + "/keep");
    for (const char *body : {"/tmp/small.bin", "/tmp/large.bin"}) {
        EXPECT_EQ(fail550, post_file(dev.port(), "sessionid=" + sid, body).body) << body;
        EXPECT_TRUE(ts::exists(std::string(kImage) + "/keep")) << body;
    }
    EXPECT_EQ(0, leftovers());
    EXPECT_EQ(0u, count(dev.sim_log(), kAnnouncement));
    EXPECT_EQ(2u, count(dev.server_log(), ">: upgrade open fail \n"));
    EXPECT_EQ(2u, count(dev.server_log(), ">: upgrade wirte fail \n"));
}

TEST(Upgrade, OnlyTheUpgradeApplicationsRouteStoresAnImage)
{
    const std::string login_route = "VerifyPassword app_user ipc:///tmp/app_user.ipc\n";
    const std::string spooled(100 * 1024, 'i');  // more than is held in memory
    {
        ts::Device dev(8080, "", login_route + "StartUpgrade app_other ipc:///tmp/app_other.ipc\n");
        std::string sid = dev.login();
        ts::write_file("/tmp/large.bin", spooled);
        // Relayed like any command: the body is the payload, and one reply is taken.
        ts::HttpReply r = dev.call("StartUpgrade", "sessionid=" + sid, R"({"Version":"2.1"})");
        EXPECT_EQ(final_progress(), r.body);
        EXPECT_NE(std::string::npos, dev.sim_log().find(R"("Receiver":"app_other")")) << dev.sim_log();
        EXPECT_NE(std::string::npos, dev.sim_log().find(R"("Parameters":{"Version":"2.1"})"));
        EXPECT_EQ(std::string::npos, dev.server_log().find("http recv ProgressValue"));
        // Only an image may be too large for memory.
        EXPECT_EQ(413, post_file(dev.port(), "sessionid=" + sid, "/tmp/large.bin").status);
        EXPECT_FALSE(ts::exists(kImage));
    }
    {
        ts::Device dev(8080, "", login_route);
        std::string sid = dev.login();
        ts::write_file("/tmp/large.bin", spooled);
        EXPECT_EQ(coded_failure(501, "The server does not support this protocol :StartUpgrade"),
                  post_file(dev.port(), "sessionid=" + sid, "/tmp/large.bin").body);
        EXPECT_FALSE(ts::exists(kImage));
    }
}

} // namespace
