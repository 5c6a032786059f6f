// The password-verification payload sent to the device application with "VerifyPassword".
#pragma once

#include "common/login_param.h"

// Prints {"UserName", "Password", "MD5Password": 1} into *out (heap text, the caller
// frees it). 0; -2 missing argument; -15 the object cannot be built or printed.
int formatLoginMsgParamJSON(char **out, const LoginParam *login);
