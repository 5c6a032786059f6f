// Device messages: the JSON request sent to a device application and the checks its reply
// must pass before its "Response" reaches the browser.
#pragma once

#include "common/log.h"
#include "common/owners.h"

#include <cjson/cJSON.h>
#include <cstddef>

constexpr const char HTTP_MSG_SENDER[] = "web_server";

// Callers' reason buffers; the longest reason text has 49 characters.
constexpr size_t HTTP_REASON_SIZE = 128;

// Failure results of an exchange, each with its reason text.
constexpr int HTTP_MSG_TIMEOUT = 504;
constexpr int HTTP_MSG_BAD_FORMAT = 508;
constexpr int HTTP_MSG_FAILED = 550;

// Writes the reason text of an exchange result into reason (HTTP_REASON_SIZE bytes) and
// returns reason, for the error line that reports it.
const char *http_msg_reason(int code, char *reason);

// The request message {"Command", "Sender", "Receiver", "Timestamp", "Parameters"} as a
// heap text printed by cJSON's formatted printer; "Parameters" is payload parsed as JSON
// and is left out when payload is missing or not JSON. nullptr when it cannot be built.
// It is sent with its terminating zero (length + 1).
char *http_set_command_response(const char *command, const char *receiver_name, const char *payload);

// Checks a reply message of len bytes (a zero byte ends it earlier) to command: it must be
// JSON, echo "Command" exactly and carry a "Response" object (key in any letter case).
// 0 with *tree the parsed reply and *response its "Response"; otherwise 508 or 550 with
// the reason written. Error lines are written in the name of site.
int http_check_reply(const char *text, size_t len, const char *command, char *reason, CJsonPtr *tree,
                     cJSON **response, const LogSite &site);

// The progress value of an upgrade application's reply {"Result": "OK", "Parameters":
// {"UpgradeProgressValue": N}} ("Result" and "Parameters" in any letter case); false for a
// reply of any other shape. A value below 100 means the upgrade goes on.
bool http_upgrade_progress(const cJSON *response, int *value);
