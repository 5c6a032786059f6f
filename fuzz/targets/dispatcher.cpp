// The dispatcher end to end: a request to the "device" action, with or without a live
// session, through the real web server and its device applications. Every request gets
// exactly one reply; the dispatcher's 200 replies are one JSON value; nothing private leaves.
//
// Input: a flags byte, then, separated by 0xff bytes (which JSON and a multipart body of a
// PNG do without): the action name with its query, the body, and what the device
// applications answer (empty: a well-formed answer).
#include "fuzz_target.h"
#include "support/device.h"

#include <cjson/cJSON.h>
#include <cstring>
#include <string>

namespace {

enum Flags : uint8_t {
    kWithSession = 1,  // the query carries a live session id
    kPost = 2,         // POST with the body, else GET
    kMultipart = 4,    // the body is sent as multipart/form-data (the watermark upload)
};

// Actions left out: they wait seconds by design (reboot) or start a program (port status).
const char *const kSlow[] = {"set_device_reboot", "GetWebServerPortStatus"};

// The request of the input before, named when this one fails (a hang may be its doing).
std::string previous;

void run(const uint8_t *data, size_t size)
{
    fuzzdev::start();
    // The canary is looked for in replies: an input that holds it could see it echoed.
    if (size == 0 || std::string_view(reinterpret_cast<const char *>(data), size).find(fuzzdev::kCanary) !=
                         std::string_view::npos)
        return;
    uint8_t flags = data[0];
    std::vector<std::string_view> parts = fuzz_split(data + 1, size - 1, '\xff', 3);
    std::string target = "/action/device/" + fuzzdev::request_target(parts[0]);
    for (const char *slow : kSlow)
        if (target.find(slow) != std::string::npos)
            return;
    if (fuzzdev::dropped_by_the_library(target))
        return;
    if (flags & kWithSession)
        target += (target.find('?') == std::string::npos ? "?sessionid=" : "&sessionid=") + fuzzdev::session_id();
    std::string body = (flags & kPost) && parts.size() > 1 ? std::string(parts[1]) : "";
    fuzzdev::set_device_answer(parts.size() > 2 ? parts[2] : "");

    std::string request = std::string(flags & kPost ? "POST " : "GET ") + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n";
    if (flags & kPost) {
        request += flags & kMultipart ? "Content-Type: multipart/form-data; boundary=fuzz\r\n"
                                      : "Content-Type: application/json\r\n";
        request += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    }
    request += "\r\n" + body;
    // Percent-encoding can spell the canary too ("%0C" before "ANARY-"): the server may echo it.
    if (request.find(fuzzdev::kCanary) != std::string::npos)
        return;
    fuzzdev::Reply reply = fuzzdev::exchange(request);
    fuzzdev::restore();

    std::string seen = reply.head.substr(0, reply.head.find("\r\n")) + " " + reply.body.substr(0, 300) + " after " +
                       std::to_string(reply.ms) + " ms" + (reply.error ? " (" + std::string(strerror(reply.error)) + ")" : "") +
                       "; the request before: " + previous.substr(0, 300);
    previous = request;
    FUZZ_CHECK(reply.status > 0, "every request gets a reply: " + seen);
    FUZZ_CHECK(reply.ms < fuzzdev::kPromptMs, "a reply in time: " + seen);
    FUZZ_CHECK(reply.status != 500, "the dispatcher always writes its own reply: " + seen);
    FUZZ_CHECK(reply.body.find(fuzzdev::kCanary) == std::string::npos, "nothing private in a reply");
    if (reply.status == 200) {
        const char *end = nullptr;
        cJSON *parsed = cJSON_ParseWithLengthOpts(reply.body.data(), reply.body.size(), &end, false);
        bool whole = parsed && end == reply.body.data() + reply.body.size();
        cJSON_Delete(parsed);
        FUZZ_CHECK(whole, "a 200 reply of the dispatcher is one JSON value: " + seen);
    }
}

} // namespace

FUZZ_TARGET("dispatcher", nullptr, run);
