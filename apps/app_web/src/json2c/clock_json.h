// Request body of "set_device_localtime": the seven numeric members "tm_sec", "tm_min",
// "tm_hour", "tm_mday", "tm_mon", "tm_year" and "tm_wday" of a broken-down time.
#pragma once

#include <ctime>

// What each member may hold, in the order the body is read. The parser refuses a value
// outside its range with the member's line; the clock is only ever set to a time whose every
// field lies inside (tm_year counts from 1900, so 71-169 is 1971-2069; the parser leaves the
// year to that check). Ranges are compared as unsigned, so a negative value fails each.
struct ClockField {
    const char *name;
    int tm::*field;
    unsigned min, max;
    const char *refusal;  // the parser's line for a value outside; nullptr: the parser takes any
};
inline constexpr ClockField kClockFields[] = {
    {"tm_sec", &tm::tm_sec, 0, 59, "Invalid params ! <sec>\n"},  // contract: exact bytes
    {"tm_min", &tm::tm_min, 0, 59, "Invalid params! <min>\n"},
    {"tm_hour", &tm::tm_hour, 0, 23, "Invalid params! <hour>\n"},
    {"tm_mday", &tm::tm_mday, 1, 31, "Invalid params! <mday>\n"},
    {"tm_mon", &tm::tm_mon, 0, 11, "Invalid params! <mon>\n"},
    {"tm_year", &tm::tm_year, 71, 169, nullptr},
    {"tm_wday", &tm::tm_wday, 0, 6, "Invalid params! <wday>\n"},
};

// Fills those fields of *tm in that order; the first missing, mistyped or out-of-range
// member ends the parse with its error line. 0; -2 for a missing argument or a refused
// member; -15 when text is not JSON.
int getRtcParamFromJSON(const char *text, struct tm *tm);
