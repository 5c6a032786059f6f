#include "webserver/upload_image.h"

#include "actions/password_check.h"
#include "common/log.h"
#include "common/owners.h"
#include "common/syscmd.h"
#include "json2c/json_fields.h"
#include "md5/md5.h"
#include "session/session.h"
#include "webs/webs.h"
#include "webserver/http_reply.h"
#include "webserver/request_query.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char kEmptyWatermark[] = "rm -rf /mnt/app/web_root/images/watermark/*";
constexpr size_t kMaxNameLength = 254;      // of the encoded name in the query
constexpr long kMinImageSize = 1024;        // 1K
constexpr long kMaxImageSize = 1920 * 1080; // the reason text speaks of 1M
constexpr int kMaxWidth = 1920;
constexpr int kMaxHeight = 1080;
constexpr size_t kDestSize = 512;
constexpr size_t kReasonSize = 128;
constexpr size_t kCopyBlock = 1024;
constexpr size_t kDigestTextSize = 64;
constexpr size_t kDigestTextLength = 32;    // a password of this length is taken as a digest

const char *const kImageTypes[] = {"image/jpeg", "image/png", "image/bmp"};
const char *const kOldImageMarks[] = {".jpg", ".bmp", ".png", ".gif", ".jpeg"};

int hex_value(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// Percent-decodes src into dest (at least strlen(src) + 1 bytes). A non-hexadecimal digit
// counts as -1 and the byte is taken modulo 256; a "%" without two characters after it is
// kept as it is. Returns the decoded length (the text may hold NUL bytes).
size_t decode_name(const char *src, char *dest)
{
    size_t n = 0;
    for (const char *p = src; *p; ++p) {
        if (*p == '%' && p[1] && p[2]) {
            dest[n++] = static_cast<char>(static_cast<unsigned>(hex_value(p[1]) * 16 + hex_value(p[2])) & 0xff);
            p += 2;
        } else {
            dest[n++] = *p;
        }
    }
    dest[n] = '\0';
    return n;
}

// A decoded name must name a file inside the watermark directory.
bool safe_name(const char *name, size_t len)
{
    return len > 0 && strlen(name) == len && !strchr(name, '/') && strcmp(name, ".") != 0 && strcmp(name, "..") != 0;
}

bool allowed_type(const char *type)
{
    for (const char *t : kImageTypes)
        if (type && strcmp(type, t) == 0)
            return true;
    return false;
}

// Deletes the first old image found in the watermark directory (at most one).
void delete_old_image()
{
    DirPtr dir(opendir(WATERMARK_DIR));
    if (!dir)
        return;
    while (dirent *e = readdir(dir.get())) {
        if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0)
            continue;
        for (const char *mark : kOldImageMarks) {
            if (strstr(e->d_name, mark)) {
                char path[kDestSize];
                snprintf(path, sizeof path, "%s%s", WATERMARK_DIR, e->d_name);
                unlink(path);
                return;
            }
        }
    }
}

uint32_t read_be32(const unsigned char *p)
{
    return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

uint32_t read_le32(const unsigned char *p)
{
    return (uint32_t{p[3]} << 24) | (uint32_t{p[2]} << 16) | (uint32_t{p[1]} << 8) | p[0];
}

// Reads a BMP's width and height; false when the file cannot be opened or read.
bool get_bmp_width_height(const char *path, int *width, int *height)
{
    FilePtr f(fopen(path, "rbe"));
    unsigned char head[26];
    if (!f || fread(head, 1, sizeof head, f.get()) != sizeof head)
        return false;
    *width = static_cast<int32_t>(read_le32(head + 18));
    *height = static_cast<int32_t>(read_le32(head + 22));
    return true;
}

} // namespace

bool caller_allowed(Webs *wp, const RequestQuery &q)
{
    if (!q.username || !q.password) {
        if (!q.sessionid) {
            HTTP_ERROR("sessionId:%s\n", "(null)");
            json_perror(wp, -16, "Session ID is empty");
            return false;
        }
        if (find_saved_session(q.sessionid, "set") < 0) {
            HTTP_ERROR("sessionId:%s\n", q.sessionid);
            json_perror(wp, -16, "Invalid session ID");
            return false;
        }
        return true;
    }
    char digest_text[kDigestTextSize] = "";
    if (strlen(q.password) == kDigestTextLength) {
        copy_field(digest_text, sizeof digest_text, q.password);
    } else {
        unsigned char digest[16];
        MD5Buffer(q.password, static_cast<unsigned>(strlen(q.password)), digest);
        md5_sig_to_string(digest, digest_text, sizeof digest_text);
    }
    if (check_user_pass_valid(q.username, digest_text) == 0) {
        json_perror(wp, -1, "Invalid username or password");
        HTTP_ERROR("Invalid username or password\n");
        return false;
    }
    return true;
}

