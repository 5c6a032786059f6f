// The device the end-to-end fuzz targets run against, inside tests/isolate.sh: the device
// tree under /mnt with documents whose every byte is known, links out of the document root
// and into its private folder, canary files that must never be served or deleted, the
// routing table, device applications that answer at once, and the real web server on
// 127.0.0.1, started the way the process entry starts it.
//
// How the server is started and driven lives in device.cpp alone: a change of the request
// engine is adapted there, the targets see only requests and replies.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace fuzzdev {

constexpr char kRoot[] = "/mnt/app/web_root";
// Text in every file that must never leave the device through a reply, nor be deleted.
constexpr std::string_view kCanary = "CANARY-";

// The content of every servable document of size bytes: any slice of it can be checked.
std::string pattern(size_t size);

// Lays out the device tree (again), idempotent.
void lay_out();
// Puts back what a request changed in the tree and the settings (cheap when nothing did).
void restore();
// Paths outside the storage root and the document root that must survive anything.
const char *const *canaries();

// Starts the device applications and the web server once; later calls do nothing. Called
// with the first input, not before: libFuzzer's merge runs a parent that only watches.
void start();

struct Reply {
    int status = 0;  // 0: the connection ended without a reply; -1: none within minutes
    long long ms = 0;  // until the reply was complete
    int error = 0;     // errno when the request could not even be sent
    std::string head, body;
    std::string header(std::string_view name) const;  // the value of a header, "" when absent
};
// text for a request line: bytes a request line cannot carry (controls, space) percent-encoded.
std::string request_target(std::string_view text);

// Whether libmicrohttpd may close a request with this target without any reply: the line,
// the headers and some 60 bytes for each query part share the connection's memory, and a
// request that leaves it no room to write the reply's header is closed instead (a little
// more, and the request gets its 431).
bool dropped_by_the_library(std::string_view target);

// Sends one request, the bytes as given, and reads its reply (no body for HEAD).
constexpr long long kPromptMs = 10000;  // a reply later than this is a hang
Reply exchange(const std::string &request, bool head = false);

// A live session id of "admin" (a new one when the last has gone).
std::string session_id();
// What the device applications answer to the next relayed command, as it stands; "" for
// a well-formed answer.
void set_device_answer(std::string_view answer);

} // namespace fuzzdev
