#include "webserver/upload_image.h"

#include "actions/password_check.h"
#include "common/log.h"
#include "common/owners.h"
#include "common/text_field.h"
#include "md5/md5.h"
#include "session/login_throttle.h"
#include "session/session.h"
#include "webs/webs.h"
#include "webserver/http_reply.h"
#include "webserver/request_query.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <string_view>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr long kMinImageSize = 1024;        // 1K
constexpr long kMaxImageSize = 1920 * 1080; // the reason text speaks of 1M
constexpr int kMaxWidth = 1920;
constexpr int kMaxHeight = 1080;
constexpr size_t kDestSize = 512;
constexpr size_t kReasonSize = 128;
constexpr size_t kCopyBlock = 1024;
constexpr size_t kDigestTextSize = 64;
constexpr size_t kDigestTextLength = 32;    // a password of this length is taken as a digest
// The new image is written under this name in the watermark directory, then renamed; a dot
// name, so that a leftover of a power cut is never taken for an image.
constexpr char kTempName[] = ".upload-XXXXXX";
// The stored image may be read by the device's other applications (the overlay).
constexpr mode_t kImageMode = 0644;

// The picture formats, each with the name extensions and the leading bytes it must have.
// A PNG's signature is checked with the dimensions, which have their own replies for it.
struct ImageType {
    const char *content_type;
    const char *extensions[2];
    std::string_view signature;
};
constexpr ImageType kImageTypes[] = {
    {"image/jpeg", {".jpg", ".jpeg"}, "\xff\xd8\xff"},
    {"image/png", {".png", nullptr}, ""},
    {"image/bmp", {".bmp", nullptr}, "BM"},
};
// Bytes of a picture read for the signatures above.
constexpr size_t kSignatureRoom = 3;

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

const ImageType *image_type(const char *content_type)
{
    for (const ImageType &t : kImageTypes)
        if (content_type && strcmp(content_type, t.content_type) == 0)
            return &t;
    return nullptr;
}

bool ends_with_nocase(const char *name, const char *suffix)
{
    size_t n = strlen(name), k = strlen(suffix);
    return n >= k && strcasecmp(name + n - k, suffix) == 0;
}

// The first bytes of the uploaded file; -1 when it cannot be read.
ssize_t read_head(const char *path, unsigned char *head, size_t room)
{
    FilePtr f(fopen(path, "rbe"));
    if (!f) {
        HTTP_ERROR("The file '%s' can not be opened! \n", path);
        return -1;
    }
    size_t got = fread(head, 1, room, f.get());
    return ferror(f.get()) ? -1 : static_cast<ssize_t>(got);
}

// Removes every file of the watermark directory but the one named keep, without a shell.
// Subdirectories stay: nothing this server stores makes one.
void remove_other_files(const char *keep)
{
    DirPtr dir(opendir(WATERMARK_DIR));
    if (!dir)
        return;
    int fd = dirfd(dir.get());
    while (dirent *e = readdir(dir.get())) {
        if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0 || strcmp(e->d_name, keep) == 0)
            continue;
        struct stat st;
        if (fstatat(fd, e->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode))
            continue;
        if (unlinkat(fd, e->d_name, 0) != 0)
            HTTP_ERROR("remove file failure! path:%s%s\n", WATERMARK_DIR, e->d_name);
    }
}

