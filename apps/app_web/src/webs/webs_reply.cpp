// Replies. A procedure's reply is collected in the request record (status, headers, body)
// and sent whole with a Content-Length once websDone completes it, so keep-alive works and
// a procedure never waits for the network.
#include "common/formatted_text.h"
#include "common/log.h"
#include "webs/webs_internal.h"
#include "webs/webs_limits.h"

#include <cstdarg>
#include <cstring>
#include <strings.h>

namespace webs {

namespace {

constexpr char kJsonType[] = "application/json; charset=utf-8";
constexpr char kHtmlType[] = "text/html; charset=utf-8";

struct SecurityHeader {
    const char *name;
    const char *value;
};

// Headers every reply carries (libmicrohttpd's own error pages excepted: it offers no way
// to add headers to them).
constexpr SecurityHeader kSecurityHeaders[] = {
    // A reply is taken as the type it declares, never sniffed into a page.
    {MHD_HTTP_HEADER_X_CONTENT_TYPE_OPTIONS, "nosniff"},
    // No page of the device may be framed by another site (clicks taken from a user
    // who sees another page): the old header and the one current browsers read.
    {"X-Frame-Options", "DENY"},
    {"Content-Security-Policy", "frame-ancestors 'none'"},
    // Session ids travel in URLs; they must not reach another site in a Referer.
    {"Referrer-Policy", "no-referrer"},
};

bool reply_open(const Webs *wp) { return wp && wp->priv && !wp->priv->done.load(std::memory_order_acquire); }

// Appends len bytes to the reply body; false once the reply would exceed kMaxReply.
bool reply_append(ReplyBuffer &b, const char *text, size_t len)
{
    if (b.overflow)
        return false;
    if (b.body.size() + len > webs_limits::kMaxReply || !b.body.append(text, len)) {
        b.overflow = true;
        return false;
    }
    return true;
}

void set_header(ReplyBuffer &b, const char *name, const char *value)
{
    for (auto &h : b.headers)
        if (strcasecmp(h.first.c_str(), name) == 0) {
            h.second = value;
            return;
        }
    b.headers.emplace_back(name, value);
}

std::string error_page(unsigned status, const char *message)
{
    const char *phrase = MHD_get_reason_phrase_for(status);
    std::string title = std::to_string(status) + " " + (phrase ? phrase : "");
    return "<!DOCTYPE html>\n<html><head><title>" + title + "</title></head>\n<body><h1>" + title +
           "</h1>\n<p>" + html_escape(message ? message : "") + "</p></body></html>\n";
}

// Marks the reply complete and lets the event loop send it.
void complete(WebsPrivate *r)
{
    r->done.store(true, std::memory_order_release);
    reply_completed(r);
}

}  // namespace

std::string html_escape(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"': out += "&quot;"; break;
        case '\'': out += "&#39;"; break;
        default: out += c;
        }
    }
    return out;
}

void add_reply_headers(MHD_Response *response)
{
    for (const SecurityHeader &h : kSecurityHeaders)
        MHD_add_response_header(response, h.name, h.value);
}

MHD_Result queue_ready_response(MHD_Connection *connection, unsigned status, MHD_Response *response)
{
    // The lines the request wrote come out before its reply can reach the client, who may
    // read the log as soon as it has the answer.
    log_flush();
    MHD_Result rc = MHD_queue_response(connection, status, response);
    if (debug_mode())
        trace(kRequestTraceLevel, "reply %u%s\n", status, rc == MHD_YES ? "" : " (not sent)");
    return rc;
}

MHD_Result queue_response(MHD_Connection *connection, unsigned status, MHD_Response *response)
{
    if (!response)
        return MHD_NO;
    add_reply_headers(response);
    MHD_Result rc = queue_ready_response(connection, status, response);
    MHD_destroy_response(response);
    return rc;
}

MHD_Result queue_error_page(MHD_Connection *connection, unsigned status, const char *message, const char *allow,
                            bool close)
{
    std::string page = error_page(status, message);
    MHD_Response *response =
        MHD_create_response_from_buffer(page.size(), page.data(), MHD_RESPMEM_MUST_COPY);
    if (!response)
        return MHD_NO;
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, kHtmlType);
    MHD_add_response_header(response, MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
    if (allow)
        MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, allow);
    if (close)
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONNECTION, "close");
    return queue_response(connection, status, response);
}

