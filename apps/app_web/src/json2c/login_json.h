// Parsers of the login flows: the login body, the password-verification answer of the
// device application, and the logout body.
#pragma once

#include "common/login_param.h"

#include <cstddef>

constexpr int LOGIN_DEFAULT_TIMEOUT = 1800;  // seconds of idle time when the body asks for less than 1

// Login body {"username", "password", "timeout"}: both texts non-empty (cut to 63
// characters), "timeout" numeric; a time-out below 1 yields LOGIN_DEFAULT_TIMEOUT.
// 0; -2 missing argument or member; -15 not JSON.
int getLoginParamFromJSON(const char *json, LoginParam *login, int *timeout);

// Verification answer {"Result": "OK", "Parameters": {"PassValidation": n}}; stores n
// (non-zero: the password is valid). 0; -2 missing argument, "Result" not "OK", or a
// member missing or mistyped; -15 not JSON.
int getLoginParamFromJSON_msg(const char *json, int *pass_validation);

// Logout body {"sessionid"}: copies the id into sessionid (size bytes, cut and terminated).
// 0; -2 missing argument or member; -15 not JSON.
int getSessionidParamFromJSON(const char *json, char *sessionid, size_t size);
