// Parser of the "set_user_param" body.
#pragma once

#include "usermanagement/usermgnt.h"

// Body {"operation": n, "user_name", "password"}: fills *user (texts cut to 63 characters,
// empty texts accepted) and *operation. 0; -2 missing argument or member; -15 not JSON.
int getUserParamsFromJSON(const char *json, UsermgntUser *user, int *operation);
