#include "webserver/http_reply.h"

#include "c2json/reply_text.h"
#include "common/owners.h"
#include "webs/webs.h"

#include <cjson/cJSON.h>
#include <cstdio>

namespace {

// What a failure reply is when the heap cannot hold the object or its text: the same form,
// without the reason text (which would need escaping and room).
constexpr char kFixedFailure[] = "{\n\t\"Result\":\t\"Fail\",\n\t\"ErrorNo\":\t%d,\n\t\"Reason\":\t\"\"\n}";
// Room for the code that replaces "%d": an int has at most 10 digits and a sign.
constexpr size_t kMaxCodeDigits = 11;
// The formatted print of {"Result": "OK"}: it never varies, so it is never built.
constexpr char kOK[] = "{\n\t\"Result\":\t\"OK\"\n}";

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
    char fixed[sizeof kFixedFailure + kMaxCodeDigits];
    snprintf(fixed, sizeof fixed, kFixedFailure, code);
    http_response(wp, fixed);
}

void json_OK(Webs *wp) { http_response(wp, kOK); }
