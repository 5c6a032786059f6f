#include "actions/user_actions.h"

#include "c2json/reply_text.h"
#include "c2json/user_json.h"
#include "common/log.h"
#include "json2c/user_json.h"
#include "usermanagement/usermgnt.h"

int actionGetUserParam(const char * /*in_json*/, char **out_json)
{
    if (!out_json)
        return -2;
    *out_json = nullptr;
    UsermgntConfig config{};
    int ret = HTTP_Get_UsermgntConfig(&config);
    if (ret != 0) {
        HTTP_ERROR("get User Param  fail  return : %d\n", ret);  // contract: exact bytes
        formatFailCallJSON(out_json, "get User params fail");
        return -1;
    }
    char *list = nullptr;
    ret = formatUserParamJSON(&list, config);
    if (ret != 0) {
        HTTP_ERROR("Format User params fail  return : %d\n", ret);  // contract: exact bytes
        formatFailCallJSON(out_json, "get User params fail");
        return ret;
    }
    formatParamsJSON(out_json, REPLY_REASON_GOT, list);
    return 0;
}

int actionSetUserParam(const char *in_json, char **out_json)
{
    if (!out_json)
        return -2;
    *out_json = nullptr;
    UsermgntUser user{};
    int operation = 0;
    if (getUserParamsFromJSON(in_json, &user, &operation) != 0) {
        formatFailCallJSON(out_json, "Invalid input params");
        return -1;
    }
    int ret = HTTP_Set_UsermgntConfig(operation, &user);
    if (ret != 0) {
        HTTP_ERROR("set User administration param fail! return : %d\n", ret);
        formatFailCallJSON(out_json, "set User params fail");
        return ret;
    }
    formatSuccessCallJSON(out_json, REPLY_REASON_SET);
    return 0;
}
