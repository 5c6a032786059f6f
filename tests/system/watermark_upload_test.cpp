// Watermark uploads through the real binary: multipart parsing by the web layer, the caller,
// name, size, type and picture checks, and what is left in the watermark directory.
#include "device_support.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <gtest/gtest.h>
#include <set>
#include <sys/stat.h>

namespace {

using ts::coded_failure;

const std::string kWatermark = "/mnt/app/web_root/images/watermark/";

std::string be32(uint32_t v)
{
    return {static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8), static_cast<char>(v)};
}

std::string le32(uint32_t v)
{
    return {static_cast<char>(v), static_cast<char>(v >> 8), static_cast<char>(v >> 16), static_cast<char>(v >> 24)};
}

// Signature, IHDR chunk head and the two dimensions, padded to size bytes.
std::string png(uint32_t width, uint32_t height, size_t size = 2048)
{
    std::string p = std::string("\x89PNG\r\n\x1a\n", 8) + std::string("\0\0\0\x0dIHDR", 8) + be32(width) + be32(height);
    p.resize(size, '\x7f');
    return p;
}

std::string bmp(int32_t width, int32_t height, size_t size = 4096)
{
    std::string b = "BM" + le32(static_cast<uint32_t>(size)) + std::string(12, '\0') + le32(static_cast<uint32_t>(width)) +
                    le32(static_cast<uint32_t>(height));
    b.resize(size, '\0');
    return b;
}

// A start of image and a frame header of 4000 x 3000 pixels: far above the picture limits,
// which a JPEG is not measured against.
std::string jpeg(size_t size = 4096)
{
    std::string j("\xff\xd8\xff\xc0\x00\x11\x08\x0b\xb8\x0f\xa0", 11);
    j.resize(size, '\x55');
    return j;
}

// Names in the watermark directory, hidden ones left out (the shell's "*" leaves them too).
std::set<std::string> watermark_files()
{
    std::set<std::string> names;
    std::error_code ec;
    for (const auto &e : std::filesystem::directory_iterator(kWatermark, ec))
        if (e.path().filename().string()[0] != '.')
            names.insert(e.path().filename().string());
    return names;
}

// Earlier images and a stray file, all of which any upload request must clear away.
void plant_old_images()
{
    ts::make_dirs(kWatermark, 0700);
    for (const char *name : {"old.png", "older.jpg", "notes.txt"})
        ts::write_file(kWatermark + name, "old");
}

ts::HttpReply upload(int port, const std::string &query, const std::string &picture, const std::string &type)
{
    ts::write_file("/tmp/picture", picture);
    ts::HttpRequest req;
    req.method = "POST";
    req.url = ts::local_url(port, "/action/device/upload_Image?" + query);
    req.upload_path = "/tmp/picture";
    req.upload_name = "picture";
    req.upload_type = type;
    return ts::http(req);
}

std::string dimension_refusal(const std::string &current)
{
    return coded_failure(-1, "Upload file failed! MAX picture[1920x1080],Current picture[" + current + "] \n");
}

const std::string kTooSmallOrLarge = coded_failure(-1, "Upload files up to size  MAX:1M  MIN:1K");
const std::string kBadName = coded_failure(-1, "Invalid upload file name");

