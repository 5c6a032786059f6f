#include "c2json/login_json.h"

#include "c2json/json_print.h"
#include "common/log.h"
#include "common/owners.h"
#include "common/text_field.h"

#include <cjson/cJSON.h>
#include <string>
#include <utility>

int formatLoginMsgParamJSON(char **out, const LoginParam *login)
{
    if (!out || !login) {
        HTTP_ERROR("Invalid input params!\n");
        return -2;
    }
    *out = nullptr;
    // The record's fields may be filled to the last byte; never read past them.
    std::string name(field_text(login->username));
    std::string password(field_text(login->password));
    CJsonPtr obj(cJSON_CreateObject());
    bool built = obj && cJSON_AddStringToObject(obj.get(), "UserName", name.c_str()) &&
                 cJSON_AddStringToObject(obj.get(), "Password", password.c_str()) &&
                 cJSON_AddNumberToObject(obj.get(), "MD5Password", 1);
    return json_print_formatted(std::move(obj), built, out, LOG_HERE);
}
