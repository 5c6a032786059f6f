// Limits of the web layer, each with the reason for its value. Every request's cost in
// memory, files and time is bounded by these.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

namespace webs_limits {

// Longest request target (path and query) accepted; the dispatcher copies the target into a
// 2049-byte buffer. Longer: 414.
constexpr size_t kMaxTarget = 2048;
// Memory libmicrohttpd may use per connection for the request line, the headers and its read
// buffer. A request whose headers do not fit gets libmicrohttpd's own 431 (and a target that
// does not fit its 414).
constexpr size_t kConnectionMemory = 16 * 1024;
// A multipart upload (watermark images are at most about 2 MB) larger than this: 413.
constexpr uint64_t kMaxMultipart = 4ull * 1024 * 1024;
// A plain body up to this size is held in memory as the request's input text.
constexpr uint64_t kMaxInMemoryBody = 64 * 1024;
// A plain body up to this size may be spooled to a temporary file (firmware images); larger:
// 413. Only an action that allows it, and only once its caller has passed the gate.
constexpr uint64_t kMaxSpooledBody = 256ull * 1024 * 1024;
// Bytes that all requests together may hold in temporary files at once: one firmware image
// of the largest size and a few pictures. Beyond it: 503.
constexpr uint64_t kMaxTempBytes = kMaxSpooledBody + 4 * kMaxMultipart;
// A body nobody uses (refused mid-way, or sent with a document request): at most this much is
// read and dropped, so that the reply can be sent; a client that sends more is disconnected.
constexpr uint64_t kMaxDiscard = 16ull * 1024 * 1024;
// An action's reply is buffered whole before it is sent; a procedure writing more is cut
// off with a 500 (the largest real replies, recording lists, stay far below).
constexpr size_t kMaxReply = 64 * 1024 * 1024;

// Connections open at once: a few browsers with six connections each, with room to spare on
// a device with little memory. When this many are open, a new one takes the place of the
// connection that has waited longest for its next request (idle keep-alive, slow headers);
// when every connection is busy with a request, the new one is closed.
constexpr unsigned kMaxConnections = 256;
// Connections libmicrohttpd itself accepts: beyond it, new clients wait in the backlog and
// nobody can be made room for. The margin lets a newcomer in while an evicted connection is
// still closing.
constexpr unsigned kConnectionHeadroom = 16;
// Connections from one address. A browser opens at most six to one host; a few more leave
// room for a second tab. More than that from one address is a client trying to take the
// slots of others.
constexpr unsigned kMaxConnectionsPerAddress = 8;
// Seconds within which a request's line and headers must be complete, counted from the
// connection's start or the end of its previous request. A browser sends them in one packet;
// a client that trickles them (or keeps an idle connection) gives the slot back.
constexpr unsigned kHeaderDeadlineSeconds = 10;
// How often the connections are checked against kHeaderDeadlineSeconds.
constexpr unsigned kConnectionSweepMs = 1000;
// Seconds a connection may stay idle (no byte moving) before it is closed: a body that stops
// coming, a reply its client no longer reads. A request waiting for its action is suspended
// and never times out.
constexpr unsigned kIdleTimeoutSeconds = 30;
// Longest wait of the event loop, so that the finish flag is seen promptly.
constexpr int kMaxLoopWaitMs = 250;
// Backlog of the listening socket: a burst of new connections from many hosts waits here to
// be accepted (libmicrohttpd takes ten per turn) instead of having its SYNs dropped and
// retried a second later.
constexpr int kListenBacklog = 256;
// A client refused before its body was read may still be sending it; closing the socket on
// unread bytes would reset the connection and could destroy the refusal before the client
// reads it. Such a connection is kept this long after libmicrohttpd closes it, its input read
// and dropped, until the client closes its end.
constexpr unsigned kLingerMs = 2000;
// Connections kept so at once; beyond that a refused connection is closed at once.
constexpr unsigned kMaxLingering = 32;
// Bytes one read takes of a lingering connection's input: a few packets a call, on the stack.
constexpr size_t kLingerReadBytes = 16 * 1024;
// Turns of libmicrohttpd's loop that websClose gives the connections it resumed: one to take
// a connection back, one to call its handler and queue the reply, one to write it. What is
// not sent by then goes with the daemon.
constexpr int kCloseDrainTurns = 3;
// Longest message of libmicrohttpd's own log that is traced; its messages are one short
// sentence, a longer one is cut.
constexpr size_t kMaxEngineMessage = 512;
// The largest port a TCP address can carry; an endpoint or Host header naming more is wrong.
constexpr long kMaxTcpPort = 65535;
// Memory of libmicrohttpd's multipart parser: the part headers of an upload fit in it.
constexpr size_t kPostProcessorBuffer = 16 * 1024;

// Bytes gathered before a temporary file is written: a body arrives in pieces of a few KiB
// (libmicrohttpd's read buffer lives in kConnectionMemory), a write per piece would cost
// more than the copy.
constexpr size_t kTempFileBuffer = 64 * 1024;

// Longest line of the route and authentication files.
constexpr size_t kMaxConfigLine = 1024;
// Files served from memory instead of sendfile (an open + read costs less than setting up
// a file response for these).
constexpr uint64_t kMaxMemoryFile = 16 * 1024;
// Ready replies kept for such files: the console's pages, scripts and pictures of that size
// fit, and the bodies held stay under 16 x kMaxMemoryFile = 256 KiB.
constexpr size_t kCachedDocuments = 16;
// A reply is kept only of a file whose modification time is this old: a file written again
// within one tick of the file system's clock (two seconds on a FAT card) keeps its time, so
// only a change after that shows in the file's state.
constexpr time_t kSettledSeconds = 2;

} // namespace webs_limits
