// Shared internals of the web layer: the request record behind Webs, the server state and
// the calls between the layer's files. Nothing outside webs/ includes this.
#pragma once

#include "common/event_loop.h"
#include "common/growing_buffer.h"
#include "common/owners.h"
#include "webs/webs.h"
#include "webs/webs_doc_cache.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <microhttpd.h>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace webs {

// ---- route and authentication files (webs_config.cpp)

enum class Handler { Action, File };

struct Route {
    std::string prefix;                // path prefix, matched on whole segments
    Handler handler = Handler::File;
    std::vector<std::string> methods;  // allowed methods; empty: nothing may be fetched here
    std::string allow;                 // the methods as an Allow header value
};

// 0, or -1 after an error line naming the file and line.
int load_routes(const char *path, std::vector<Route> *routes);
// The authentication file is checked, not kept: access to actions is decided by the
// dispatcher's sessions, and no route asks for a role.
int check_auth(const char *path);
// The first route whose prefix covers path (a normalised absolute path), or nullptr.
const Route *match_route(const std::vector<Route> &routes, std::string_view path);
bool route_allows(const Route &route, const char *method);

// ---- logging (webs_log.cpp)

// Debug mode traces every reply at this level.
constexpr int kRequestTraceLevel = 4;
bool debug_mode();

// ---- request record (webs_request.cpp)

// A temporary file owned by a request: removed when the owner goes (an action may have
// renamed it away; a missing file is fine).
class TempFile {
public:
    TempFile() = default;
    TempFile(const TempFile &) = delete;
    TempFile &operator=(const TempFile &) = delete;
    ~TempFile();
    // Creates a new file in /tmp; false (errno set) when it cannot.
    bool create(const char *stem);
    // Appends all bytes (gathered in a buffer, so the file sees few large writes); false on a
    // write error.
    bool append(const char *data, size_t len);
    // Writes what the buffer holds and closes the file; false on a write error.
    bool finish();
    // Closes and removes the file now.
    void remove();
    bool active() const { return !path_.empty(); }
    const std::string &path() const { return path_; }
    uint64_t size() const { return size_; }

private:
    bool write_out(const char *data, size_t len);

    std::string path_;
    UniqueFd fd_;
    uint64_t size_ = 0;
    std::unique_ptr<char[]> buffer_;
    size_t buffered_ = 0;
};

// A request's share of kMaxTempBytes, the room that all requests together may take in
// temporary files; given back when the request goes (on whichever thread that is).
class TempRoom {
public:
    TempRoom() = default;
    TempRoom(const TempRoom &) = delete;
    TempRoom &operator=(const TempRoom &) = delete;
    ~TempRoom() { release(); }
    // Grows the share to total bytes; false, the share unchanged, when there is no room.
    bool reserve(uint64_t total);
    void release();

private:
    uint64_t held_ = 0;
};

// Text of the error page that refuses a request body with this status.
const char *body_refusal_text(int status);

struct PostProcessorDeleter {
    void operator()(MHD_PostProcessor *pp) const { MHD_destroy_post_processor(pp); }
};
using PostProcessorPtr = std::unique_ptr<MHD_PostProcessor, PostProcessorDeleter>;

enum class RequestState {
    New,         // headers not looked at yet
    Document,    // static document: answered once the request is complete
    Deciding,    // action procedure called at the headers; it has neither answered nor asked for the body
    Receiving,   // action request: body being taken in
    Discarding,  // refused: the rest of the body is read and dropped, then the refusal sent
    Running,     // body complete: the procedure's continuation runs or is awaited
    Answered,    // a reply has been queued with libmicrohttpd
    Dropped      // the client went away, or the server closes: the connection is closed
};

enum class BodyKind { None, Plain, Multipart };

struct ReplyBuffer {
    int status = 200;
    std::vector<std::pair<std::string, std::string>> headers;
    GrowingBuffer body;
    bool overflow = false;  // the procedure wrote more than kMaxReply
};

struct Connection;

}  // namespace webs

// The layer's state of one request. It is owned jointly by the connection (until
// libmicrohttpd reports the request completed) and by the holds of the actions working for
// it, so an action that keeps working after the client went never touches freed memory.
// Everything but refs, holds, gone, done and the reply is used on the event loop only.
struct WebsPrivate {
    Webs wp{};
    MHD_Connection *connection = nullptr;  // nullptr once libmicrohttpd closed the connection
    webs::Connection *conn = nullptr;      // the connection's record (limits and deadlines)
    std::atomic<int> refs{1};
    std::atomic<int> holds{0};
    webs::RequestState state = webs::RequestState::New;
    bool in_handler = false;      // inside libmicrohttpd's call: the reply is queued on return
    bool suspended = false;
    std::atomic<bool> gone{false};
    EventLoop::Watch gone_watch;  // the connection's hang-up, while suspended

