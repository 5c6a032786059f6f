// Stand-in for the dispatcher until it lands: answers every request with the coded failure
// 501 naming the action, the reply of a command that has no route.
#include "common/owners.h"
#include "webs/webs.h"
#include "webserver/dispatcher.h"

#include <cjson/cJSON.h>
#include <string>
#include <string_view>

void actionGetMethodUrl(Webs *wp)
{
    std::string_view url(wp->url);
    url = url.substr(0, url.find('?'));
    std::string_view name = url.substr(url.rfind('/') + 1);
    std::string reason = "The server does not support this protocol :" + std::string(name);

    CJsonPtr reply(cJSON_CreateObject());
    cJSON_AddStringToObject(reply.get(), "Result", "Fail");
    cJSON_AddNumberToObject(reply.get(), "ErrorNo", 501);
    cJSON_AddStringToObject(reply.get(), "Reason", reason.c_str());
    HeapText text(cJSON_Print(reply.get()));

    websSetStatus(wp, 200);
    websWriteHeaders(wp, -1, nullptr);
    websWriteEndHeaders(wp);
    websWrite(wp, "%s", text ? text.get() : "");
    websFlush(wp, false);
    websDone(wp);
}
