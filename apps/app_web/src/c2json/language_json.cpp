#include "c2json/language_json.h"

#include "c2json/json_print.h"
#include "common/text_field.h"

#include <cjson/cJSON.h>
#include <string>
#include <utility>

int formatLanguageParamJSON(char **out, const LanguageFormat *lang)
{
    if (!out || !lang) {
        HTTP_ERROR("Invalid input params!\n");
        return -2;
    }
    // The record comes from a file: its text need not be terminated within the field.
    std::string language(field_text(lang->language));
    CJsonPtr obj(cJSON_CreateObject());
    bool built = obj && cJSON_AddStringToObject(obj.get(), "language", language.c_str()) &&
                 cJSON_AddNumberToObject(obj.get(), "mode", lang->mode);
    return json_print_formatted(std::move(obj), built, out, LOG_HERE);
}
