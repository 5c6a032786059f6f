// The query of an action request: the keys the dispatcher recognises.
#pragma once

#include "webs/webs_limits.h"

#include <cstddef>

// The request URL: the longest target the web layer accepts and the terminator.
constexpr size_t kUrlCopySize = webs_limits::kMaxTarget + 1;

// Pointers into the cut query; nullptr when the key was not given. Values stay undecoded.
struct RequestQuery {
    const char *sessionid = nullptr;
    const char *username = nullptr;
    const char *password = nullptr;
    const char *fileName = nullptr;
};

// Cuts query in place into key=value pairs separated by "&" and keeps the recognised keys
// (the last of a repeated key wins; other keys are ignored). 0, or -1 for a pair without
// "=" (after the error line "Invalid URL\n") or with an empty key or value.
int parse_request_query(char *query, RequestQuery *out);