    std::string url;     // raw request target
    std::string method;
    std::string peer;    // the client's IP address as text (for an action)
    std::string path;    // decoded, checked path of a static document
    WebsAction proc = nullptr;
    std::function<void(Webs *)> next;  // what runs once the body is complete
    WebsBodyRule rule;
    bool body_wanted = false;  // the procedure asked for the body (websReadBody)

    // Body intake.
    webs::BodyKind body_kind = webs::BodyKind::None;
    uint64_t received = 0;
    uint64_t discarded = 0;
    int refusal = 0;                      // status of a refused request
    const char *refusal_message = "";     // text of its error page
    std::string allow;                    // Allow header of a 405
    bool close_after_refusal = false;     // the refusal ends the connection (framing in doubt)
    std::string body;
    webs::TempRoom temp_room;  // declared before the files: they are removed before it is given back
    webs::TempFile spool;
    webs::PostProcessorPtr post;
    webs::TempFile upload;
    std::string upload_key, upload_client_name, upload_type;
    bool upload_closed = false;  // the first file part has ended; later parts are ignored
    WebsUpload current_file{};
    WebsUpload input_file{};

    // Reply written by the procedure.
    webs::ReplyBuffer reply;
    std::atomic<bool> done{false};
};

namespace webs {

WebsPrivate *request_new(const char *uri, MHD_Connection *connection);
void request_release(WebsPrivate *r);
// Takes in body bytes of an action request; false when the connection must be dropped.
bool request_take_body(WebsPrivate *r, const char *data, size_t size);
// Prepares the body intake by r->rule; 0, or the status refusing the request.
int request_begin_body(WebsPrivate *r);
// Completes the intake and fills the public record; 0, or the status refusing the request.
int request_finish_body(WebsPrivate *r);

// ---- replies (webs_reply.cpp)

// Adds the headers every reply carries and queues it; the response is released.
MHD_Result queue_response(MHD_Connection *connection, unsigned status, MHD_Response *response);
// The same in two steps, for a response kept to be sent again: the headers every reply
// carries, then the queueing, which leaves the caller's reference alone.
void add_reply_headers(MHD_Response *response);
MHD_Result queue_ready_response(MHD_Connection *connection, unsigned status, MHD_Response *response);
// Queues the layer's HTML error page (with an Allow header when allow is given; ending the
// connection after it when close is set).
MHD_Result queue_error_page(MHD_Connection *connection, unsigned status, const char *message,
                            const char *allow = nullptr, bool close = false);
// Queues the reply a procedure wrote.
MHD_Result queue_action_reply(WebsPrivate *r);
// The reply of a procedure that ended without one (500), or of a request dropped at close (503).
void reply_failed(WebsPrivate *r, int status, const char *message);
// Text with &, <, >, " and ' replaced by entities.
std::string html_escape(std::string_view text);

// ---- connections (webs_connections.cpp)

// What the layer keeps of a connection to bound it: its socket, and since when it waits for
// its next request's line and headers.
struct Connection {
    int fd = -1;
    std::chrono::steady_clock::time_point since;
    bool in_request = false;  // a request's headers are in and it is not complete yet
    bool evicted = false;     // shut down by the layer; libmicrohttpd closes it next
    bool linger = false;      // answered before its body was read: drained after the close
};
// libmicrohttpd's MHD_OPTION_NOTIFY_CONNECTION callback: keeps the record in *socket_context
// and makes room when the server is full.
void connection_notify(void *, MHD_Connection *connection, void **socket_context,
                       MHD_ConnectionNotificationCode code);
void connection_request_started(Connection *c);
void connection_request_ended(Connection *c);
// Shuts down every connection whose next request's line and headers are overdue.
void connections_sweep();
// Closes the connections that still linger; the server closes.
void connections_close();
// The record of a connection, or nullptr.
Connection *connection_of(MHD_Connection *connection);

// ---- static documents (webs_static.cpp)

// What the static handler needs from the open server.
struct DocumentConfig {
    std::string root;                  // realpath of the document root, no trailing '/'
    int root_fd = -1;                  // the root, opened for lookups beneath it
    std::string index;                 // index page of "/" and of directories
    const std::vector<Route> *routes;  // to check where a resolved path really lies
};
const DocumentConfig &document_config();
DocumentCache &document_cache();

MHD_Result serve_document(MHD_Connection *connection, const char *method, std::string_view path);
const char *mime_type(std::string_view path);

// ---- server (webs_server.cpp)

// A reply was completed (on any thread): the event loop sends it.
void reply_completed(WebsPrivate *r);
// The last hold of a request went (on any thread).
void holds_released(WebsPrivate *r);

}  // namespace webs
