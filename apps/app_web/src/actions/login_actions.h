// Opening and closing sessions.
#pragma once

#include "common/login_param.h"

// Opens a session for login; the reply carries its id. -16 with the refusal reply when the
// session table refuses.
int actionLogin(const LoginParam *login, int timeout, char **out_json);

// The "logout" action: removes the session named by the body's "sessionid".
int actionLogOut(const char *in_json, char **out_json);
