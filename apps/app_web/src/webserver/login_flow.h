// How a browser proves who it is: login through the device application that checks
// passwords ("VerifyPassword"), per-request credentials in the query, and the session check.
#pragma once

#include "webs/webs.h"
#include "webserver/outcome.h"

#include <functional>

// 0 for a live session (looked up with the access text, so "set" refreshes it); -1 after
// writing the coded failure -16 "Session ID is empty" or "Invalid session ID".
int check_session_id_valid(Webs *wp, const char *session_id, const char *access);

// Verifies the query's user name and password with the device application: admitted runs
// when the application accepts them, else the refusal is written.
void check_query_credentials(WebsHold hold, const char *username, const char *password,
                             std::function<void()> admitted);

// The "login" action: parses the body, verifies the password with the device application
// and then, on the local actions' turn, opens a session. done gets the outcome for the
// reply choice (the reason filled when the exchange failed).
void http_login_flow(WebsHold hold, const char *in_json, std::function<void(Outcome)> done);
