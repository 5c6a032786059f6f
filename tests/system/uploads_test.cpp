// Watermark uploads and firmware upgrades through the real binary and the simulator: what is
// checked, what is stored where, and what every refusal leaves behind.
#include "common/owners.h"
#include "testsupport.h"

#include <arpa/inet.h>

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <set>

namespace {

using ts::coded;

const std::string kWatermark = "/mnt/app/web_root/images/watermark/";

std::string be32(uint32_t v) { return {char(v >> 24), char(v >> 16), char(v >> 8), char(v)}; }
std::string le32(uint32_t v) { return {char(v), char(v >> 8), char(v >> 16), char(v >> 24)}; }
std::string padded(std::string head, size_t size, char fill) { return head.resize(size, fill), head; }

// Signature, IHDR chunk head and the two dimensions.
std::string png(uint32_t width, uint32_t height, size_t size = 2048)
{
    return padded(std::string("\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR", 16) + be32(width) + be32(height), size, '\x7f');
}

std::string bmp(int32_t width, int32_t height)
{
    return padded("BM" + le32(4096) + std::string(12, '\0') + le32(uint32_t(width)) + le32(uint32_t(height)), 4096, 0);
}

// A start of image and a frame header of 4000 x 3000 pixels: far above the picture limits,
// which a JPEG is not measured against.
std::string jpeg(size_t size = 4096)
{
    return padded(std::string("\xff\xd8\xff\xc0\x00\x11\x08\x0b\xb8\x0f\xa0", 11), size, 'U');
}

// Names in the watermark directory, hidden ones included (a new image is written under one).
std::set<std::string> watermark_files()
{
    std::set<std::string> names;
    std::error_code ec;
    for (const auto &e : std::filesystem::directory_iterator(kWatermark, ec))
        names.insert(e.path().filename().string());
    return names;
}

// Earlier images and stray files: a stored upload replaces them all, any other request
// leaves them as they are.
const std::set<std::string> kOldImages = {"old.png", "older.jpg", "notes.txt", ".hidden"};
void plant_old_images()
{
    ts::remove_tree(kWatermark);
    ts::make_dirs(kWatermark, 0700);
    for (const std::string &name : kOldImages)
        ts::write_file(kWatermark + name, "old");
}

class Watermark : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        dev = std::make_unique<ts::Device>();
        sid = dev->login();
    }
    static void TearDownTestSuite() { dev.reset(); }

    static ts::HttpReply upload(const std::string &query, const std::string &picture, const std::string &type)
    {
        ts::write_file("/tmp/picture", picture);
        return ts::http({.method = "POST", .url = ts::local_url(8080, "/action/device/upload_Image?" + query),
                         .upload_path = "/tmp/picture", .upload_name = "picture", .upload_type = type});
    }

    struct Case {
        std::string picture, type, file_name, reply, stored;  // stored: the one file left, "" when refused
    };
    // Each upload over the old images: a stored one is left alone, a refused one changes nothing.
    static void expect_uploads(std::initializer_list<Case> cases)
    {
        for (const Case &c : cases) {
            plant_old_images();
            std::string query = "sessionid=" + sid + (c.file_name.empty() ? "" : "&fileName=" + c.file_name);
            EXPECT_EQ(c.reply, upload(query, c.picture, c.type).body) << c.file_name;
            EXPECT_EQ(c.stored.empty() ? kOldImages : std::set<std::string>{c.stored}, watermark_files()) << c.file_name;
            EXPECT_TRUE(c.stored.empty() || ts::read_file(kWatermark + c.stored) == c.picture) << c.file_name;
            EXPECT_TRUE(!c.stored.empty() || ts::read_file(kWatermark + "old.png") == "old") << c.file_name;
        }
    }
    static std::string too_large(const std::string &current)
    {
        return coded(-1, "Upload file failed! MAX picture[1920x1080],Current picture[" + current + "] \n");
    }

    static inline std::unique_ptr<ts::Device> dev;
    static inline std::string sid;
    static inline const std::string ok = ts::plain_ok(), bad_name = coded(-1, "Invalid upload file name"),
                                    bad_type = coded(-1, "Invalid upload file type, Only support: .jpg .png .bmp"),
                                    sizes = coded(-1, "Upload files up to size  MAX:1M  MIN:1K");
};

TEST_F(Watermark, AStoredPictureReplacesEveryOldFile)
{
    expect_uploads({
        {png(1920, 1080, 1024), "image/png", "a%20b.png", ok, "a b.png"},
        {jpeg(), "image/jpeg", "photo.jpeg", ok, "photo.jpeg"},
        {bmp(1920, 1080), "image/bmp", "logo.bmp", ok, "logo.bmp"},
        {jpeg(), "image/jpeg", "UPPER.JPG", ok, "UPPER.JPG"},
    });
}

