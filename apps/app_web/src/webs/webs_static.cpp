// Static documents under the document root: GET and HEAD, index pages, content types by
// extension, one byte range per request, Last-Modified / If-Modified-Since. Large files go
// out with sendfile through libmicrohttpd's file responses; small ones are read into memory.
//
// The path has already been decoded and checked for NUL bytes, backslashes and dot segments
// (webs_server.cpp). A path without symbolic links is opened beneath the root in one step;
// one with links is resolved with realpath and must stay inside the resolved document root.
// Either way the real path must be one that the route file lets be fetched.
#include "common/log.h"
#include "common/owners.h"
#include "webs/webs_internal.h"
#include "webs/webs_limits.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <linux/openat2.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace webs {

namespace {

struct MimeType {
    const char *ext;
    const char *type;
};

constexpr MimeType kMimeTypes[] = {
    {"html", "text/html; charset=utf-8"},
    {"htm", "text/html; charset=utf-8"},
    {"js", "application/javascript"},
    {"css", "text/css"},
    {"json", "application/json"},
    {"txt", "text/plain; charset=utf-8"},
    {"xml", "application/xml"},
    {"png", "image/png"},
    {"jpg", "image/jpeg"},
    {"jpeg", "image/jpeg"},
    {"bmp", "image/bmp"},
    {"gif", "image/gif"},
    {"svg", "image/svg+xml"},
    {"ico", "image/x-icon"},
    {"webp", "image/webp"},
    {"woff", "font/woff"},
    {"woff2", "font/woff2"},
    {"ttf", "font/ttf"},
    {"mp4", "video/mp4"},
    {"avi", "video/x-msvideo"},
    {"h264", "video/h264"},
    {"h265", "video/h265"},
    {"pdf", "application/pdf"},
};

// The folder of uploaded pictures, and the only types served from it: a file there is never
// taken as a page or script of the device's origin, whatever its name.
constexpr std::string_view kPictureFolder = "/images/watermark/";
constexpr std::string_view kPictureTypes[] = {"image/jpeg", "image/png", "image/bmp"};

enum class RangeKind { Whole, Part, Unsatisfiable };

struct Range {
    RangeKind kind = RangeKind::Whole;
    uint64_t first = 0, last = 0;
};

// Reads decimal digits from *p; false when there are none or the value overflows.
bool read_number(const char **p, uint64_t *value)
{
    const char *s = *p;
    uint64_t v = 0;
    if (*s < '0' || *s > '9')
        return false;
    for (; *s >= '0' && *s <= '9'; ++s) {
        if (v > (UINT64_MAX - 9) / 10)
            return false;
        v = v * 10 + static_cast<uint64_t>(*s - '0');
    }
    *p = s;
    *value = v;
    return true;
}

// One "bytes=" range. Anything unreadable, and a list of several ranges, is answered with
// the whole document, as a server that does not support ranges would.
Range parse_range(const char *header, uint64_t size)
{
    Range r;
    if (!header || strncasecmp(header, "bytes=", 6) != 0 || strchr(header, ','))
        return r;
    const char *p = header + 6;
    while (*p == ' ')
        ++p;
    uint64_t a = 0, b = 0;
    if (*p == '-') {
        ++p;
        if (!read_number(&p, &b) || *p != '\0')
            return r;
        if (b == 0 || size == 0) {
            r.kind = RangeKind::Unsatisfiable;
            return r;
        }
        r.kind = RangeKind::Part;
        r.first = b >= size ? 0 : size - b;
        r.last = size - 1;
        return r;
    }
    if (!read_number(&p, &a) || *p++ != '-')
        return r;
    bool open_ended = *p == '\0';
    if (!open_ended && (!read_number(&p, &b) || *p != '\0' || b < a))
        return r;
    if (a >= size) {
        r.kind = RangeKind::Unsatisfiable;
        return r;
    }
    r.kind = RangeKind::Part;
    r.first = a;
    r.last = open_ended || b >= size ? size - 1 : b;
    return r;
}

std::string http_date(time_t t)
{
    struct tm tm;
    char buf[64];
    gmtime_r(&t, &tm);
    strftime(buf, sizeof buf, "%a, %d %b %Y %H:%M:%S GMT", &tm);
    return buf;
}

// True when the client's copy, dated by If-Modified-Since, is still current.
bool not_modified(MHD_Connection *c, time_t mtime)
{
    const char *v = MHD_lookup_connection_value(c, MHD_HEADER_KIND, MHD_HTTP_HEADER_IF_MODIFIED_SINCE);
    if (!v)
        return false;
    struct tm tm {};
    const char *end = strptime(v, "%a, %d %b %Y %H:%M:%S GMT", &tm);
    if (!end || *end != '\0')
        return false;
    return mtime <= timegm(&tm);
}

bool inside_root(const std::string &resolved, const std::string &root)
{
    return resolved.size() > root.size() && resolved.compare(0, root.size(), root) == 0 &&
           resolved[root.size()] == '/';
}

// The real path of a document inside the root, or "" when it has none there.
std::string resolve(const DocumentConfig &cfg, std::string_view path)
{
    char real[PATH_MAX];
    // A directory stands for its index page, which must resolve inside the root as well.
    auto to_index = [&](std::string &dir) {
        dir += '/';
        dir += cfg.index;
        if (!realpath(dir.c_str(), real))
            return false;
        dir = real;
        return inside_root(dir, cfg.root);
    };
    std::string candidate = cfg.root;
    candidate.append(path);
    if (candidate.back() == '/')
        candidate += cfg.index;
    if (!realpath(candidate.c_str(), real))
        return {};
    std::string resolved(real);
    if (resolved == cfg.root ? !to_index(resolved) : !inside_root(resolved, cfg.root))
        return {};
    struct stat st;
    if (stat(resolved.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && !to_index(resolved))
        return {};
    return resolved;
}

// Opens path below the root with no symbolic link anywhere on the way, the kernel keeping
// the lookup beneath the root (one system call instead of realpath's one per component).
// -1 with errno ELOOP or EXDEV when a link is involved, ENOSYS on kernels without openat2.
int open_beneath(int root_fd, const char *relative)
{
    open_how how{};
    how.flags = O_RDONLY | O_CLOEXEC;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    return static_cast<int>(syscall(SYS_openat2, root_fd, relative, &how, sizeof how));
}

// Opens the regular file that path names inside the root, the index page for the root and
// for directories; fills its real path and status. Links are resolved with realpath and
// must stay inside the root.
UniqueFd open_document(const DocumentConfig &cfg, std::string_view path, std::string *resolved, struct stat *st)
{
    std::string relative(path.substr(1));
    if (relative.empty() || relative.back() == '/')
        relative += cfg.index;
    bool slow = cfg.root_fd < 0;
    for (int turn = 0; turn < 2 && !slow; ++turn) {
        UniqueFd fd(open_beneath(cfg.root_fd, relative.c_str()));
        if (!fd) {
            if (errno == ENOENT || errno == ENOTDIR)
                return {};
            slow = true;
            break;
        }
        if (fstat(fd.get(), st) != 0)
            return {};
        if (S_ISDIR(st->st_mode) && turn == 0) {
            relative += '/';
            relative += cfg.index;
            continue;
        }
        if (!S_ISREG(st->st_mode))
            return {};
        *resolved = cfg.root + "/" + relative;
        return fd;
    }
    if (!slow)
        return {};
    *resolved = resolve(cfg, path);
    if (resolved->empty())
        return {};
    UniqueFd fd(open(resolved->c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!fd || fstat(fd.get(), st) != 0 || !S_ISREG(st->st_mode))
        return {};
    return fd;
}

MHD_Response *file_response(UniqueFd fd, uint64_t offset, uint64_t length, bool head)
{
    // For HEAD, libmicrohttpd sends the headers of the file response (Content-Length
    // included) and never reads the file.
    if (!head && length <= webs_limits::kMaxMemoryFile) {
        char buf[webs_limits::kMaxMemoryFile];
        ssize_t n = length ? pread(fd.get(), buf, length, static_cast<off_t>(offset)) : 0;
        if (n == static_cast<ssize_t>(length))
            return MHD_create_response_from_buffer(length, buf, MHD_RESPMEM_MUST_COPY);
        // A file that changed under us: fall through to a file response, which reports it.
    }
    MHD_Response *response = MHD_create_response_from_fd_at_offset64(length, fd.get(), offset);
    if (response)
        (void)fd.release();  // closed by libmicrohttpd with the response
    return response;
}

}  // namespace

const char *mime_type(std::string_view path)
{
    size_t slash = path.rfind('/');
    size_t dot = path.rfind('.');
    if (dot != std::string_view::npos && (slash == std::string_view::npos || dot > slash)) {
        std::string_view ext = path.substr(dot + 1);
        for (const MimeType &m : kMimeTypes)
            if (ext.size() == strlen(m.ext) && strncasecmp(ext.data(), m.ext, ext.size()) == 0)
                return m.type;
    }
    return "application/octet-stream";
}

MHD_Result serve_document(MHD_Connection *connection, const char *method, std::string_view path)
{
    const DocumentConfig &cfg = document_config();
    std::string resolved;
    struct stat st;
    UniqueFd fd = open_document(cfg, path, &resolved, &st);
    // The file must lie where the route file allows fetching it: a link from a public folder
    // into a private one serves nothing.
    const Route *route =
        fd ? match_route(*cfg.routes, std::string_view(resolved).substr(cfg.root.size())) : nullptr;
    if (!route || route->handler != Handler::File || !route_allows(*route, method))
        return queue_error_page(connection, MHD_HTTP_NOT_FOUND, "Cannot find document");

    uint64_t size = static_cast<uint64_t>(st.st_size);
    std::string modified = http_date(st.st_mtime);
    const char *type = mime_type(resolved);
    if (std::string_view(resolved).substr(cfg.root.size()).starts_with(kPictureFolder) &&
        std::find(std::begin(kPictureTypes), std::end(kPictureTypes), type) == std::end(kPictureTypes))
        return queue_error_page(connection, MHD_HTTP_NOT_FOUND, "Cannot find document");
    bool head = strcmp(method, MHD_HTTP_METHOD_HEAD) == 0;

    if (not_modified(connection, st.st_mtime)) {
        MHD_Response *response = MHD_create_response_from_buffer(0, const_cast<char *>(""), MHD_RESPMEM_PERSISTENT);
        if (!response)
            return MHD_NO;
        MHD_add_response_header(response, MHD_HTTP_HEADER_LAST_MODIFIED, modified.c_str());
        return queue_response(connection, MHD_HTTP_NOT_MODIFIED, response);
    }

    Range range = parse_range(MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_RANGE), size);
    if (range.kind == RangeKind::Unsatisfiable) {
        std::string page = "Requested range not satisfiable\n";
        MHD_Response *response = MHD_create_response_from_buffer(page.size(), page.data(), MHD_RESPMEM_MUST_COPY);
        if (!response)
            return MHD_NO;
        std::string all = "bytes */" + std::to_string(size);
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_RANGE, all.c_str());
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, "text/plain; charset=utf-8");
        return queue_response(connection, MHD_HTTP_RANGE_NOT_SATISFIABLE, response);
    }
    bool part = range.kind == RangeKind::Part;
    uint64_t offset = part ? range.first : 0;
    uint64_t length = part ? range.last - range.first + 1 : size;
    MHD_Response *response = file_response(std::move(fd), offset, length, head);
    if (!response) {
        HTTP_ERROR("cannot answer with %s\n", resolved.c_str());
        return queue_error_page(connection, MHD_HTTP_INTERNAL_SERVER_ERROR, "Cannot read document");
    }
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, type);
    MHD_add_response_header(response, MHD_HTTP_HEADER_LAST_MODIFIED, modified.c_str());
    MHD_add_response_header(response, MHD_HTTP_HEADER_ACCEPT_RANGES, "bytes");
    if (part) {
        std::string value = "bytes " + std::to_string(range.first) + "-" + std::to_string(range.last) + "/" +
                            std::to_string(size);
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_RANGE, value.c_str());
    }
    return queue_response(connection, part ? MHD_HTTP_PARTIAL_CONTENT : MHD_HTTP_OK, response);
}

}  // namespace webs
