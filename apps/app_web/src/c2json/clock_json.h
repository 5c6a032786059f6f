// The "Parameters" of the "get_device_localtime" reply: {"local_time": text}.
#pragma once

// Stores the formatted text in *out (the caller frees it). 0; -2 for a missing argument;
// -15 when the object cannot be made.
int formatDeviceTimeParamJSON(char **out, const char *local_time);