TEST_F(Watermark, ThePictureMustWeighBetweenOneKilobyteAndItsLimit)
{
    expect_uploads({
        {png(640, 480, 1023), "image/png", "small.png", sizes, ""},
        {jpeg(2073600), "image/jpeg", "big.jpg", ok, "big.jpg"},
        {jpeg(2073601), "image/jpeg", "big.jpg", sizes, ""},
    });
}

TEST_F(Watermark, APngOrBmpMustFitIn1920By1080)
{
    expect_uploads({
        {png(1921, 1080), "image/png", "w.png", too_large("1921x1080"), ""},
        {png(1920, 1081), "image/png", "h.png", too_large("1920x1081"), ""},
        {png(0, 1080), "image/png", "z.png", too_large("0x1080"), ""},
        {bmp(640, -480), "image/bmp", "td.bmp", too_large("640x-480"), ""},  // stored top-down
    });
}

TEST_F(Watermark, APngWithABrokenSignatureIsRefused)
{
    std::string bad_head = png(640, 480), bad_tail = png(640, 480);
    bad_head[1] = 'p';
    bad_tail[6] = '\n';
    expect_uploads({
        {bad_head, "image/png", "s.png", coded(-1, "Upload file failed! png format error!\n"), ""},
        {bad_tail, "image/png", "s.png", coded(-1, "Upload png file failed"), ""},
    });
}

TEST_F(Watermark, ANameOver254CharactersIsRefused)
{
    const std::string name254 = std::string(250, 'n') + ".jpg";
    expect_uploads({
        {jpeg(), "image/jpeg", name254, ok, name254},
        {jpeg(), "image/jpeg", "n" + name254, coded(-1, "upload file name max length!  max length 256 byte"), ""},
    });
}

TEST_F(Watermark, ANameMustNameAFileInTheFolder)
{
    expect_uploads({
        {jpeg(), "image/jpeg", "..%2fx.png", bad_name, ""},
        {jpeg(), "image/jpeg", "%2e%2e", bad_name, ""},
        {jpeg(), "image/jpeg", "a%2fb.png", bad_name, ""},
        {jpeg(), "image/jpeg", "a%00.png.txt", bad_name, ""},
        {jpeg(), "image/jpeg", "", coded(-1, "upload file name cannot be empty"), ""},
    });
    EXPECT_FALSE(ts::exists("/mnt/app/web_root/images/x.png"));
    EXPECT_FALSE(ts::exists(kWatermark + "a"));
}

// The name decides the type it is served with: it must fit the type, and the content must
// start like its format.
TEST_F(Watermark, ThePictureMustBeWhatItsNameSays)
{
    expect_uploads({
        {png(640, 480), "image/gif", "anim.gif", bad_type, ""},
        {jpeg(), "image/jpeg", "x.html", bad_type, ""},
        {jpeg(), "image/jpeg", "x.svg", bad_type, ""},
        {png(640, 480), "image/jpeg", "x.jpg", bad_type, ""},
        {png(640, 480), "image/png", "x.bmp", bad_type, ""},
        {padded("MB", 4096, 0), "image/bmp", "x.bmp", bad_type, ""},
    });
}

TEST_F(Watermark, ACopyCutShortByAFullCardKeepsTheOldWatermark)
{
    plant_old_images();
    ASSERT_EQ(0, ts::run({"/bin/mount", "-t", "tmpfs", "-o", "size=8k", "tmpfs", kWatermark}));
    ts::write_file(kWatermark + "old.png", "old");
    EXPECT_EQ(coded(-1, "Upload file failed"),
              upload("sessionid=" + sid + "&fileName=full.jpg", jpeg(64 * 1024), "image/jpeg").body);
    EXPECT_EQ(std::set<std::string>{"old.png"}, watermark_files());
    EXPECT_EQ("old", ts::read_file(kWatermark + "old.png"));
    ASSERT_EQ(0, ts::run({"/bin/umount", kWatermark}));
}

TEST_F(Watermark, AMissingFolderIsMadeForItsOwnerAlone)
{
    ts::remove_tree(kWatermark);
    EXPECT_EQ(ok, upload("sessionid=" + sid + "&fileName=new.jpg", jpeg(), "image/jpeg").body);
    EXPECT_EQ(0700u, static_cast<unsigned>(std::filesystem::status(kWatermark).permissions()));
    EXPECT_EQ(std::set<std::string>{"new.jpg"}, watermark_files());
}

