// Writers of the browser-facing replies: status 200 and a JSON envelope, and the request is
// complete. Each writes exactly one reply.
#pragma once

struct Webs;

// Writes text as the body of a status-200 reply and completes the request (text stays the
// caller's).
void http_response(Webs *wp, const char *text);
// {"Result": "Fail", "ErrorNo": code, "Reason": reason}
void json_perror(Webs *wp, int code, const char *reason);
// {"Result": "OK"}
void json_OK(Webs *wp);
