#include "c2json/reply_text.h"

#include "c2json/json_layout.h"
#include "common/owners.h"

#include <cjson/cJSON.h>

namespace {

char *print_envelope(const char *result, const char *reason)
{
    CJsonPtr obj(reply_envelope(result, reason));
    return obj ? cJSON_Print(obj.get()) : nullptr;
}

} // namespace

cJSON *reply_envelope(const char *result, const char *reason)
{
    CJsonPtr obj(cJSON_CreateObject());
    if (!obj || !cJSON_AddStringToObject(obj.get(), "Result", result))
        return nullptr;
    if (reason && !cJSON_AddStringToObject(obj.get(), "Reason", reason))
        return nullptr;
    return obj.release();
}

void formatFailCallJSON(char **out, const char *reason)
{
    *out = print_envelope("Fail", reason ? reason : "");
}

void formatSuccessCallJSON(char **out, const char *reason)
{
    *out = print_envelope("OK", reason ? reason : "");
}

void formatParamsJSON(char **out, const char *reason, char *params)
{
    HeapText payload(params);
    *out = nullptr;
    if (!payload)
        return;
    CJsonPtr obj(reply_envelope("OK", reason ? reason : ""));
    if (obj)
        *out = json_print_with_raw(obj.get(), "Parameters", payload.release());
}