TEST_F(Watermark, OnlyAKnownCallerStoresAPicture)
{
    const std::string digest = ts::kAdminDigest, refused = coded(-1, "Invalid username or password");
    std::string upper = digest;
    std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
    const std::pair<std::string, std::string> callers[] = {
        {"", coded(-16, "Session ID is empty")},
        {"username=admin&password=" + digest + "&", ts::plain_ok()},  // 32 characters: the stored digest
        {"username=admin&password=tavel&", ts::plain_ok()},           // any other password is digested first
        {"username=admin&password=" + upper + "&", refused},          // the digest is compared as it stands
        {"username=admin&password=" + digest.substr(1) + "&", refused},
        {"username=nobody&password=" + digest + "&", refused},
    };
    for (const auto &[caller, reply] : callers) {
        plant_old_images();
        EXPECT_EQ(reply, upload(caller + "fileName=new.png", png(800, 600), "image/png").body) << caller;
        EXPECT_EQ(reply == ts::plain_ok() ? std::set<std::string>{"new.png"} : kOldImages, watermark_files())
            << caller;
    }
}

TEST_F(Watermark, ARequestWithoutAFilePartStoresNothing)
{
    plant_old_images();
    EXPECT_EQ(coded(-1, "Upload file failed"),
              dev->call("upload_Image", "sessionid=" + sid + "&fileName=new.png", png(800, 600)).body);
    EXPECT_EQ(kOldImages, watermark_files());
}

constexpr char kImage[] = "/tmp/upgrade";
constexpr char kAnnouncement[] = R"("Parameters":{"UpgradeImageFile":"/tmp/upgrade"})";
const std::string kFinalProgress =
    "{\n\t\"Result\":\t\"OK\",\n\t\"Parameters\":\t{\n\t\t\"UpgradeProgressValue\":\t100\n\t}\n}";

// An image of mib MiB whose every block differs, so a misplaced block shows.
void write_image(const std::string &path, int mib)
{
    std::string image(static_cast<size_t>(mib) << 20, '\0');
    for (size_t j = 0; j < image.size(); ++j)
        image[j] = static_cast<char>((j + (j >> 20) * 7) % 251);
    ts::write_file(path, image);
}

ts::HttpReply post_image(const std::string &query, const std::string &path)
{
    return ts::http({.url = ts::local_url(8080, "/action/device/StartUpgrade" + (query.empty() ? "" : "?" + query)),
                     .body_file = path, .timeout_ms = 60000});
}

class UpgradeImage : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        dev = std::make_unique<ts::Device>();
        query = "sessionid=" + dev->login();
        std::string small;
        for (int i = 0; i < 3000; ++i)
            small += static_cast<char>(i % 256);  // NUL bytes included: the body is no text
        ts::write_file(kSmall, small);
        write_image(kSpooled, 1);  // above what is held in memory: spooled
    }
    static void TearDownTestSuite() { dev.reset(); }

    static size_t announcements() { return ts::occurrences(dev->sim().log(), kAnnouncement); }

    static constexpr char kSmall[] = "/tmp/small.bin", kSpooled[] = "/tmp/spooled.bin";
    static inline std::unique_ptr<ts::Device> dev;
    static inline std::string query;
};

TEST_F(UpgradeImage, AnImageReplacesTheOldOneByteForByte)
{
    ts::write_file(kImage, "previous image");  // the empty body comes first: replaced whole
    ts::write_file("/tmp/empty.bin", "");
    for (const char *body : {"/tmp/empty.bin", kSmall, kSpooled}) {
        EXPECT_EQ(kFinalProgress, post_image(query, body).body) << body;
        EXPECT_EQ(0, ts::run({"/usr/bin/cmp", "-s", body, kImage})) << body;
        EXPECT_EQ(0600u, static_cast<unsigned>(std::filesystem::status(kImage).permissions())) << body;
    }
}

TEST_F(UpgradeImage, A100MiBImageNeverPassesThroughTheServersMemory)
{
    write_image("/tmp/large.bin", 100);
    EXPECT_EQ(kFinalProgress, post_image(query, "/tmp/large.bin").body);
    EXPECT_EQ(0, ts::run({"/usr/bin/cmp", "-s", "/tmp/large.bin", kImage}));
    ts::remove_tree("/tmp/large.bin");
    if (ts::skipped_under_emulation("the server's peak memory", "the emulator's own memory would count"))
        return;
    std::string status = ts::read_file("/proc/" + std::to_string(dev->server().pid()) + "/status");
    long peak_kib = std::stol(status.substr(status.find("VmHWM:") + 6));
    // About 7 MiB in a normal build; a sanitizer build keeps shadow memory beside it.
    EXPECT_LT(peak_kib, 24 * 1024);
    std::cerr << "peak " << peak_kib << "\n";
}

TEST_F(UpgradeImage, EachImageIsAnnouncedToTheUpgradeApplication)
{
    size_t announced = announcements();
    EXPECT_EQ(kFinalProgress, post_image(query, kSmall).body);
    EXPECT_EQ(announced + 1, announcements());
}

