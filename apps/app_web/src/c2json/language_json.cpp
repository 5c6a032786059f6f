#include "c2json/language_json.h"

#include "json2c/json_fields.h"

#include <cjson/cJSON.h>

int formatLanguageParamJSON(char **out, const LanguageFormat *lang)
{
    if (!out || !lang) {
        HTTP_ERROR("Invalid input params!\n");
        return -2;
    }
    // The record comes from a file: its text need not be terminated within the field.
    char language[sizeof lang->language + 1];
    copy_field(language, sizeof language, lang->language);
    CJsonPtr obj(cJSON_CreateObject());
    if (!obj || !cJSON_AddStringToObject(obj.get(), "language", language) ||
        !cJSON_AddNumberToObject(obj.get(), "mode", lang->mode)) {
        HTTP_ERROR("Out of memory!\n");
        return -15;
    }
    *out = cJSON_Print(obj.get());
    if (!*out) {
        HTTP_ERROR("Out of memory!\n");
        return -15;
    }
    return 0;
}
