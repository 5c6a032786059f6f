// A device application's reply: the checks it must pass before its "Response" reaches the
// browser, and the upgrade application's progress rule, which makes the exchange wait for
// the next reply. The progress rule is run as the server runs it, on a pair socket whose
// peer sends the input and then a final reply, so that no wait can last.
#include "fuzz_target.h"
#include "common/owners.h"
#include "webserver/device_message.h"
#include "webserver/msg_exchange.h"
#include "webserver/nn_owners.h"

#include <cjson/cJSON.h>
#include <cstring>
#include <nanomsg/nn.h>
#include <nanomsg/pair.h>
#include <string>

namespace {

const char *const kCommands[] = {"StartUpgrade", "VerifyPassword", "GetNetworkWIFIParameters"};
constexpr char kFinal[] = R"({"Command":"StartUpgrade","Response":{"Result":"OK","Final":true}})";
constexpr char kAddress[] = "inproc://fuzz_upgrade";

int server_side = -1, device_side = -1;

void init()
{
    server_side = nn_socket(AF_SP, NN_PAIR);
    device_side = nn_socket(AF_SP, NN_PAIR);
    FUZZ_CHECK(server_side >= 0 && device_side >= 0, "pair sockets");
    FUZZ_CHECK(nn_bind(device_side, kAddress) >= 0 && nn_connect(server_side, kAddress) >= 0, "pair connected");
}

// What the rule says, read independently: "Result" (any letter case) the string "OK",
// "Parameters" (any letter case) an object, its "UpgradeProgressValue" (exact) a number
// below 100.
bool still_in_progress(const cJSON *response)
{
    const cJSON *result = cJSON_GetObjectItem(response, "Result");
    const cJSON *params = cJSON_GetObjectItem(response, "Parameters");
    if (!cJSON_IsString(result) || strcmp(result->valuestring, "OK") != 0 || !cJSON_IsObject(params))
        return false;
    const cJSON *value = cJSON_GetObjectItemCaseSensitive(params, "UpgradeProgressValue");
    return cJSON_IsNumber(value) && value->valueint < 100;
}

void run(const uint8_t *data, size_t size)
{
    if (size == 0)
        return;
    const char *command = kCommands[data[0] % 3];
    const char *text = reinterpret_cast<const char *>(data + 1);
    size_t len = size - 1;

    char reason[HTTP_REASON_SIZE];
    CJsonPtr tree;
    cJSON *response = nullptr;
    int code = http_check_reply(text, len, command, reason, &tree, &response, LOG_HERE);
    FUZZ_CHECK(code == 0 || code == HTTP_MSG_BAD_FORMAT || code == HTTP_MSG_FAILED, "0, 508 or 550");
    if (code != 0) {
        char expected[HTTP_REASON_SIZE];
        FUZZ_CHECK(!tree && strcmp(reason, http_msg_reason(code, expected)) == 0, "the code's reason, no tree");
    } else {
        FUZZ_CHECK(tree && cJSON_IsObject(response), "a \"Response\" object");
        const cJSON *echo = cJSON_GetObjectItemCaseSensitive(tree.get(), "Command");
        FUZZ_CHECK(cJSON_IsString(echo) && strcmp(echo->valuestring, command) == 0, "the command echoed");
    }
    if (strcmp(command, "StartUpgrade") != 0)
        return;

    // The same reply on the upgrade application's socket, followed by a final one.
    FUZZ_CHECK(nn_send(device_side, text, len, 0) == static_cast<int>(len), "reply sent");
    FUZZ_CHECK(nn_send(device_side, kFinal, sizeof kFinal, 0) == static_cast<int>(sizeof kFinal), "final sent");
    http_msg_upgrade_fd = server_side;
    char *raw = nullptr;
    int got = http_msg_socket_recv(&raw, reason, command, server_side);
    HeapText reply(raw);
    FUZZ_CHECK(got == code, "the exchange ends with the checks' code");
    if (code == 0) {
        // The answer is the "Response" of the input, or of the final reply when the input was
        // a progress reply below 100.
        CJsonPtr final_tree(cJSON_Parse(kFinal));
        const cJSON *expected = still_in_progress(response) ? cJSON_GetObjectItem(final_tree.get(), "Response")
                                                            : response;
        HeapText printed(cJSON_Print(expected));
        FUZZ_CHECK(reply && printed && strcmp(reply.get(), printed.get()) == 0,
                   "a progress reply below 100 waits for the next, any other is the answer");
    }
    // Whatever the exchange left unread goes before the next input.
    void *left = nullptr;
    while (nn_recv(server_side, &left, NN_MSG, NN_DONTWAIT) >= 0)
        nn_freemsg(left);
}

} // namespace

FUZZ_TARGET("device_reply", init, run);
