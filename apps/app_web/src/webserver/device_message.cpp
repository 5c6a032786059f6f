#include "webserver/device_message.h"

#include "common/text_field.h"

#include <cstring>
#include <ctime>

const char *http_msg_reason(int code, char *reason)
{
    const char *text = "Failed to request server";
    if (code == HTTP_MSG_TIMEOUT)
        text = "Connection service timed out";
    else if (code == HTTP_MSG_BAD_FORMAT)
        text = "The server returned an incorrect format parameter";
    copy_field(reason, HTTP_REASON_SIZE, text);
    return reason;
}

char *http_set_command_response(const char *command, const char *receiver_name, const char *payload)
{
    CJsonPtr request(cJSON_CreateObject());
    if (!request)
        return nullptr;
    // cJSON prints a number with an integer value as an integer, so this is the 64-bit
    // integer member the applications read.
    double now = static_cast<double>(time(nullptr));
    if (!cJSON_AddStringToObject(request.get(), "Command", command) ||
        !cJSON_AddStringToObject(request.get(), "Sender", HTTP_MSG_SENDER) ||
        !cJSON_AddStringToObject(request.get(), "Receiver", receiver_name) ||
        !cJSON_AddNumberToObject(request.get(), "Timestamp", now))
        return nullptr;
    // A payload that is not JSON is no error: the request simply goes without parameters.
    // A member that cannot be attached stays the caller's: freed here, and no request goes
    // out without the parameters it was given.
    if (cJSON *params = payload ? cJSON_Parse(payload) : nullptr) {
        if (!cJSON_AddItemToObject(request.get(), "Parameters", params)) {
            cJSON_Delete(params);
            return nullptr;
        }
    }
    return cJSON_Print(request.get());
}

int http_check_reply(const char *text, size_t len, const char *command, char *reason, CJsonPtr *tree,
                     cJSON **response, const LogSite &site)
{
    // The message need not carry its terminating zero; it ends at the first one it holds.
    len = strnlen(text, len);
    log_error_at(site, "http recv buf=%.*s\n", static_cast<int>(len), text);

    tree->reset(cJSON_ParseWithLength(text, len));
    if (!*tree) {
        log_error_at(site, "http recv format fail! :%s\n", http_msg_reason(HTTP_MSG_BAD_FORMAT, reason));
        return HTTP_MSG_BAD_FORMAT;
    }
    const cJSON *echo = cJSON_GetObjectItemCaseSensitive(tree->get(), "Command");
    if (!cJSON_IsString(echo) || !echo->valuestring || echo->valuestring[0] == '\0') {
        log_error_at(site, "http recv command fail! :%s\n", http_msg_reason(HTTP_MSG_FAILED, reason));
        tree->reset();
        return HTTP_MSG_FAILED;
    }
    if (strcmp(echo->valuestring, command) != 0) {
        log_error_at(site, "http recv command strcmp fail %s\n", echo->valuestring);
        log_error_at(site, "http recv command strcmp fail! :%s\n", http_msg_reason(HTTP_MSG_FAILED, reason));
        tree->reset();
        return HTTP_MSG_FAILED;
    }
    cJSON *answer = cJSON_GetObjectItem(tree->get(), "Response");
    if (!cJSON_IsObject(answer)) {
        log_error_at(site, "http recv format fail!! :%s\n", http_msg_reason(HTTP_MSG_BAD_FORMAT, reason));
        tree->reset();
        return HTTP_MSG_BAD_FORMAT;
    }
    *response = answer;
    return 0;
}

bool http_upgrade_progress(const cJSON *response, int *value)
{
    const cJSON *result = cJSON_GetObjectItem(response, "Result");
    const cJSON *params = cJSON_GetObjectItem(response, "Parameters");
    if (!cJSON_IsString(result) || strcmp(result->valuestring, "OK") != 0 || !cJSON_IsObject(params))
        return false;
    const cJSON *progress = cJSON_GetObjectItemCaseSensitive(params, "UpgradeProgressValue");
    if (!cJSON_IsNumber(progress))
        return false;
    *value = progress->valueint;
    return true;
}
