#include "actions/language_actions.h"

#include "c2json/language_json.h"
#include "c2json/reply_text.h"
#include "common/cfgfile.h"
#include "common/language_format.h"
#include "common/log.h"
#include "json2c/language_json.h"

int actionGetLanguageFormat(const char * /*in_json*/, char **out_json)
{
    if (!out_json)
        return -2;
    // The get never recreates the file: only the server start does.
    LanguageFormat lang{};
    int rc = http_get_cfgfile(WEB_LANGUAGE_FILE, &lang, sizeof lang);
    if (rc != 0) {
        HTTP_ERROR("GetLanguage Format Fail! return : %d\n", rc);
        formatFailCallJSON(out_json, "get language params fail");
        return rc;
    }
    char *params = nullptr;
    rc = formatLanguageParamJSON(&params, &lang);
    if (rc != 0) {
        HTTP_ERROR("Format Language fail  return : %d\n", rc);  // contract: exact bytes
        formatFailCallJSON(out_json, "get language params fail");
        return rc;
    }
    formatParamsJSON(out_json, REPLY_REASON_GOT, params);
    return 0;
}

int actionSetLanguageFormat(const char *in_json, char **out_json)
{
    if (!out_json)
        return -2;
    // Zeroed whole, so the bytes behind each text's terminator are zero in the file too.
    LanguageFormat lang{};
    if (getLanguageFormatFromJSON(in_json, &lang) != 0) {
        formatFailCallJSON(out_json, "set language params fail");
        return -1;
    }
    if (http_set_cfgfile(WEB_LANGUAGE_FILE, &lang, sizeof lang) != 0) {
        HTTP_ERROR("Set Language Format Fail!\n");
        formatFailCallJSON(out_json, "set language params fail");
        return -1;
    }
    formatSuccessCallJSON(out_json, REPLY_REASON_SET);
    return 0;
}
