// The "device" action: every JSON request of the web pages arrives here.
#pragma once

#include <mutex>

struct Webs;

// Called by the web layer once the request's line and headers are in: parses the action
// name and the query, admits the caller (before any byte of the body is read) and has the
// action answered.
void actionGetMethodUrl(Webs *wp);

// The web server module's mutex, kept because the device's code knows it: each step of a
// local action holds it from its handler until its reply is written. Steps never overlap,
// so nothing ever waits for it.
extern std::mutex mutex;