TEST_F(UpgradeImage, TheProgressIsFollowedToTheEnd)
{
    size_t before = dev->server().log().size();
    EXPECT_EQ(kFinalProgress, post_image(query, kSmall).body);
    std::string traced = dev->server().log().substr(before);
    for (int value = 0; value <= 100; value += 20)
        EXPECT_EQ(1u, ts::occurrences(traced, "http recv ProgressValue->valueint " + std::to_string(value) + "\n"))
            << value;
}

TEST_F(UpgradeImage, ARefusedCallerStoresNothing)
{
    ts::write_file(kImage, "current image");
    size_t announced = announcements();
    const std::pair<std::string, std::string> refused[] = {
        {"", coded(-16, "Session ID is empty")},
        {"username=admin&password=wrong", ts::fail("Invalid username or password")},
    };
    for (const auto &[caller, reply] : refused)
        for (const char *body : {kSmall, kSpooled}) {
            EXPECT_EQ(reply, post_image(caller, body).body) << caller << " " << body;
            EXPECT_EQ("current image", ts::read_file(kImage)) << caller << " " << body;
        }
    EXPECT_EQ(0, ts::temp_files());
    EXPECT_EQ(announced, announcements());
}

TEST_F(UpgradeImage, AFolderWhereTheImageGoesIsKept)
{
    ts::remove_tree(kImage);
    ts::make_dirs(std::string(kImage) + "/keep");
    size_t announced = announcements();
    for (const char *body : {kSmall, kSpooled}) {
        EXPECT_EQ(coded(550, "upgrade wirte fail"), post_image(query, body).body) << body;
        EXPECT_TRUE(ts::exists(std::string(kImage) + "/keep")) << body;
    }
    EXPECT_EQ(0, ts::temp_files());
    EXPECT_EQ(announced, announcements());
    ts::remove_tree(kImage);
}

std::string head_of_image(const std::string &query, unsigned long long length)
{
    return "POST /action/device/StartUpgrade?" + query + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n"
           "Content-Length: " + std::to_string(length) + "\r\n\r\n";
}

// Images waiting in /tmp are bounded together: one of the largest size may wait, a second
// large one beside it is refused, before it is sent when its length is known.
TEST(Upgrade, ImagesWaitingInTemporaryFilesAreBoundedTogether)
{
    ts::Device dev("", "", 8082);
    std::string query = "sessionid=" + dev.login();
    const unsigned long long image = 200ull << 20;
    UniqueFd first = ts::connect_from("127.0.0.1", 8082);
    std::string head = head_of_image(query, 256ull << 20) + std::string(1 << 20, 'i');
    ASSERT_EQ(head.size(), static_cast<size_t>(send(first.get(), head.data(), head.size(), MSG_NOSIGNAL)));
    ASSERT_TRUE(ts::eventually([] { return ts::temp_files_now() == 1; }));
    EXPECT_EQ("HTTP/1.1 503 Service Unavailable", ts::status_line(ts::raw_http(8082, head_of_image(query, image), 2000)));
    std::string chunked = "POST /action/device/StartUpgrade?" + query + " HTTP/1.1\r\nHost: localhost\r\n"
                          "Connection: close\r\nTransfer-Encoding: chunked\r\n\r\n";
    for (int i = 0; i < 24; ++i)
        chunked += "100000\r\n" + std::string(1 << 20, 'c') + "\r\n";
    EXPECT_EQ("HTTP/1.1 503 Service Unavailable", ts::status_line(ts::raw_http(8082, chunked + "0\r\n\r\n", 5000)));
    // Once the first client is gone, its room is free again: the next body is awaited.
    first.reset();
    EXPECT_EQ(0, ts::temp_files());
    EXPECT_EQ("", ts::raw_http(8082, head_of_image(query, image), 300));
}

// Routed to another application, "StartUpgrade" is relayed like any command and stores nothing.
TEST(Upgrade, OnlyTheUpgradeApplicationsRouteStoresAnImage)
{
    ts::Device dev("", "VerifyPassword app_user ipc:///tmp/app_user.ipc\n"
                       "StartUpgrade app_other ipc:///tmp/app_other.ipc\n");
    std::string query = "sessionid=" + dev.login();
    EXPECT_EQ(kFinalProgress, dev.call("StartUpgrade", query, R"({"Version":"2.1"})").body);
    EXPECT_NE(std::string::npos, dev.sim().log().find(R"("Receiver":"app_other")"));
    EXPECT_NE(std::string::npos, dev.sim().log().find(R"("Parameters":{"Version":"2.1"})"));
    ts::write_file("/tmp/large.bin", std::string(100 * 1024, 'i'));  // more than is held in memory
    EXPECT_EQ(413, post_image(query, "/tmp/large.bin").status);     // only an image may be that large
    EXPECT_FALSE(ts::exists(kImage));
}

} // namespace
