#include "json2c/login_json.h"

#include "json2c/json_fields.h"

#include <cstring>

int getLoginParamFromJSON(const char *json, LoginParam *login, int *timeout)
{
    if (!json || !login || !timeout) {
        HTTP_ERROR("Invalid params\n");
        return -2;
    }
    int seconds = 0;
    const JsonField fields[] = {
        json_text("username", login->username, sizeof login->username, false),
        json_text("password", login->password, sizeof login->password, false),
        json_int("timeout", &seconds),
    };
    int ret = json_parse_fields(json, fields, LOG_HERE);
    if (ret != 0)
        return ret;
    *timeout = seconds < 1 ? LOGIN_DEFAULT_TIMEOUT : seconds;
    return 0;
}

int getLoginParamFromJSON_msg(const char *json, int *pass_validation)
{
    if (!json || !pass_validation) {
        HTTP_ERROR("Invalid params\n");
        return -2;
    }
    CJsonPtr root;
    int ret = json_parse_text(json, &root, LOG_HERE);
    if (ret != 0)
        return ret;
    const cJSON *result = cJSON_GetObjectItemCaseSensitive(root.get(), "Result");
    if (!cJSON_IsString(result) || !result->valuestring || strcmp(result->valuestring, "OK") != 0) {
        HTTP_ERROR(" Result is empty or error value type \n");  // contract: exact bytes
        return -2;
    }
    const cJSON *params = cJSON_GetObjectItemCaseSensitive(root.get(), "Parameters");
    if (!cJSON_IsObject(params)) {
        HTTP_ERROR(" object is empty or error value type \n");  // contract: exact bytes
        return -2;
    }
    const JsonField fields[] = {json_int("PassValidation", pass_validation)};
    return json_read_fields(params, fields, LOG_HERE);
}

int getSessionidParamFromJSON(const char *json, char *sessionid, size_t size)
{
    if (!json || !sessionid || size == 0) {
        HTTP_ERROR("Invalid params\n");
        return -2;
    }
    const JsonField fields[] = {json_text("sessionid", sessionid, size)};
    return json_parse_fields(json, fields, LOG_HERE);
}
