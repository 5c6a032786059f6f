// A device application's reply: the checks it must pass before its "Response" reaches the
// browser, and the upgrade application's progress rule, which makes the exchange wait for
// the next reply. Both must agree with what they promise, read here on their own: a code
// with its reason and no tree, or the echoed command and a "Response" object; a progress
// value exactly for {"Result": "OK", "Parameters": {"UpgradeProgressValue": number}}.
#include "fuzz_target.h"
#include "common/owners.h"
#include "webserver/device_message.h"

#include <cjson/cJSON.h>
#include <cstring>

namespace {

const char *const kCommands[] = {"StartUpgrade", "VerifyPassword", "GetNetworkWIFIParameters"};

void run(const uint8_t *data, size_t size)
{
    if (size == 0)
        return;
    const char *command = kCommands[data[0] % 3];
    const char *text = reinterpret_cast<const char *>(data + 1);

    char reason[HTTP_REASON_SIZE];
    CJsonPtr tree;
    cJSON *response = nullptr;
    int code = http_check_reply(text, size - 1, command, reason, &tree, &response, LOG_HERE);
    FUZZ_CHECK(code == 0 || code == HTTP_MSG_BAD_FORMAT || code == HTTP_MSG_FAILED, "0, 508 or 550");
    if (code != 0) {
        char expected[HTTP_REASON_SIZE];
        FUZZ_CHECK(!tree && strcmp(reason, http_msg_reason(code, expected)) == 0, "the code's reason, no tree");
        return;
    }
    FUZZ_CHECK(tree && cJSON_IsObject(response), "a \"Response\" object");
    const cJSON *echo = cJSON_GetObjectItemCaseSensitive(tree.get(), "Command");
    FUZZ_CHECK(cJSON_IsString(echo) && strcmp(echo->valuestring, command) == 0, "the command echoed");

    int value = -12345;
    bool progress = http_upgrade_progress(response, &value);
    const cJSON *result = cJSON_GetObjectItem(response, "Result");
    const cJSON *params = cJSON_GetObjectItem(response, "Parameters");
    const cJSON *number = cJSON_GetObjectItemCaseSensitive(params, "UpgradeProgressValue");
    bool shaped = cJSON_IsString(result) && strcmp(result->valuestring, "OK") == 0 && cJSON_IsObject(params) &&
                  cJSON_IsNumber(number);
    FUZZ_CHECK(progress == shaped, "a progress reply exactly when it has the shape");
    FUZZ_CHECK(!progress || value == number->valueint, "its value as an integer");
}

} // namespace

FUZZ_TARGET("device_reply", nullptr, run);
