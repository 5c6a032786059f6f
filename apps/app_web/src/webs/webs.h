// The web layer: the small HTTP server API that the web server is written against, built on
// libmicrohttpd. libmicrohttpd parses requests, de-chunks bodies and parses multipart
// uploads; this layer routes requests (route file), serves static documents, hands action
// requests to their procedures and sends the replies they write.
//
// Threads: websServiceEvents runs the event loop (common/event_loop.h) on the calling thread,
// the web server thread: it accepts connections, serves static documents and calls the
// action procedures. An action procedure is called as soon as its request's line and headers
// are in, before any byte of the body is read: it answers at once (a refusal), asks for the
// body with websReadBody, or keeps a WebsHold while it waits for something else (a device
// application, a worker thread). The connection of a waiting request is suspended meanwhile
// and watched: a client that goes away is noticed at once (websClientGone).
#pragma once

#include <atomic>
#include <functional>
#include <sys/types.h>
#include <utility>

// A request body held in memory: servp is the unread start, endp the end; *endp is '\0', so
// the body can be used as a terminated text.
struct WebsBuf {
    char *servp;
    char *endp;
};

// A file that belongs to a request: an uploaded multipart file part, or a request body too
// large to hold in memory. The temporary file is removed when the request ends (an action
// may rename it away first).
struct WebsUpload {
    char *filename;        // temporary file path
    char *clientFilename;  // file name the client gave (multipart only, else "")
    char *contentType;     // content type the client gave for the part (multipart only, else "")
    ssize_t size;          // bytes in the file
};

struct WebsPrivate;

// One request, as seen by an action procedure.
struct Webs {
    char *url;                // raw request target, not decoded, query included
    char *method;             // "GET", "POST", ...
    WebsBuf input;            // the body as a terminated text (empty when spooled or multipart)
    WebsUpload *currentFile;  // first file part of a multipart upload, or nullptr
    WebsUpload *inputFile;    // non-multipart body spooled to a temporary file, or nullptr
    WebsPrivate *priv;        // the layer's own state of the request
};

using WebsAction = void (*)(Webs *wp);

// Logging of the layer. logSetPath("stdout:1") logs to standard output at level 1.
void logSetPath(const char *path);
void websSetDebug(int on);
int websGetLogLevel();
void logmsg(int level, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
void trace(int level, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
void error(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// Server set-up. websOpen reads the route file (missing or malformed: -1); websLoad reads the
// authentication file (missing or malformed: -1); websListen opens "http://*:PORT" or
// "http://ADDR:PORT" and returns a listening id, or -1.
int websOpen(const char *documents, const char *routeFile);
void websClose();
void websSetIpAddr(const char *ipaddr);
void websSetHost(const char *host);
void websSetIndex(const char *filename);
const char *websGetServer();
const char *websGetDocuments();
int websLoad(const char *authFile);
int websListen(const char *endpoint);
int socketGetHandle(int sid);
int websDefineAction(const char *name, WebsAction proc);

// Runs the event loop until *finished becomes non-zero.
void websServiceEvents(std::atomic<int> *finished);

// How an action request's body may be taken in. A plain body is held in memory as wp->input
// up to webs_limits::kMaxInMemoryBody; beyond that only a rule with spool lets it go to a
// temporary file (wp->inputFile), every other request gets 413.
struct WebsBodyRule {
    bool spool = false;   // a large plain body may be spooled to /tmp
    bool upload = false;  // a multipart/form-data body's first file part goes to /tmp (wp->currentFile)
};
// Has the body read by the rule; next runs on the event loop once it is complete, with the
// record filled. Called by the procedure itself or later on the event loop; a body the rule
// refuses is answered by the layer and next never runs.
void websReadBody(Webs *wp, WebsBodyRule rule, std::function<void(Webs *)> next);

// A hold on a request: keeps its record alive and tells the layer that someone still works
// for it (the procedure returned, its body came in, and no reply is written yet). When the
// last hold goes without a reply, the layer answers 500 (503 while the server closes). Holds
// may be copied and dropped on any thread.
class WebsHold {
public:
    WebsHold() = default;
    explicit WebsHold(Webs *wp);
    WebsHold(const WebsHold &other) : WebsHold(other.wp_) {}
    WebsHold(WebsHold &&other) noexcept : wp_(other.wp_) { other.wp_ = nullptr; }
    WebsHold &operator=(WebsHold other) noexcept
    {
        std::swap(wp_, other.wp_);
        return *this;
    }
    ~WebsHold();
    Webs *get() const { return wp_; }
    explicit operator bool() const { return wp_ != nullptr; }

private:
    Webs *wp_ = nullptr;
};

// The client's IP address as text ("192.0.2.7", "2001:db8::7"); "" when unknown.
const char *websClientAddress(const Webs *wp);

// Whether the request's client has gone (closed or half-closed its connection while the
// request waited). Work not yet started for it should be dropped; its reply is never sent.
bool websClientGone(const Webs *wp);

// Writing a reply, in this order: status, headers, end of headers, body, flush, done.
// A request is complete at websDone; anything written after it is ignored. A reply may be
// written on any thread, by one thread at a time (whoever holds the request). A request
// that nobody answers or holds gets a 500 reply from the layer, so every request is answered
// exactly once.
void websSetStatus(Webs *wp, int status);
void websWriteHeaders(Webs *wp, ssize_t length, const char *location);
void websWriteEndHeaders(Webs *wp);
ssize_t websWrite(Webs *wp, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
ssize_t websFlush(Webs *wp, bool block);
void websDone(Webs *wp);
// An HTML error page with the given status; completes the request.
void websError(Webs *wp, int code, const char *fmt, ...) __attribute__((format(printf, 3, 4)));

// Helpers.
ssize_t bufLen(const WebsBuf *bp);
// Copies src into dest (room for destMax bytes, always terminated); returns the length
// copied, or -1 when src had to be cut.
ssize_t scopy(char *dest, ssize_t destMax, const char *src);
