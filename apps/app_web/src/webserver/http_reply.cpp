#include "webserver/http_reply.h"

#include "c2json/json_layout.h"
#include "c2json/reply_text.h"
#include "common/owners.h"
#include "webs/webs.h"

#include <cjson/cJSON.h>
#include <cstdio>

namespace {

// Room for the code that replaces "%d": an int has at most 10 digits and a sign.
constexpr size_t kMaxCodeDigits = 11;

char *print_coded_failure(int code, const char *reason)
{
    CJsonPtr obj(reply_envelope("Fail", nullptr));
    if (!obj || !cJSON_AddNumberToObject(obj.get(), "ErrorNo", static_cast<double>(code)) ||
        !cJSON_AddStringToObject(obj.get(), "Reason", reason ? reason : ""))
        return nullptr;
    return cJSON_Print(obj.get());
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
    // The heap cannot hold the object or its text: the same form without the reason.
    char fixed[sizeof JSON_LAYOUT_CODED_FAILURE + kMaxCodeDigits];
    snprintf(fixed, sizeof fixed, JSON_LAYOUT_CODED_FAILURE, code);
    http_response(wp, fixed);
}

void json_OK(Webs *wp) { http_response(wp, JSON_LAYOUT_OK); }
