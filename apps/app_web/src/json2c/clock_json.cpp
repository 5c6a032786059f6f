#include "json2c/clock_json.h"

#include "json2c/json_fields.h"

int getRtcParamFromJSON(const char *text, struct tm *tm)
{
    if (!text || !tm) {
        HTTP_ERROR("Invalid params!\n");
        return -2;
    }
    // Ranges are compared as unsigned, so a negative value fails each of them. The year is
    // bounded later, by the step that sets the clock.
    const JsonField fields[] = {
        json_int_in("tm_sec", &tm->tm_sec, 0, 59, "Invalid params ! <sec>\n"),  // contract: exact bytes
        json_int_in("tm_min", &tm->tm_min, 0, 59, "Invalid params! <min>\n"),
        json_int_in("tm_hour", &tm->tm_hour, 0, 23, "Invalid params! <hour>\n"),
        json_int_in("tm_mday", &tm->tm_mday, 1, 31, "Invalid params! <mday>\n"),
        json_int_in("tm_mon", &tm->tm_mon, 0, 11, "Invalid params! <mon>\n"),
        json_int("tm_year", &tm->tm_year),
        json_int_in("tm_wday", &tm->tm_wday, 0, 6, "Invalid params! <wday>\n"),
    };
    return json_parse_fields(text, fields, LOG_HERE);
}
