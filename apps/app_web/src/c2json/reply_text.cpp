#include "c2json/reply_text.h"

#include "common/owners.h"

#include <cjson/cJSON.h>
#include <cstring>

namespace {

// The "Parameters" payload can be large (a recording listing), so it is not copied into a
// cJSON tree: the envelope is printed with a one-character raw placeholder, which cJSON
// prints as the last value before "\n}", and the payload is put in its place.
constexpr char kPlaceholder[] = "0";
constexpr char kClosing[] = "\n}";

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
    if (!obj || !cJSON_AddRawToObject(obj.get(), "Parameters", kPlaceholder))
        return;
    HeapText frame(cJSON_Print(obj.get()));
    obj.reset();
    if (!frame)
        return;
    size_t frame_len = strlen(frame.get());
    size_t head_len = frame_len - (sizeof kPlaceholder - 1) - (sizeof kClosing - 1);
    size_t payload_len = strlen(payload.get());
    // The payload's own block grows to hold the reply (realloc of a large block remaps
    // pages instead of copying), then the text moves up behind the head.
    char *text = static_cast<char *>(realloc(payload.get(), head_len + payload_len + sizeof kClosing));
    if (!text)
        return;
    payload.release();
    memmove(text + head_len, text, payload_len);
    memcpy(text, frame.get(), head_len);
    memcpy(text + head_len + payload_len, kClosing, sizeof kClosing);
    *out = text;
}
