// The account list of "get_user_param".
#pragma once

#include "usermanagement/usermgnt.h"

// Prints the used slots, from slot 0 up to the first without a name, as an array of
// {"user_name", "password"} into *out (heap text, the caller frees it).
// 0; -2 out missing; -15 the array cannot be built or printed.
int formatUserParamJSON(char **out, UsermgntConfig config);
