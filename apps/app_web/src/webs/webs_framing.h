// Request framing: the header fields that decide where a request ends must leave no doubt.
// When two parsers on the way (a proxy, a cache, this server) could read them differently,
// a body can carry a second, hidden request. libmicrohttpd 0.9.75 takes the first
// Content-Length of several, lets Transfer-Encoding win over Content-Length silently and
// takes an unknown Transfer-Encoding as a body without end; these fields all stay visible
// in its header list, so the check runs over that list once the headers are in.
//
// Not visible there as what they were: obs-fold (libmicrohttpd 0.9.75 appends a continuation
// line to the name of the field before it, so only a continuation holding a character no
// name may hold shows, as a name that is no token) and bare LF line ends (taken like CRLF).
// Both become refusable with libmicrohttpd 1.0's client discipline level; 0.9.75 has no
// switch for them.
#pragma once

#include <microhttpd.h>
#include <span>
#include <string_view>
#include <vector>

namespace webs {

struct HeaderField {
    std::string_view name, value;
};

// Why a request with these header fields is malformed or its framing doubtful, or nullptr
// when it is neither: a field name that is not a token (whitespace before the colon, or a
// first field line that starts with whitespace), a value holding a control character (a
// bare CR), Content-Length given twice with different values, Transfer-Encoding together
// with Content-Length, Transfer-Encoding other than a single "chunked", more than one Host,
// or none in an HTTP/1.1 request (http11). Each is answered with 400 and the connection
// closed (RFC 9112 3.2, 6.3).
const char *framing_fault(std::span<const HeaderField> fields, bool http11);

// The request's header fields as libmicrohttpd received them, in order; they point into
// the connection's memory and live as long as the request.
std::vector<HeaderField> request_header_fields(MHD_Connection *connection);

} // namespace webs
