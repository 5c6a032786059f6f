#include "actions/password_check.h"

#include "common/log.h"
#include "usermanagement/usermgnt.h"

int check_user_pass_valid(const char *username, const char *password)
{
    if (!username || !password) {
        HTTP_ERROR("failure username and password input...\n");
        return 0;
    }
    UsermgntConfig config;
    int ret = HTTP_Get_UsermgntConfig(&config);
    if (ret != 0) {
        HTTP_ERROR("get User params fail!  return : %d\n", ret);  // contract: exact bytes
        return 0;
    }
    for (const UsermgntUser &slot : config.user) {
        // A free slot is no account: an empty name and digest must not log anyone in.
        if (slot.user_name[0] == '\0')
            continue;
        if (usermgnt_field_is(slot.user_name, username) && usermgnt_field_is(slot.password, password))
            return 1;
    }
    HTTP_ERROR("login < UserName and password is false>\n");  // contract: exact bytes
    return 0;
}
