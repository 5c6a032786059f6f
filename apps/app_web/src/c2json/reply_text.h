// Reply texts of the browser-facing envelope, exactly as cJSON's formatted printer prints
// them ("Result" first). Each stores a heap text in *out that the caller writes and frees,
// or nullptr when the text could not be built.
#pragma once

// The reasons of the plain successes, as the pages and the device's tools know them.
constexpr char REPLY_REASON_GOT[] = "Successfully to get params";  // contract: exact bytes
constexpr char REPLY_REASON_SET[] = "Successfully to set params";  // contract: exact bytes

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
