// Reply texts of the browser-facing envelope, exactly as cJSON's formatted printer prints
// them ("Result" first). Each stores a heap text in *out that the caller writes and frees,
// or nullptr when the text could not be built.
#pragma once

// {"Result": "Fail", "Reason": reason}
void formatFailCallJSON(char **out, const char *reason);
// {"Result": "OK", "Reason": reason}
void formatSuccessCallJSON(char **out, const char *reason);
// {"Result": "OK", "Reason": reason, "Parameters": params}; params is a printed JSON text
// inserted as it stands. Takes params over and frees it on every path.
void formatParamsJSON(char **out, const char *reason, char *params);

// The envelope object with "Result" and, when reason is given, "Reason"; nullptr when it
// cannot be made. Shared by the builders above and the reply writers.
struct cJSON;
cJSON *reply_envelope(const char *result, const char *reason);
