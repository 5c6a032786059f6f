#include "usermanagement/usermgnt.h"

#include "common/cfgfile.h"
#include "common/log.h"
#include "common/text_field.h"
#include "md5/md5.h"

#include <cstring>

namespace {

constexpr char kDefaultUser[] = "admin";
constexpr char kDefaultPassword[] = "tavel";

bool slot_is_free(const UsermgntUser &slot)
{
    return slot.user_name[0] == '\0' && slot.password[0] == '\0';
}

} // namespace

void usermgnt_default(UsermgntConfig *config)
{
    memset(config, 0, sizeof *config);
    UsermgntUser &admin = config->user[0];
    copy_field(admin.user_name, sizeof admin.user_name, kDefaultUser);
    unsigned char digest[MD5_DIGEST_SIZE];
    MD5Buffer(kDefaultPassword, sizeof kDefaultPassword - 1, digest);
    md5_sig_to_string(digest, admin.password, sizeof admin.password);
}

namespace {

int write_image(const UsermgntConfig &config)
{
    if (http_set_cfgfile(USERMGNT_PARA_FILE, &config, sizeof config) != 0) {
        HTTP_ERROR("DEVSDK_Set_CfgFile: USERMGNT_PARA_FILE failed!\n");
        return -1;
    }
    return 0;
}

int add_user(UsermgntConfig *config, const UsermgntUser &want)
{
    for (UsermgntUser &slot : config->user) {
        if (usermgnt_field_is(slot.user_name, want.user_name)) {
            HTTP_ERROR("user is  already existence \n");  // contract: exact bytes
            return -1;
        }
        if (slot_is_free(slot)) {
            slot = want;
            return 0;
        }
    }
    // Writing the image back unchanged would tell the page the account was added.
    HTTP_ERROR("user table is full, at most %d accounts\n", USERMGNT_MAX_USERS);
    return -1;
}

int delete_user(UsermgntConfig *config, const UsermgntUser &want)
{
    if (strcmp(want.user_name, kDefaultUser) == 0) {
        HTTP_ERROR("username:admin can't delete \n");  // contract: exact bytes
        return -1;
    }
    for (int i = 0; i < USERMGNT_MAX_USERS; ++i) {
        if (!usermgnt_field_is(config->user[i].user_name, want.user_name))
            continue;
        if (!usermgnt_field_is(config->user[i].password, want.password)) {
            HTTP_ERROR("user password mistake please check\n");  // contract: exact bytes
            return -3;
        }
        // Close the gap so the used slots stay one run from slot 0; the last slot ends free.
        memmove(&config->user[i], &config->user[i + 1],
                sizeof(UsermgntUser) * static_cast<size_t>(USERMGNT_MAX_USERS - 1 - i));
        memset(&config->user[USERMGNT_MAX_USERS - 1], 0, sizeof(UsermgntUser));
        return 0;
    }
    return 0;
}

int change_password(UsermgntConfig *config, const UsermgntUser &want)
{
    for (UsermgntUser &slot : config->user) {
        if (!usermgnt_field_is(slot.user_name, want.user_name))
            continue;
        if (slot.password[0] == '\0') {
            HTTP_ERROR("user password is empty\n");
            return -4;
        }
        memcpy(slot.password, want.password, sizeof slot.password);
        return 0;
    }
    HTTP_ERROR("user is  not existence \n");  // contract: exact bytes
    return -2;
}

} // namespace

bool usermgnt_field_is(const char (&field)[USERMGNT_FIELD_SIZE], const char *text)
{
    return field_text(field) == text;
}

int HTTP_Get_UsermgntConfig(UsermgntConfig *config)
{
    if (!config)
        return -1;
    if (http_get_cfgfile(USERMGNT_PARA_FILE, config, sizeof *config) == 0)
        return 0;
    HTTP_ERROR("DEVSDK_Get_CfgFile: USERMGNT_PARA_FILE failed!\n");
    usermgnt_default(config);
    return write_image(*config);
}

int HTTP_Set_UsermgntConfig(int operation, const UsermgntUser *user)
{
    if (!user)
        return -1;
    // A terminated copy with zeroed tails, so that what is stored is NUL-padded and
    // comparisons never run past a caller's field.
    UsermgntUser want{};
    copy_field(want.user_name, sizeof want.user_name, user->user_name);
    copy_field(want.password, sizeof want.password, user->password);

    UsermgntConfig config;
    if (HTTP_Get_UsermgntConfig(&config) != 0) {
        HTTP_PRINT("DEVSDK_Get_UsermgntConfig failed\n");
        return -1;
    }

    int ret = 0;
    switch (operation) {
    case USERMGNT_ADD:
        ret = add_user(&config, want);
        break;
    case USERMGNT_DELETE:
        ret = delete_user(&config, want);
        break;
    case USERMGNT_CHANGE_PASSWORD:
        ret = change_password(&config, want);
        break;
    default:
        break;
    }
    if (ret != 0)
        return ret;
    return write_image(config);
}