void sync_watermark_dir()
{
    UniqueFd fd(open(WATERMARK_DIR, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd)
        fsync(fd.get());
}

// Writes the picture at from into a new file of the watermark directory and renames it to
// name: the old image stays until the new one is whole on the disk. 0, or -1 after the
// error lines, with nothing left behind.
int store_image(const char *from, const char *name)
{
    char temp[kDestSize];
    char dest[kDestSize];
    snprintf(temp, sizeof temp, "%s%s", WATERMARK_DIR, kTempName);
    snprintf(dest, sizeof dest, "%s%s", WATERMARK_DIR, name);
    UniqueFd fd(mkostemp(temp, O_CLOEXEC));
    if (!fd || fchmod(fd.get(), kImageMode) != 0) {
        HTTP_ERROR("The file '%s' can not be opened! \n", temp);
        if (fd)
            unlink(temp);
        return -1;
    }
    fd.reset();
    if (copyFile(from, temp) != 0) {
        unlink(temp);  // also when the picture itself could not be opened
        return -1;
    }
    if (rename(temp, dest) != 0) {
        HTTP_ERROR("Write to file '%s' failed!\n", dest);
        unlink(temp);
        return -1;
    }
    sync_watermark_dir();
    return 0;
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

// Checks the picture's dimensions; false after writing the refusal.
bool dimensions_allowed(Webs *wp, const WebsUpload *file, int *width, int *height)
{
    const char *type = file->contentType;
    if (strcmp(type, "image/png") == 0) {
        int rc = GetPNGWidthHeight(file->filename, width, height);
        if (rc != 0) {
            HTTP_ERROR("get picture width and height fail path:%s! \n", file->filename);
            // contract: exact bytes
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
        // contract: exact bytes
        HTTP_ERROR("upload PIC picture file max[1920,1080]  current[%d,%d]\n", *width, *height);
        char reason[kReasonSize];
        // contract: exact bytes
        snprintf(reason, sizeof reason, "Upload file failed! MAX picture[1920x1080],Current picture[%dx%d] \n", *width,
                 *height);
        json_perror(wp, -1, reason);
        return false;
    }
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
        unsigned char digest[MD5_DIGEST_SIZE];
        MD5Buffer(q.password, static_cast<unsigned>(strlen(q.password)), digest);
        md5_sig_to_string(digest, digest_text, sizeof digest_text);
    }
    // Checked against the store here, so guesses are throttled like the device's checks.
    const char *addr = websClientAddress(wp);
    if (!throttle_admit(addr, q.username, throttle_now_ms())) {
        HTTP_ERROR("password check for %s from %s refused: too many failed attempts\n", q.username, addr);
        json_perror(wp, -1, kThrottledReason);
        return false;
    }
    bool accepted = check_user_pass_valid(q.username, digest_text) != 0;
    throttle_record(addr, q.username, accepted, throttle_now_ms());
    if (!accepted) {
        json_perror(wp, -1, "Invalid username or password");
        HTTP_ERROR("Invalid username or password\n");
        return false;
    }
    return true;
}

int watermark_name(const char *encoded, char *name, size_t size)
{
    size_t len = strlen(encoded);
    if (len > WATERMARK_NAME_MAX)
        return -1;
    if (size <= len)
        return -2;
    return safe_name(name, decode_name(encoded, name)) ? 0 : -2;
}

bool watermark_type_fits(const char *name, const char *content_type, const unsigned char *head, size_t len)
{
    const ImageType *t = image_type(content_type);
    if (!t || !name)
        return false;
    bool named = false;
    for (const char *ext : t->extensions)
        named = named || (ext && ends_with_nocase(name, ext));
    return named && (t->signature.empty() || (head && len >= t->signature.size() &&
                                               memcmp(head, t->signature.data(), t->signature.size()) == 0));
}

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
    if (ferror(in.get()) || fflush(out.get()) != 0 || fsync(fileno(out.get())) != 0)
        return failed();
    return 0;
}

void http_upload_image(Webs *wp, const RequestQuery &query)
{
    // The caller was checked before the picture was taken in (caller_allowed); nothing is
    // touched before the picture has passed every check.
    if (!query.fileName) {
        HTTP_ERROR("fileName:%s\n", "(null)");
        json_perror(wp, -1, "upload file name cannot be empty");
        return;
    }
    char name[WATERMARK_NAME_MAX + 1];
    switch (watermark_name(query.fileName, name, sizeof name)) {
    case 0:
        break;
    case -1:
        json_perror(wp, -1, "upload file name max length!  max length 256 byte");  // contract: exact bytes
        return;
    default:
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
        json_perror(wp, -1, "Upload files up to size  MAX:1M  MIN:1K");  // contract: exact bytes
        return;
    }
    // The name decides the type the picture is served with, so it must fit the content type
    // and the content its format: an "x.html" sent as image/jpeg is no picture.
    unsigned char head[kSignatureRoom] = {};
    ssize_t head_len = read_head(file->filename, head, sizeof head);
    if (head_len < 0) {
        json_perror(wp, -1, "Upload file failed");
        return;
    }
    if (!watermark_type_fits(name, file->contentType, head, static_cast<size_t>(head_len))) {
        HTTP_DEBUG("upload osd file type :%s\n", file->contentType ? file->contentType : "");
        json_perror(wp, -1, "Invalid upload file type, Only support: .jpg .png .bmp");
        return;
    }

    int width = 0, height = 0;
    if (!dimensions_allowed(wp, file, &width, &height))
        return;
    HTTP_DEBUG("picture[%s][%dx%d]\n", file->filename, width, height);
    if (store_image(file->filename, name) != 0) {
        HTTP_ERROR("cp file failed\n");
        json_perror(wp, -1, "Upload file failed");
        return;
    }
    // Only now that the new image is in place do the old ones go.
    remove_other_files(name);
    json_OK(wp);
}
