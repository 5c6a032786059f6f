// How a browser proves who it is: login through the device application that checks
// passwords ("VerifyPassword"), per-request credentials in the query, and the session check.
#pragma once

struct Webs;

// 0 for a live session (looked up with the access text, so "set" refreshes it); -1 after
// writing the coded failure -16 "Session ID is empty" or "Invalid session ID".
int check_session_id_valid(Webs *wp, const char *session_id, const char *access);

// Verifies the query's user name and password with the device application. 0 lets the
// request go on; -1 after writing the refusal.
int check_query_credentials(Webs *wp, const char *username, const char *password);

// The "login" action: parses the body, verifies the password with the device application
// and opens a session. Fills reason (128 bytes) when the exchange fails.
int http_login_flow(const char *in_json, char **out_json, char *reason);