TEST(WatermarkUpload, PictureIsCheckedForNameSizeTypeAndDimensionsAndStoredAlone)
{
    ts::Device dev;
    std::string sid = dev.login();
    ASSERT_EQ(36u, sid.size());
    const std::string ok = ts::plain_ok();
    std::string png_bad_head = png(640, 480), png_bad_tail = png(640, 480);
    png_bad_head[1] = 'p';
    png_bad_tail[6] = '\n';
    const std::string name254 = std::string(250, 'n') + ".jpg";

    struct Case {
        const char *what;
        std::string picture, type, file_name, reply, stored;
    } cases[] = {
        {"smallest size, largest PNG", png(1920, 1080, 1024), "image/png", "a%20b.png", ok, "a b.png"},
        {"one byte too small", png(640, 480, 1023), "image/png", "small.png", kTooSmallOrLarge, ""},
        {"largest size", jpeg(2073600), "image/jpeg", "big.jpg", ok, "big.jpg"},
        {"one byte too large", jpeg(2073601), "image/jpeg", "big.jpg", kTooSmallOrLarge, ""},
        {"PNG too wide", png(1921, 1080), "image/png", "w.png", dimension_refusal("1921x1080"), ""},
        {"PNG too high", png(1920, 1081), "image/png", "h.png", dimension_refusal("1920x1081"), ""},
        {"PNG without width", png(0, 1080), "image/png", "z.png", dimension_refusal("0x1080"), ""},
        {"PNG signature wrong in its first half", png_bad_head, "image/png", "s.png",
         coded_failure(-1, "Upload file failed! png format error!\n"), ""},
        {"PNG signature wrong in its second half", png_bad_tail, "image/png", "s.png",
         coded_failure(-1, "Upload png file failed"), ""},
        {"JPEG of any pixel size", jpeg(), "image/jpeg", "photo.jpeg", ok, "photo.jpeg"},
        {"BMP", bmp(1920, 1080), "image/bmp", "logo.bmp", ok, "logo.bmp"},
        {"BMP stored top-down (negative height)", bmp(640, -480), "image/bmp", "td.bmp", dimension_refusal("640x-480"), ""},
        {"unsupported type", png(640, 480), "image/gif", "anim.gif",
         coded_failure(-1, "Invalid upload file type, Only support: .jpg .png .bmp"), ""},
        {"254-character name", jpeg(), "image/jpeg", name254, ok, name254},
        {"255-character name", jpeg(), "image/jpeg", "n" + name254,
         coded_failure(-1, "upload file name max length!  max length 256 byte"), ""},
        {"name climbing out", jpeg(), "image/jpeg", "..%2fx.png", kBadName, ""},
        {"name of the parent", jpeg(), "image/jpeg", "%2e%2e", kBadName, ""},
        {"name with a folder", jpeg(), "image/jpeg", "a%2fb.png", kBadName, ""},
        {"name cut by a NUL byte", jpeg(), "image/jpeg", "a%00.png.txt", kBadName, ""},
        {"no name", jpeg(), "image/jpeg", "", coded_failure(-1, "upload file name cannot be empty"), ""},
    };
    for (const Case &c : cases) {
        plant_old_images();
        std::string query = "sessionid=" + sid + (c.file_name.empty() ? "" : "&fileName=" + c.file_name);
        ts::HttpReply r = upload(dev.port(), query, c.picture, c.type);
        EXPECT_EQ(200, r.status) << c.what;
        EXPECT_EQ(c.reply, r.body) << c.what;
        std::set<std::string> expected;
        if (!c.stored.empty())
            expected.insert(c.stored);
        EXPECT_EQ(expected, watermark_files()) << c.what;
        if (!c.stored.empty()) {
            EXPECT_TRUE(ts::read_file(kWatermark + c.stored) == c.picture) << c.what;
        }
    }
    EXPECT_FALSE(ts::exists("/mnt/app/web_root/images/x.png"));
    EXPECT_FALSE(ts::exists("/mnt/app/web_root/images/watermark/a"));

    // A missing directory is made, for its owner only.
    ts::remove_tree(kWatermark);
    EXPECT_EQ(ts::plain_ok(), upload(dev.port(), "sessionid=" + sid + "&fileName=new.jpg", jpeg(), "image/jpeg").body);
    struct stat st {};
    EXPECT_EQ(0, stat(kWatermark.c_str(), &st));
    EXPECT_EQ(0700u, st.st_mode & 07777);
    EXPECT_EQ(std::set<std::string>{"new.jpg"}, watermark_files());

    std::string log = dev.server_log();
    for (const char *line : {">: upload PIC picture file max[1920,1080]  current[1921,1080]\n",
                             ">: [GetPNGWidthHeight:", "]:png format error\n", ">: get picture width and height fail path:",
                             "Uploading files too large : 2073601\n", "upload osd file type :image/gif\n"})
        EXPECT_NE(std::string::npos, log.find(line)) << line;
}

TEST(WatermarkUpload, OnlyAKnownCallerWithAFileStoresAnythingAndEveryRequestEmptiesTheDirectory)
{
    ts::Device dev;
    const std::string digest = ts::kAdminDigest;
    std::string upper = digest;
    std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
    const std::string refused = coded_failure(-1, "Invalid username or password");

    struct Case {
        const char *what;
        std::string caller, reply;
    } cases[] = {
        {"no session", "", coded_failure(-16, "Session ID is empty")},
        {"unknown session", "sessionid=00000000-0000-0000-0000-000000000000", coded_failure(-16, "Invalid session ID")},
        {"a 32-character password is the stored digest", "username=admin&password=" + digest, ts::plain_ok()},
        {"any other password is digested first", "username=admin&password=tavel", ts::plain_ok()},
        {"the digest is compared as it stands", "username=admin&password=" + upper, refused},
        {"wrong password", "username=admin&password=" + digest.substr(1), refused},
        {"unknown user", "username=nobody&password=" + digest, refused},
    };
    for (const Case &c : cases) {
        plant_old_images();
        ts::HttpReply r = upload(dev.port(), c.caller + (c.caller.empty() ? "" : "&") + "fileName=new.png",
                                 png(800, 600), "image/png");
        EXPECT_EQ(c.reply, r.body) << c.what;
        std::set<std::string> expected;
        if (c.reply == ts::plain_ok())
            expected.insert("new.png");
        EXPECT_EQ(expected, watermark_files()) << c.what;
    }

    // Requests that carry no file part: a plain body, and a form with a text field only.
    std::string sid = dev.login();
    plant_old_images();
    EXPECT_EQ(coded_failure(-1, "Upload file failed"),
              dev.call("upload_Image", "sessionid=" + sid + "&fileName=new.png", png(800, 600)).body);
    std::string form = "--XyZ\r\nContent-Disposition: form-data; name=\"note\"\r\n\r\nhello\r\n--XyZ--\r\n";
    std::string raw = ts::raw_http(dev.port(), "POST /action/device/upload_Image?sessionid=" + sid +
                                                   "&fileName=new.png HTTP/1.1\r\nHost: x\r\nConnection: close\r\n"
                                                   "Content-Type: multipart/form-data; boundary=XyZ\r\nContent-Length: " +
                                                   std::to_string(form.size()) + "\r\n\r\n" + form);
    EXPECT_NE(std::string::npos, raw.find("\"Reason\":\t\"Upload file failed\"")) << raw;
    EXPECT_EQ(std::set<std::string>{}, watermark_files());
}

} // namespace
