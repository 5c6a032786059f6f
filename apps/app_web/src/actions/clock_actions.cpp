#include "actions/clock_actions.h"

#include "c2json/clock_json.h"
#include "c2json/reply_text.h"
#include "common/log.h"
#include "json2c/clock_json.h"

#include <cstdio>
#include <sys/time.h>

namespace {

constexpr size_t kLocalTimeSize = 128;  // "yyyy/mm/dd_hh:mm:ss" with room to spare
// A clock this close to the requested time is left alone: the page's time is no more exact
// than that, and a page that sends the time again must not make the clock jump.
constexpr long long kClockToleranceSeconds = 2;

// Whether every field lies in the range the request body's fields have (the year included).
bool settable(const struct tm &tm)
{
    for (const ClockField &f : kClockFields) {
        unsigned value = static_cast<unsigned>(tm.*f.field);  // negative values fail too
        if (value < f.min || value > f.max)
            return false;
    }
    return true;
}

} // namespace

int http_Set_LocalTime(const struct tm *tm)
{
    if (!tm || !settable(*tm)) {
        HTTP_ERROR("parma is invailed:\n");  // contract: exact bytes
        if (tm) {
            HTTP_PRINT("sec=%d,min=%d,hour=%d\n", tm->tm_sec, tm->tm_min, tm->tm_hour);
            HTTP_PRINT("day=%d,mon=%d,year=%d;tm_wday=%d\n", tm->tm_mday, tm->tm_mon, tm->tm_year, tm->tm_wday);
        }
        HTTP_ERROR("set rtc fail! return : %d\n", -2);
        return -2;
    }
    // The body has no daylight-saving flag: -1 lets the conversion decide from the zone's
    // rules, so the local time shown afterwards is the time that was set. A day the month
    // lacks (February 30) is carried into the next month.
    struct tm wanted = *tm;
    wanted.tm_isdst = -1;
    time_t target = mktime(&wanted);
    if (target == static_cast<time_t>(-1)) {
        // Only where time_t cannot hold the date (32 bits after 2038); never set the
        // clock to the error value.
        HTTP_ERROR("set rtc fail! return : %d\n", -1);
        return -1;
    }
    long long drift = static_cast<long long>(target) - static_cast<long long>(time(nullptr));
    if (drift > kClockToleranceSeconds || drift < -kClockToleranceSeconds) {
        struct timeval tv {};
        tv.tv_sec = target;
        int rc = settimeofday(&tv, nullptr);
        if (rc != 0) {
            HTTP_ERROR("set rtc fail! return : %d\n", rc);
            return rc;
        }
    }
    return 0;
}

int actionsetDeviceLocalTime(const char *in_json, char **out_json)
{
    if (!out_json)
        return -2;
    struct tm tm {};
    if (getRtcParamFromJSON(in_json, &tm) != 0) {
        formatFailCallJSON(out_json, "Invalid input params");
        return -1;
    }
    int rc = http_Set_LocalTime(&tm);
    if (rc != 0) {
        formatFailCallJSON(out_json, "set rtc fail");
        return rc;
    }
    formatSuccessCallJSON(out_json, REPLY_REASON_SET);
    return 0;
}

int actiongetDeviceLocalTime(const char * /*in_json*/, char **out_json)
{
    if (!out_json)
        return -2;
    time_t now = time(nullptr);
    struct tm local {};
    if (!localtime_r(&now, &local)) {
        HTTP_ERROR("localtime fail! time : %lld\n", static_cast<long long>(now));
        formatFailCallJSON(out_json, "get device local time fail");
        return -1;
    }
    char text[kLocalTimeSize];
    snprintf(text, sizeof text, "%04d/%02d/%02d_%02d:%02d:%02d", local.tm_year + 1900, local.tm_mon + 1,
             local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    char *params = nullptr;
    int rc = formatDeviceTimeParamJSON(&params, text);
    if (rc != 0) {
        HTTP_ERROR("Format time fail  return : %d\n", rc);  // contract: exact bytes
        formatFailCallJSON(out_json, "get device local time fail");
        return rc;
    }
    formatParamsJSON(out_json, REPLY_REASON_GOT, params);
    return 0;
}
