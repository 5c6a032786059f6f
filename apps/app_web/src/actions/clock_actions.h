// "get_device_localtime" and "set_device_localtime": the system clock as local time.
#pragma once

#include <ctime>

// Both store a heap reply text in *out_json (the caller frees it) and return 0 on success,
// a negative code on failure.
int actiongetDeviceLocalTime(const char *in_json, char **out_json);
int actionsetDeviceLocalTime(const char *in_json, char **out_json);

// Checks every field of tm (tm_yday and tm_isdst are ignored) and sets the system clock to
// it as local time when it differs from the clock by more than 2 seconds. 0; -2 when a
// field is out of range; settimeofday's result when the clock cannot be set.
int http_Set_LocalTime(const struct tm *tm);
