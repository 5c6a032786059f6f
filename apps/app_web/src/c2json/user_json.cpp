#include "c2json/user_json.h"

#include "c2json/json_print.h"
#include "common/log.h"
#include "common/owners.h"
#include "common/text_field.h"

#include <cjson/cJSON.h>
#include <string>
#include <utility>

int formatUserParamJSON(char **out, UsermgntConfig config)
{
    if (!out) {
        HTTP_ERROR("Invalid input params!\n");
        return -2;
    }
    *out = nullptr;
    CJsonPtr list(cJSON_CreateArray());
    bool built = list != nullptr;
    for (const UsermgntUser &slot : config.user) {
        if (!built || slot.user_name[0] == '\0')
            break;
        CJsonPtr item(cJSON_CreateObject());
        // A field filled to its last byte (a damaged file) is not read past.
        std::string name(field_text(slot.user_name)), digest(field_text(slot.password));
        built = item && cJSON_AddStringToObject(item.get(), "user_name", name.c_str()) &&
                cJSON_AddStringToObject(item.get(), "password", digest.c_str()) &&
                cJSON_AddItemToArray(list.get(), item.get());
        if (built)
            item.release();  // now owned by the list
    }
    return json_print_formatted(std::move(list), built, out, LOG_HERE);
}
