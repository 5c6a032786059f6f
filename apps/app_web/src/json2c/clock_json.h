// Request body of "set_device_localtime": the seven numeric members "tm_sec", "tm_min",
// "tm_hour", "tm_mday", "tm_mon", "tm_year" and "tm_wday" of a broken-down time.
#pragma once

#include <ctime>

// Fills those fields of *tm in that order; the first missing, mistyped or out-of-range
// member ends the parse with its error line. 0; -2 for a missing argument or a refused
// member; -15 when text is not JSON.
int getRtcParamFromJSON(const char *text, struct tm *tm);
