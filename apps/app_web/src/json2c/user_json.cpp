#include "json2c/user_json.h"

#include "json2c/json_fields.h"

int getUserParamsFromJSON(const char *json, UsermgntUser *user, int *operation)
{
    if (!json || !user || !operation) {
        HTTP_ERROR("Invalid params!\n");
        return -2;
    }
    const JsonField fields[] = {
        json_int("operation", operation),
        json_text("user_name", user->user_name, sizeof user->user_name),
        json_text("password", user->password, sizeof user->password),
    };
    return json_parse_fields(json, fields, LOG_HERE);
}