MHD_Result queue_action_reply(WebsPrivate *r)
{
    ReplyBuffer &b = r->reply;
    if (b.overflow) {
        HTTP_ERROR("reply to %s exceeds %zu bytes\n", r->url.c_str(), webs_limits::kMaxReply);
        return queue_error_page(r->connection, MHD_HTTP_INTERNAL_SERVER_ERROR, "Reply too large");
    }
    MHD_Response *response = nullptr;
    if (b.body.size() > 0) {
        response = MHD_create_response_from_buffer_with_free_callback(b.body.size(), b.body.data(), free);
        if (response)
            (void)b.body.release();  // libmicrohttpd frees it
    } else {
        response = MHD_create_response_from_buffer(0, const_cast<char *>(""), MHD_RESPMEM_PERSISTENT);
    }
    if (!response)
        return MHD_NO;
    bool typed = false, cached = false;
    for (auto &h : b.headers) {
        MHD_add_response_header(response, h.first.c_str(), h.second.c_str());
        typed = typed || strcasecmp(h.first.c_str(), MHD_HTTP_HEADER_CONTENT_TYPE) == 0;
        cached = cached || strcasecmp(h.first.c_str(), MHD_HTTP_HEADER_CACHE_CONTROL) == 0;
    }
    if (!typed)
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, kJsonType);
    // An action's answer is about this moment and may hold a session id: never kept.
    if (!cached)
        MHD_add_response_header(response, MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
    return queue_response(r->connection, static_cast<unsigned>(b.status), response);
}

void reply_failed(WebsPrivate *r, int status, const char *message)
{
    ReplyBuffer &b = r->reply;
    b = ReplyBuffer{};
    b.status = status;
    std::string page = error_page(static_cast<unsigned>(status), message);
    set_header(b, MHD_HTTP_HEADER_CONTENT_TYPE, kHtmlType);
    set_header(b, MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
    reply_append(b, page.data(), page.size());
    complete(r);
}

}  // namespace webs

using namespace webs;

void websSetStatus(Webs *wp, int status)
{
    if (reply_open(wp))
        wp->priv->reply.status = status;
}

void websWriteHeaders(Webs *wp, ssize_t length, const char *location)
{
    // The length is known when the reply is sent; libmicrohttpd writes Content-Length then.
    (void)length;
    if (reply_open(wp) && location && *location)
        set_header(wp->priv->reply, MHD_HTTP_HEADER_LOCATION, location);
}

void websWriteEndHeaders(Webs *wp) { (void)wp; }

ssize_t websWrite(Webs *wp, const char *fmt, ...)
{
    if (!reply_open(wp) || !fmt)
        return -1;
    va_list ap;
    va_start(ap, fmt);
    if (strcmp(fmt, "%s") == 0) {
        // A whole reply text (every JSON reply) goes in as it stands: formatting a large
        // one first would hold a third copy of it beside the caller's and the reply's.
        const char *text = va_arg(ap, const char *);
        va_end(ap);
        if (!text)
            text = "(null)";
        size_t len = strlen(text);
        return reply_append(wp->priv->reply, text, len) ? static_cast<ssize_t>(len) : -1;
    }
    FormattedText text;
    text.appendv(fmt, ap);
    va_end(ap);
    if (text.failed() || !reply_append(wp->priv->reply, text.c_str(), text.size()))
        return -1;
    return static_cast<ssize_t>(text.size());
}

ssize_t websFlush(Webs *wp, bool block)
{
    // Nothing leaves before websDone: the whole reply goes out at once with its length.
    (void)block;
    return reply_open(wp) ? static_cast<ssize_t>(wp->priv->reply.body.size()) : -1;
}

void websDone(Webs *wp)
{
    if (reply_open(wp))
        complete(wp->priv);
}

void websError(Webs *wp, int code, const char *fmt, ...)
{
    if (!reply_open(wp))
        return;
    FormattedText message;
    if (fmt) {
        va_list ap;
        va_start(ap, fmt);
        message.appendv(fmt, ap);
        va_end(ap);
    }
    reply_failed(wp->priv, code, message.failed() ? "" : message.c_str());
}

ssize_t bufLen(const WebsBuf *bp)
{
    if (!bp || !bp->servp || !bp->endp || bp->endp < bp->servp)
        return 0;
    return bp->endp - bp->servp;
}

ssize_t scopy(char *dest, ssize_t destMax, const char *src)
{
    if (!dest || destMax <= 0)
        return -1;
    if (!src) {
        dest[0] = '\0';
        return 0;
    }
    size_t len = strnlen(src, static_cast<size_t>(destMax));
    if (len >= static_cast<size_t>(destMax)) {
        memcpy(dest, src, static_cast<size_t>(destMax) - 1);
        dest[destMax - 1] = '\0';
        return -1;
    }
    memcpy(dest, src, len + 1);
    return static_cast<ssize_t>(len);
}
