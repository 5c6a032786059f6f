#include "json2c/clock_json.h"

#include "json2c/json_fields.h"

#include <iterator>

int getRtcParamFromJSON(const char *text, struct tm *tm)
{
    if (!text || !tm) {
        HTTP_ERROR("Invalid params!\n");
        return -2;
    }
    JsonField fields[std::size(kClockFields)];
    for (size_t i = 0; i < std::size(kClockFields); ++i) {
        const ClockField &f = kClockFields[i];
        int *value = &(tm->*f.field);
        fields[i] = f.refusal ? json_int_in(f.name, value, f.min, f.max, f.refusal) : json_int(f.name, value);
    }
    return json_parse_fields(text, fields, LOG_HERE);
}
