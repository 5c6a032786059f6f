// Static documents end to end: a GET or HEAD of any path, with any Range and
// If-Modified-Since, with or without gzip accepted, through the real web server, on a tree
// with links out of the document root, into its private folder and into the picture folder,
// and precompressed copies. Nothing private is ever served, and every document byte that is
// served is the right one.
//
// Input: a flags byte (1: HEAD, 2: gzip accepted), then "\n"-separated: the path, the Range
// value, the If-Modified-Since value (each header left out when empty).
#include "fuzz_target.h"
#include "support/device.h"

#include <cstdio>
#include <string>

namespace {

bool header_safe(std::string_view value)
{
    return value.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
}

void run(const uint8_t *data, size_t size)
{
    fuzzdev::start();
    // The canary is looked for in replies: an input that holds it could see it echoed.
    if (size == 0 || std::string_view(reinterpret_cast<const char *>(data), size).find(fuzzdev::kCanary) !=
                         std::string_view::npos)
        return;
    bool head = data[0] & 1;
    std::vector<std::string_view> parts = fuzz_split(data + 1, size - 1, '\n', 3);
    std::string_view range = parts.size() > 1 ? parts[1] : "", since = parts.size() > 2 ? parts[2] : "";
    if (!header_safe(range) || !header_safe(since))
        return;
    std::string target = fuzzdev::request_target(parts[0]);
    if (fuzzdev::dropped_by_the_library(target))
        return;
    std::string request = std::string(head ? "HEAD " : "GET ") + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n";
    if (data[0] & 2)
        request += "Accept-Encoding: gzip\r\n";
    if (!range.empty())
        request += "Range: " + std::string(range) + "\r\n";
    if (!since.empty())
        request += "If-Modified-Since: " + std::string(since) + "\r\n";
    fuzzdev::Reply reply = fuzzdev::exchange(request + "\r\n", head);
    fuzzdev::restore();

    FUZZ_CHECK(reply.status > 0 && reply.ms < fuzzdev::kPromptMs, "every request gets a reply in time");
    FUZZ_CHECK(reply.status != 500, "every document can be read");
    FUZZ_CHECK(reply.body.find(fuzzdev::kCanary) == std::string::npos, "nothing private is served");
    if (head || (reply.status != 200 && reply.status != 206) ||
        reply.header("Content-Type").starts_with("application/json"))
        return;  // no document bytes (a path under /action reaches the dispatcher)
    size_t first = 0, total = reply.body.size();
    if (reply.status == 206) {
        size_t last = 0;
        std::string range_header = reply.header("Content-Range");
        FUZZ_CHECK(sscanf(range_header.c_str(), "bytes %zu-%zu/%zu", &first, &last, &total) == 3,
                   "a part names its range");
        FUZZ_CHECK(first <= last && last < total && reply.body.size() == last - first + 1,
                   "a part within the document, as long as it says");
    }
    FUZZ_CHECK(reply.body == fuzzdev::pattern(total).substr(first, reply.body.size()), "the document's own bytes");
}

} // namespace

FUZZ_TARGET("static_documents", nullptr, run);
