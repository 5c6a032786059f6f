// Checks of a request's Host and Origin headers, the defences against a web page that
// rebinds its own DNS name to the device, and against another site's page that posts to it.
// Both take the header values as they arrived (nullptr when the request had none).
#pragma once

#include <string_view>

namespace webs {

// Whether host names this device: an IPv4 literal, an IPv6 literal in brackets, "localhost",
// or device_name with or without ".local"; names in any letter case and with at most one
// trailing dot; each with an optional port. A DNS name of any other host is what a
// rebinding page sends. A request without Host passes: no browser sends one without it.
bool host_allowed(const char *host, std::string_view device_name);

// Whether a request with this Origin may change anything: no Origin (not a cross-site
// browser request), or an http or https origin whose host and port are those of host.
// "null" (sandboxed frames, some redirects) and anything unreadable are refused.
bool origin_allowed(const char *origin, const char *host);

// A header value without the spaces and tabs around it.
std::string_view trim_ows(std::string_view text);

} // namespace webs