namespace {

// Checks the picture's dimensions; false after writing the refusal.
bool dimensions_allowed(Webs *wp, const WebsUpload *file, int *width, int *height)
{
    const char *type = file->contentType;
    if (strcmp(type, "image/png") == 0) {
        int rc = GetPNGWidthHeight(file->filename, width, height);
        if (rc != 0) {
            HTTP_ERROR("get picture width and height fail path:%s! \n", file->filename);
            json_perror(wp, -1, rc == -2 ? "Upload file failed! png format error!\n" : "Upload png file failed");
            return false;
        }
    } else if (strcmp(type, "image/bmp") == 0) {
        if (!get_bmp_width_height(file->filename, width, height)) {
            json_perror(wp, -1, "Upload file failed");
            return false;
        }
    } else {
        return true;  // JPEG pictures are not measured
    }
    if (*width < 1 || *width > kMaxWidth || *height < 1 || *height > kMaxHeight) {
        HTTP_ERROR("upload PIC picture file max[1920,1080]  current[%d,%d]\n", *width, *height);
        char reason[kReasonSize];
        snprintf(reason, sizeof reason, "Upload file failed! MAX picture[1920x1080],Current picture[%dx%d] \n", *width,
                 *height);
        json_perror(wp, -1, reason);
        return false;
    }
    return true;
}

} // namespace

int GetPNGWidthHeight(const char *path, int *width, int *height)
{
    static const unsigned char kHead[4] = {0x89, 0x50, 0x4E, 0x47};
    static const unsigned char kTail[4] = {0x0D, 0x0A, 0x1A, 0x0A};
    FilePtr f(fopen(path, "rbe"));
    if (!f) {
        HTTP_ERROR("[GetPNGWidthHeight]:can't open file:%s\n", path);
        return -1;
    }
    unsigned char head[24] = {};
    size_t got = fread(head, 1, sizeof head, f.get());
    if (got < 4 || memcmp(head, kHead, 4) != 0) {
        HTTP_ERROR("[GetPNGWidthHeight:%s]:png format error\n", path);
        return -2;
    }
    if (got < sizeof head || memcmp(head + 4, kTail, 4) != 0) {
        HTTP_ERROR("[GetPNGWidthHeight:%s]:png format error\n", path);
        return -3;
    }
    *width = static_cast<int32_t>(read_be32(head + 16));
    *height = static_cast<int32_t>(read_be32(head + 20));
    return 0;
}

int copyFile(const char *from, const char *to)
{
    FilePtr in(fopen(from, "re"));
    if (!in) {
        HTTP_ERROR("The file '%s' can not be opened! \n", from);
        return -1;
    }
    // Created or truncated like fopen("w"), but never through a link planted at the name.
    int fd = open(to, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0666);
    FilePtr out(fd >= 0 ? fdopen(fd, "w") : nullptr);
    if (!out) {
        if (fd >= 0)
            close(fd);
        HTTP_ERROR("The file '%s' can not be opened! \n", to);
        return -1;
    }
    // A copy that stops half-way is removed: a cut image must not stay as the watermark.
    auto failed = [to] {
        HTTP_ERROR("Write to file '%s' failed!\n", to);
        unlink(to);
        return -1;
    };
    char block[kCopyBlock];
    size_t n;
    while ((n = fread(block, 1, sizeof block, in.get())) > 0)
        if (fwrite(block, 1, n, out.get()) != n)
            return failed();
    if (ferror(in.get()) || fflush(out.get()) != 0)
        return failed();
    return 0;
}

void http_upload_image(Webs *wp, const RequestQuery &query)
{
    // The directory is emptied first (the caller was checked before the picture was taken
    // in), so a refused picture leaves no image behind.
    HTTP_SYSTEM_CMD(kEmptyWatermark);
    if (system(kEmptyWatermark) != 0)
        HTTP_ERROR("system(%s) failed\n", kEmptyWatermark);
    if (!query.fileName) {
        HTTP_ERROR("fileName:%s\n", "(null)");
        json_perror(wp, -1, "upload file name cannot be empty");
        return;
    }
    size_t encoded_len = strlen(query.fileName);
    if (encoded_len > kMaxNameLength) {
        json_perror(wp, -1, "upload file name max length!  max length 256 byte");
        return;
    }
    char name[kMaxNameLength + 1];
    size_t name_len = decode_name(query.fileName, name);
    if (!safe_name(name, name_len)) {
        json_perror(wp, -1, "Invalid upload file name");
        return;
    }
    mkdir(WATERMARK_DIR, 0700);

    const WebsUpload *file = wp->currentFile;
    if (!file) {
        json_perror(wp, -1, "Upload file failed");
        return;
    }
    if (file->size < kMinImageSize || file->size > kMaxImageSize) {
        HTTP_DEBUG("Uploading files too large : %ld\n", static_cast<long>(file->size));
        json_perror(wp, -1, "Upload files up to size  MAX:1M  MIN:1K");
        return;
    }
    if (!allowed_type(file->contentType)) {
        HTTP_DEBUG("upload osd file type :%s\n", file->contentType ? file->contentType : "");
        json_perror(wp, -1, "Invalid upload file type, Only support: .jpg .png .bmp");
        return;
    }
    delete_old_image();
    char dest[kDestSize];
    snprintf(dest, sizeof dest, "%s%s", WATERMARK_DIR, name);

    int width = 0, height = 0;
    if (!dimensions_allowed(wp, file, &width, &height))
        return;
    HTTP_DEBUG("picture[%s][%dx%d]\n", file->filename, width, height);
    if (copyFile(file->filename, dest) != 0) {
        HTTP_ERROR("cp file failed\n");
        json_perror(wp, -1, "Upload file failed");
        return;
    }
    json_OK(wp);
}
