// Request records and their bodies, taken in by the rule the action chose. A plain body is
// held in memory up to 64 KiB and, where the rule allows, spooled to a temporary file above
// that; a multipart/form-data body of an upload goes through libmicrohttpd's post processor,
// which streams the first file part into a temporary file. Every other body is taken as the
// raw body.
#include "common/log.h"
#include "webs/webs_internal.h"
#include "webs/webs_limits.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

namespace webs {

using namespace webs_limits;

TempFile::~TempFile() { remove(); }

void TempFile::remove()
{
    fd_.reset();
    buffer_.reset();
    buffered_ = 0;
    if (!path_.empty())
        unlink(path_.c_str());
    path_.clear();
    size_ = 0;
}

bool TempFile::create(const char *stem)
{
    std::string tmpl = std::string("/tmp/") + stem + "-XXXXXX";
    int fd = mkostemp(tmpl.data(), O_CLOEXEC);
    if (fd < 0)
        return false;
    fd_.reset(fd);
    path_ = tmpl;
    return true;
}

bool TempFile::write_out(const char *data, size_t len)
{
    while (len > 0) {
        ssize_t n = write(fd_.get(), data, len);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        data += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

bool TempFile::append(const char *data, size_t len)
{
    size_ += len;
    if (!buffer_)
        buffer_ = std::make_unique<char[]>(kTempFileBuffer);
    if (buffered_ + len > kTempFileBuffer) {
        if (!write_out(buffer_.get(), buffered_))
            return false;
        buffered_ = 0;
        if (len >= kTempFileBuffer)
            return write_out(data, len);
    }
    memcpy(buffer_.get() + buffered_, data, len);
    buffered_ += len;
    return true;
}

bool TempFile::finish()
{
    bool ok = !fd_ || write_out(buffer_.get(), buffered_);
    buffer_.reset();
    buffered_ = 0;
    fd_.reset();
    return ok;
}

namespace {

// Bytes held by every request's TempRoom.
std::atomic<uint64_t> temp_bytes_held{0};

}  // namespace

bool TempRoom::reserve(uint64_t total)
{
    if (total <= held_)
        return true;
    uint64_t more = total - held_;
    uint64_t held = temp_bytes_held.load(std::memory_order_relaxed);
    do {
        if (more > kMaxTempBytes - held)
            return false;
    } while (!temp_bytes_held.compare_exchange_weak(held, held + more, std::memory_order_relaxed));
    held_ = total;
    return true;
}

void TempRoom::release()
{
    temp_bytes_held.fetch_sub(held_, std::memory_order_relaxed);
    held_ = 0;
}

const char *body_refusal_text(int status)
{
    switch (status) {
    case MHD_HTTP_CONTENT_TOO_LARGE: return "Request body too large";
    case MHD_HTTP_BAD_REQUEST: return "Malformed request body";
    case MHD_HTTP_SERVICE_UNAVAILABLE: return "Too many uploads at once, try again later";
    default: return "Cannot store the request body";
    }
}

WebsPrivate *request_new(const char *uri, MHD_Connection *connection)
{
    auto *r = new WebsPrivate;
    r->connection = connection;
    r->url = uri ? uri : "";
    r->wp.priv = r;
    return r;
}

void request_release(WebsPrivate *r)
{
    if (r && r->refs.fetch_sub(1, std::memory_order_acq_rel) == 1)
        delete r;
}

namespace {

// The Content-Length the client announced, or -1 when it sent none (chunked).
int64_t announced_length(MHD_Connection *c)
{
    const char *v = MHD_lookup_connection_value(c, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH);
    if (!v)
        return -1;
    char *end = nullptr;
    errno = 0;
    unsigned long long n = strtoull(v, &end, 10);
    if (errno != 0 || end == v)
        return INT64_MAX;
    return n > static_cast<unsigned long long>(INT64_MAX) ? INT64_MAX : static_cast<int64_t>(n);
}

MHD_Result post_iterator(void *cls, MHD_ValueKind, const char *key, const char *filename,
                         const char *content_type, const char *, const char *data, uint64_t off, size_t size)
{
    auto *r = static_cast<WebsPrivate *>(cls);
    if (!filename || r->upload_closed)
        return MHD_YES;  // form fields and later file parts are not used
    const char *k = key ? key : "";
    // A part starts again at offset 0, also when it repeats the first part's field and file
    // name (the first call of a part may come with no data, so offset 0 alone does not tell).
    if (r->upload.active() &&
        (r->upload_key != k || r->upload_client_name != filename || (off == 0 && r->upload.size() > 0))) {
        // A new part began: the first file is complete.
        r->upload_closed = true;
        return MHD_YES;
    }
    if (!r->upload.active()) {
        if (!r->upload.create("webs-upload")) {
            HTTP_ERROR("cannot create upload file: %s\n", strerror(errno));
            r->refusal = MHD_HTTP_INTERNAL_SERVER_ERROR;  // our fault, not the body's
            return MHD_NO;
        }
        r->upload_key = k;
        r->upload_client_name = filename;
        r->upload_type = content_type ? content_type : "";
    }
    if (size > 0 && !r->upload.append(data, size)) {
        HTTP_ERROR("cannot write upload file %s: %s\n", r->upload.path().c_str(), strerror(errno));
        r->refusal = MHD_HTTP_INTERNAL_SERVER_ERROR;
        return MHD_NO;
    }
    return MHD_YES;
}

// Switches a request to dropping the rest of its body; the refusal is sent at its end.
void refuse_body(WebsPrivate *r, int status)
{
    r->state = RequestState::Discarding;
    r->refusal = status;
    r->refusal_message = body_refusal_text(status);
    r->body.clear();
    r->body.shrink_to_fit();
    r->post.reset();
    r->upload.remove();
    r->spool.remove();
    r->temp_room.release();
}

// The largest plain body the request's rule takes.
uint64_t plain_limit(const WebsPrivate *r) { return r->rule.spool ? kMaxSpooledBody : kMaxInMemoryBody; }

bool take_plain(WebsPrivate *r, const char *data, size_t size)
{
    if (r->spool.active())
        return r->spool.append(data, size);
    if (r->body.size() + size <= kMaxInMemoryBody) {
        r->body.append(data, size);
        return true;
    }
    if (!r->spool.create("webs-body")) {
        HTTP_ERROR("cannot create body file: %s\n", strerror(errno));
        return false;
    }
    bool ok = r->spool.append(r->body.data(), r->body.size()) && r->spool.append(data, size);
    r->body.clear();
    r->body.shrink_to_fit();
    return ok;
}

}  // namespace

int request_begin_body(WebsPrivate *r)
{
    const char *type = MHD_lookup_connection_value(r->connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_TYPE);
    int64_t length = announced_length(r->connection);
    static constexpr char kMultipart[] = "multipart/form-data";
    if (r->rule.upload && type && strncasecmp(type, kMultipart, sizeof kMultipart - 1) == 0) {
        if (length > static_cast<int64_t>(kMaxMultipart))
            return MHD_HTTP_CONTENT_TOO_LARGE;
        if (length > 0 && !r->temp_room.reserve(static_cast<uint64_t>(length)))
            return MHD_HTTP_SERVICE_UNAVAILABLE;
        r->post.reset(MHD_create_post_processor(r->connection, kPostProcessorBuffer, post_iterator, r));
        if (!r->post)
            return MHD_HTTP_BAD_REQUEST;  // no boundary
        r->body_kind = BodyKind::Multipart;
    } else {
        if (length > static_cast<int64_t>(plain_limit(r)))
            return MHD_HTTP_CONTENT_TOO_LARGE;
        if (length > static_cast<int64_t>(kMaxInMemoryBody) && !r->temp_room.reserve(static_cast<uint64_t>(length)))
            return MHD_HTTP_SERVICE_UNAVAILABLE;
        r->body_kind = BodyKind::Plain;
    }
    r->state = RequestState::Receiving;
    return 0;
}

bool request_take_body(WebsPrivate *r, const char *data, size_t size)
{
    r->received += size;
    // A body without a length takes its room in /tmp as it comes (one with a length took it
    // whole at the start): a multipart body may go to a file from any byte on, a plain one
    // once it no longer fits in memory.
    if (r->body_kind == BodyKind::Multipart) {
        if (r->received > kMaxMultipart) {
            refuse_body(r, MHD_HTTP_CONTENT_TOO_LARGE);
        } else if (!r->temp_room.reserve(r->received)) {
            refuse_body(r, MHD_HTTP_SERVICE_UNAVAILABLE);
        } else if (MHD_post_process(r->post.get(), data, size) != MHD_YES) {
            // The iterator marks a file it could not store; anything else is a malformed body,
            // also one that breaks off inside its file part.
            refuse_body(r, r->refusal == MHD_HTTP_INTERNAL_SERVER_ERROR ? MHD_HTTP_INTERNAL_SERVER_ERROR
                                                                        : MHD_HTTP_BAD_REQUEST);
        }
        return true;
    }
    if (r->received > plain_limit(r))
        refuse_body(r, MHD_HTTP_CONTENT_TOO_LARGE);
    else if (r->received > kMaxInMemoryBody && !r->temp_room.reserve(r->received))
        refuse_body(r, MHD_HTTP_SERVICE_UNAVAILABLE);
    else if (!take_plain(r, data, size))
        refuse_body(r, MHD_HTTP_INTERNAL_SERVER_ERROR);
    return true;
}

int request_finish_body(WebsPrivate *r)
{
    if (r->state == RequestState::Discarding)
        return r->refusal;
    if (r->post && MHD_destroy_post_processor(r->post.release()) != MHD_YES) {
        refuse_body(r, MHD_HTTP_BAD_REQUEST);  // the multipart body ended early
        return r->refusal;
    }
    if (!r->upload.finish() || !r->spool.finish()) {
        HTTP_ERROR("cannot write the body of %s to /tmp: %s\n", r->url.c_str(), strerror(errno));
        refuse_body(r, MHD_HTTP_INTERNAL_SERVER_ERROR);
        return r->refusal;
    }

    Webs &wp = r->wp;
    wp.url = r->url.data();
    wp.method = r->method.data();
    wp.input.servp = r->body.data();
    wp.input.endp = r->body.data() + r->body.size();
    if (r->upload.active()) {
        r->current_file = {const_cast<char *>(r->upload.path().c_str()), r->upload_client_name.data(),
                           r->upload_type.data(), static_cast<ssize_t>(r->upload.size())};
        wp.currentFile = &r->current_file;
    }
    if (r->spool.active()) {
        // No client file name or part type for a plain body: both texts are empty.
        r->input_file = {const_cast<char *>(r->spool.path().c_str()), r->upload_client_name.data(),
                         r->upload_type.data(), static_cast<ssize_t>(r->spool.size())};
        wp.inputFile = &r->input_file;
    }
    return 0;
}

}  // namespace webs
