#include "webserver/http_reply.h"

#include "actions/reply_text.h"
#include "common/owners.h"
#include "webs/webs.h"

#include <cjson/cJSON.h>
#include <cstdio>

namespace {

// What the writers send when the heap cannot hold the object or its text: the same form,
// without the reason text (which would need escaping and room).
constexpr char kFixedFailure[] = "{\n\t\"Result\":\t\"Fail\",\n\t\"ErrorNo\":\t%d,\n\t\"Reason\":\t\"\"\n}";
constexpr char kFixedOK[] = "{\n\t\"Result\":\t\"OK\"\n}";

char *print_coded_failure(int code, const char *reason)
{
    CJsonPtr obj(reply_envelope("Fail", nullptr));
    if (!obj || !cJSON_AddNumberToObject(obj.get(), "ErrorNo", static_cast<double>(code)) ||
        !cJSON_AddStringToObject(obj.get(), "Reason", reason ? reason : ""))
        return nullptr;
    return cJSON_Print(obj.get());
}

char *print_ok()
{
    CJsonPtr obj(reply_envelope("OK", nullptr));
    return obj ? cJSON_Print(obj.get()) : nullptr;
}

} // namespace

void http_response(Webs *wp, const char *text)
{
    websSetStatus(wp, 200);
    websWriteHeaders(wp, -1, nullptr);
    websWriteEndHeaders(wp);
    websWrite(wp, "%s", text);
    websFlush(wp, false);
    websDone(wp);
}

void json_perror(Webs *wp, int code, const char *reason)
{
    HeapText text(print_coded_failure(code, reason));
    if (text) {
        http_response(wp, text.get());
        return;
    }
    char fixed[sizeof kFixedFailure + 16];
    snprintf(fixed, sizeof fixed, kFixedFailure, code);
    http_response(wp, fixed);
}

void json_OK(Webs *wp)
{
    HeapText text(print_ok());
    http_response(wp, text ? text.get() : kFixedOK);
}
