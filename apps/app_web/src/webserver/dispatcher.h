// The "device" action: every JSON request of the web pages arrives here.
#pragma once

#include <mutex>

struct Webs;

// Called by the web layer once the request's line and headers are in: parses the action
// name and the query, admits the caller (before any byte of the body is read) and has the
// action answered.
void actionGetMethodUrl(Webs *wp);

// The web server module's mutex, kept for the contract: the device's code knows it, and each
// step of a local action holds it from its handler until its reply is written. The ordering
// of the local actions does the real work (LocalActions starts a step only once the one
// before it has ended: a quick step runs to its end on the event loop, and after a blocking
// step handed to the worker the next starts only when the worker's word that it ended is
// back on the loop), so the lock guards nothing more and nothing ever waits for it.
extern std::mutex mutex;
