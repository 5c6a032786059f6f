#include "json2c/language_json.h"

#include "common/text_field.h"
#include "json2c/json_fields.h"

namespace {

// Only these two page sets exist on the device; the match is case-sensitive.
const char *const kLanguages[] = {"chinese", "english", nullptr};
constexpr char kIndexPage[] = "login.html";

} // namespace

int getLanguageFormatFromJSON(const char *text, LanguageFormat *lang)
{
    if (!text || !lang) {
        HTTP_ERROR("Invalid params!\n");
        return -2;
    }
    int mode = 0;
    const JsonField fields[] = {
        json_text_one_of("language", lang->language, sizeof lang->language, kLanguages, "Invalid params!\n"),
        json_int("mode", &mode),
    };
    int rc = json_parse_fields(text, fields, LOG_HERE);
    if (rc != 0)
        return rc;
    copy_field(lang->index_page, sizeof lang->index_page, kIndexPage);
    lang->mode = mode;
    return 0;
}
