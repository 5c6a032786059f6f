// Static documents under the document root: GET and HEAD, index pages, content types by
// extension, one byte range per request, Last-Modified / If-Modified-Since. Large files go
// out with sendfile through libmicrohttpd's file responses; small ones are read into memory.
//
// Precompressed documents: "NAME.gz" beside NAME is sent, with Content-Encoding: gzip and
// NAME's type, to clients that accept gzip; a device may keep only the compressed copy, which
// clients without gzip then cannot get (404). Ranges, HEAD and If-Modified-Since apply to the
// file sent, as for any other document.
//
// The path has already been decoded and checked for NUL bytes, backslashes and dot segments
// (webs_server.cpp). A path without symbolic links is opened beneath the root in one step;
// one with links is resolved with realpath and must stay inside the resolved document root.
// Either way the real path must be one that the route file lets be fetched.
#include "common/log.h"
#include "common/owners.h"
#include "webs/webs_guard.h"
#include "webs/webs_internal.h"
#include "webs/webs_limits.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
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

// An HTTP date (RFC 9110 IMF-fixdate). Written out by hand: strftime calls tzset, which
// reads /etc/localtime again on every call (seven system calls per page served).
std::string http_date(time_t t)
{
    static const char kDays[7][4] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static const char kMonths[12][4] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    struct tm tm;
    if (!gmtime_r(&t, &tm))
        return "Thu, 01 Jan 1970 00:00:00 GMT";
    char buf[64];
    snprintf(buf, sizeof buf, "%s, %02d %s %04d %02d:%02d:%02d GMT", kDays[tm.tm_wday], tm.tm_mday,
             kMonths[tm.tm_mon], tm.tm_year + 1900, tm.tm_hour, tm.tm_min, tm.tm_sec);
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

// The real path of relative (a name below the root) when it lies inside the root, else "".
std::string resolve(const DocumentConfig &cfg, const std::string &relative)
{
    char real[PATH_MAX];
    std::string candidate = cfg.root + "/" + relative;
    if (!realpath(candidate.c_str(), real))
        return {};
    std::string resolved(real);
    return inside_root(resolved, cfg.root) ? resolved : std::string();
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

// One file that may answer a request: its name below the root, and once opened its real
// path and status.
struct Document {
    std::string relative;  // no leading '/'
    std::string resolved;
    struct stat st {};
    UniqueFd fd;
};

// Opens the regular file that doc->relative names inside the root. With folder_index, a
// folder (the root included) stands for its index page, and doc->relative becomes that
// page's name whether or not it exists. Links are resolved with realpath and must stay
// inside the root.
bool open_document(const DocumentConfig &cfg, Document *doc, bool folder_index)
{
    std::string &relative = doc->relative;
    if (folder_index && (relative.empty() || relative.back() == '/'))
        relative += cfg.index;
    bool slow = cfg.root_fd < 0;
    for (int turn = 0; turn < 2 && !slow; ++turn) {
        UniqueFd fd(open_beneath(cfg.root_fd, relative.c_str()));
        if (!fd) {
            if (errno == ENOENT || errno == ENOTDIR)
                return false;
            slow = true;
            break;
        }
        if (fstat(fd.get(), &doc->st) != 0)
            return false;
        if (S_ISDIR(doc->st.st_mode) && folder_index && turn == 0) {
            relative += '/';
            relative += cfg.index;
            continue;
        }
        if (!S_ISREG(doc->st.st_mode))
            return false;
        doc->resolved = cfg.root + "/" + relative;
        doc->fd = std::move(fd);
        return true;
    }
    if (!slow)
        return false;
    struct stat folder;
    if (folder_index && stat((cfg.root + "/" + relative).c_str(), &folder) == 0 && S_ISDIR(folder.st_mode))
        relative += "/" + cfg.index;
    doc->resolved = resolve(cfg, relative);
    if (doc->resolved.empty())
        return false;
    UniqueFd fd(open(doc->resolved.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!fd || fstat(fd.get(), &doc->st) != 0 || !S_ISREG(doc->st.st_mode))
        return false;
    doc->fd = std::move(fd);
    return true;
}

// Whether the file lies where the route file lets it be fetched with this method: a link
// from a public folder into a private one serves nothing.
bool fetchable(const DocumentConfig &cfg, const Document &doc, const char *method)
{
    const Route *route = match_route(*cfg.routes, std::string_view(doc.resolved).substr(cfg.root.size()));
    return route && route->handler == Handler::File && route_allows(*route, method);
}

// The weight of an Accept-Encoding item's parameters (";q=0.5"): 0 for a zero weight, else 1.
int weight_of(std::string_view params)
{
    for (size_t at = 0; at < params.size();) {
        size_t end = std::min(params.find(';', at), params.size());
        std::string_view p = trim_ows(params.substr(at, end - at));
        if (p.size() >= 2 && (p[0] == 'q' || p[0] == 'Q') && p[1] == '=') {
            std::string_view v = trim_ows(p.substr(2));
            return !v.empty() && v[0] == '0' && v.find_first_not_of(".0", 1) == std::string_view::npos ? 0 : 1;
        }
        at = end + 1;
    }
    return 1;
}

// Whether an Accept-Encoding value admits gzip: "gzip" (or its old alias "x-gzip") listed
// with a weight above zero, or else "*" with one.
bool accepts_gzip(const char *header)
{
    if (!header)
        return false;
    int named = -1, any = -1;  // -1 not listed, 0 refused, 1 accepted
    std::string_view list(header);
    for (size_t at = 0; at <= list.size();) {
        size_t end = std::min(list.find(',', at), list.size());
        std::string_view item = list.substr(at, end - at);
        size_t semi = std::min(item.find(';'), item.size());
        std::string_view coding = trim_ows(item.substr(0, semi));
        int weight = weight_of(item.substr(semi));
        auto is = [coding](std::string_view name) {
            return coding.size() == name.size() && strncasecmp(coding.data(), name.data(), name.size()) == 0;
        };
        if (is("gzip") || is("x-gzip"))
            named = std::max(named, weight);
        else if (is("*"))
            any = std::max(any, weight);
        at = end + 1;
    }
    return named >= 0 ? named == 1 : any == 1;
}

// A response with the file's bytes from offset; *in_memory tells whether they were read into
// it (else libmicrohttpd reads the file, which it then owns).
MHD_Response *file_response(UniqueFd fd, uint64_t offset, uint64_t length, bool head, bool *in_memory)
{
    // For HEAD, libmicrohttpd sends the headers of the file response (Content-Length
    // included) and never reads the file.
    if (!head && length <= webs_limits::kMaxMemoryFile) {
        char buf[webs_limits::kMaxMemoryFile];
        ssize_t n = length ? pread(fd.get(), buf, length, static_cast<off_t>(offset)) : 0;
        if (n == static_cast<ssize_t>(length)) {
            *in_memory = true;
            return MHD_create_response_from_buffer(length, buf, MHD_RESPMEM_MUST_COPY);
        }
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
    Document plain, packed;
    plain.relative = path.substr(1);
    bool has_plain = open_document(cfg, &plain, true) && fetchable(cfg, plain, method);
    packed.relative = plain.relative + ".gz";
    bool gzip = accepts_gzip(MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_ACCEPT_ENCODING));
    bool has_packed = false;
    if (gzip)
        has_packed = open_document(cfg, &packed, false) && fetchable(cfg, packed, method);
    else if (has_plain)  // only for the Vary header: whether another client would get the other file
        has_packed = cfg.root_fd >= 0 && faccessat(cfg.root_fd, packed.relative.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0;
    bool send_packed = gzip && has_packed;
    if (!send_packed && !has_plain)
        return queue_error_page(connection, MHD_HTTP_NOT_FOUND, "Cannot find document");
    Document &doc = send_packed ? packed : plain;
    const std::string &resolved = doc.resolved;
    const struct stat &st = doc.st;
    UniqueFd fd = std::move(doc.fd);
    // Once NAME.gz exists, every answer about NAME depends on Accept-Encoding.
    auto add_vary = [has_packed](MHD_Response *response) {
        if (has_packed)
            MHD_add_response_header(response, MHD_HTTP_HEADER_VARY, MHD_HTTP_HEADER_ACCEPT_ENCODING);
    };

    uint64_t size = static_cast<uint64_t>(st.st_size);
    // NAME's type (a link's target names it), also for NAME.gz.
    const char *type = mime_type(has_plain ? plain.resolved : plain.relative);
    if (std::string_view(resolved).substr(cfg.root.size()).starts_with(kPictureFolder) &&
        std::find(std::begin(kPictureTypes), std::end(kPictureTypes), type) == std::end(kPictureTypes))
        return queue_error_page(connection, MHD_HTTP_NOT_FOUND, "Cannot find document");
    bool head = strcmp(method, MHD_HTTP_METHOD_HEAD) == 0;

    if (not_modified(connection, st.st_mtime)) {
        MHD_Response *response = MHD_create_response_from_buffer(0, const_cast<char *>(""), MHD_RESPMEM_PERSISTENT);
        if (!response)
            return MHD_NO;
        MHD_add_response_header(response, MHD_HTTP_HEADER_LAST_MODIFIED, http_date(st.st_mtime).c_str());
        add_vary(response);
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
        add_vary(response);
        return queue_response(connection, MHD_HTTP_RANGE_NOT_SATISFIABLE, response);
    }
    bool part = range.kind == RangeKind::Part;
    // A small document sent whole is kept ready for the next request.
    DocumentKey key{resolved, type, send_packed, has_packed};
    bool whole_small = !part && !head && size <= webs_limits::kMaxMemoryFile;
    if (whole_small) {
        if (MHD_Response *ready = document_cache().find(key, st))
            return queue_ready_response(connection, MHD_HTTP_OK, ready);
    }
    // A file changed a moment ago may change again without its state showing it.
    bool settled = time(nullptr) - st.st_mtime >= webs_limits::kSettledSeconds;
    uint64_t offset = part ? range.first : 0;
    uint64_t length = part ? range.last - range.first + 1 : size;
    bool in_memory = false;
    MHD_Response *response = file_response(std::move(fd), offset, length, head, &in_memory);
    if (!response) {
        HTTP_ERROR("cannot answer with %s\n", resolved.c_str());
        return queue_error_page(connection, MHD_HTTP_INTERNAL_SERVER_ERROR, "Cannot read document");
    }
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, type);
    MHD_add_response_header(response, MHD_HTTP_HEADER_LAST_MODIFIED, http_date(st.st_mtime).c_str());
    MHD_add_response_header(response, MHD_HTTP_HEADER_ACCEPT_RANGES, "bytes");
    add_vary(response);
    if (send_packed)
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_ENCODING, "gzip");
    if (part) {
        std::string value = "bytes " + std::to_string(range.first) + "-" + std::to_string(range.last) + "/" +
                            std::to_string(size);
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_RANGE, value.c_str());
    }
    if (!whole_small || !settled || !in_memory)
        return queue_response(connection, part ? MHD_HTTP_PARTIAL_CONTENT : MHD_HTTP_OK, response);
    add_reply_headers(response);
    document_cache().keep(key, st, response);
    return queue_ready_response(connection, MHD_HTTP_OK, response);
}

}  // namespace webs
