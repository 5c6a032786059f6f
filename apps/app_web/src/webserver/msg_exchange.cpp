#include "webserver/msg_exchange.h"

#include "common/log.h"
#include "common/owners.h"
#include "json2c/json_fields.h"
#include "webserver/device_message.h"
#include "webserver/nn_owners.h"
#include "webserver/routing_table.h"

#include <cerrno>
#include <cstring>
#include <nanomsg/pair.h>
#include <nanomsg/reqrep.h>

int http_msg_upgrade_fd;

namespace {

constexpr const char kStartUpgrade[] = "StartUpgrade";
// A progress reply below this value means the upgrade application is still working.
constexpr int kUpgradeDone = 100;

struct RecvTimeout {
    const char *command;
    bool upgrade_socket_only;
    int ms;
};
// Commands whose answer takes the application longer than the usual 3 seconds.
constexpr RecvTimeout kRecvTimeouts[] = {
    {kStartUpgrade, true, 180000},          // per progress step of a firmware install
    {"GetScanWIFIHotspot", false, 180000},  // a scan of every channel
    {"SetNetworkWIFIParameters", false, 5000},
    {"GetNetworkWIFIParameters", false, 5000},
};
constexpr int kDefaultRecvTimeoutMs = 3000;

bool is_device_cap(const http_protocol_receiver &entry)
{
    return strcmp(entry.receiver_name, HTTP_RECEIVER_DEVICE_CAP) == 0;
}

// Whether slot k of entry names command; an empty name never matches, or it would match
// every unused slot.
bool lists_command(const http_protocol_receiver &entry, int k, const char *command)
{
    return command[0] != '\0' && strcmp(entry.command[k], command) == 0;
}

// Opens entry's connection into entry.msg_fd: 0, or -1 after the error line (msg_fd -1).
int http_msg_socket_init(http_protocol_receiver &entry)
{
    entry.msg_fd = -1;
    bool upgrade = strcmp(entry.receiver_name, HTTP_RECEIVER_APP_UPDATE) == 0;
    NnSocket sock(nn_socket(AF_SP, upgrade ? NN_PAIR : NN_REQ));
    if (!sock) {
        HTTP_ERROR("nn_socket(AF_SP, NN_REP) fail: %s\n", nn_strerror(nn_errno()));
        return -1;
    }
    if (nn_connect(sock.get(), entry.ipc_url) < 0) {
        HTTP_ERROR("nn_connect(%s) fail: %s\n", entry.ipc_url, nn_strerror(nn_errno()));
        return -1;
    }
    entry.msg_fd = sock.release();
    if (upgrade)
        http_msg_upgrade_fd = entry.msg_fd;
    return 0;
}

// The progress value of an upgrade reply {"Result": "OK", "Parameters":
// {"UpgradeProgressValue": N}}; false for a reply of any other shape.
bool upgrade_progress(const cJSON *response, int *value)
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

} // namespace

int http_capability_protocol_matching(const char *command, char *cap_path)
{
    if (!command || !cap_path)
        return 0;
    for (const http_protocol_receiver &entry : http_protocol_command) {
        if (!is_device_cap(entry))
            continue;
        for (int k = 0; k < HTTP_PROTOCOL_CMD_MAX; ++k) {
            if (lists_command(entry, k, command)) {
                copy_field(cap_path, HTTP_CAP_PATH_SIZE, entry.cap_path[k]);
                HTTP_ERROR("!!!!!! %s \n", cap_path);
                return 1;
            }
        }
    }
    return 0;
}

int http_protocol_matching(const char *command, int *msg_fd, char *receiver_name, int *index, const char *payload)
{
    if (!command || !msg_fd || !receiver_name || !index)
        return 0;
    // An entry without an IPC address is not a route: no exchange ever runs on a socket
    // that was never opened.
    int matches = 0;
    for (const http_protocol_receiver &entry : http_protocol_command) {
        for (int k = 0; !is_device_cap(entry) && k < HTTP_PROTOCOL_CMD_MAX; ++k) {
            if (!lists_command(entry, k, command))
                continue;
            if (http_is_ipc_url(entry.ipc_url))
                ++matches;
            else
                HTTP_ERROR("%s: receiver %s has no ipc address \n", command, entry.receiver_name);
        }
    }
    int to_go = matches - 1;
    HTTP_ERROR("http_protocol_matching  sum=%d\n", to_go);

    for (int i = 0; i < HTTP_PROTOCOL_MAX; ++i) {
        http_protocol_receiver &entry = http_protocol_command[i];
        if (is_device_cap(entry) || !http_is_ipc_url(entry.ipc_url))
            continue;
        for (int k = 0; k < HTTP_PROTOCOL_CMD_MAX; ++k) {
            if (!lists_command(entry, k, command))
                continue;
            http_msg_upgrade_fd = -1;
            if (http_msg_socket_init(entry) != 0) {
                HTTP_ERROR("http_msg_socket_init name：%s\n", command);
                return 0;
            }
            if (to_go == 0) {
                copy_field(receiver_name, HTTP_RECEIVER_NAME_SIZE, entry.receiver_name);
                *msg_fd = entry.msg_fd;
                *index = i;
                return 1;
            }
            // An earlier receiver of a command listed several times: deliver now, and
            // only the last receiver's answer reaches the caller.
            NnSocket earlier(entry.msg_fd);
            entry.msg_fd = -1;
            char reason[HTTP_REASON_SIZE] = "";
            char *reply = nullptr;
            http_send_and_recv_app_codec(command, reason, payload, &reply, earlier.get(), entry.receiver_name);
            HeapText discarded(reply);
            HTTP_ERROR("msg sand：name=%s receiver_name=%s des=%s\n", command, entry.receiver_name, reason);
            --to_go;
        }
    }
    return 0;
}

int http_send_and_recv_app_codec(const char *command, char *reason, const char *payload, char **reply, int msg_fd,
                                 const char *receiver_name)
{
    if (!command || !reason || !reply || !receiver_name) {
        HTTP_ERROR("Invalid params\n");
        return HTTP_MSG_FAILED;
    }
    int code;
    HeapText request(http_set_command_response(command, receiver_name, payload));
    if (!request) {
        HTTP_ERROR("http request build fail! :%s\n", http_msg_reason(HTTP_MSG_FAILED, reason));
        code = HTTP_MSG_FAILED;
    } else {
        // A failed send shows as a failed receive.
        http_msg_socket_send(request.get(), strlen(request.get()) + 1, msg_fd);
        request.reset();
        code = http_msg_socket_recv(reply, reason, command, msg_fd);
    }
    if (code != 0)
        HTTP_ERROR("http send recv fail des=%d\n", code);
    return code;
}

int http_msg_socket_send(const char *text, size_t len, int msg_fd)
{
    int timeout = HTTP_MSG_SEND_TIMEOUT_MS;
    int rc = nn_setsockopt(msg_fd, NN_SOL_SOCKET, NN_SNDTIMEO, &timeout, sizeof timeout);
    if (rc < 0)
        HTTP_ERROR("http send set  nn_setsockopt fail return=%d\n", rc);
    HTTP_DEBUG("http send data:%s\n", text);
    int sent = nn_send(msg_fd, text, len, 0);
    if (sent < 0)
        HTTP_ERROR("http send data fail bytes=%d\n", sent);
    return sent;
}

int http_msg_recv_timeout(const char *command, int msg_fd)
{
    for (const RecvTimeout &t : kRecvTimeouts) {
        if (strcmp(command, t.command) == 0 && (!t.upgrade_socket_only || msg_fd == http_msg_upgrade_fd))
            return t.ms;
    }
    return kDefaultRecvTimeoutMs;
}

int http_msg_socket_recv(char **reply, char *reason, const char *command, int msg_fd)
{
    if (!reply || !reason || !command) {
        HTTP_ERROR("Invalid params\n");
        return HTTP_MSG_FAILED;
    }
    int timeout = http_msg_recv_timeout(command, msg_fd);
    if (msg_fd == http_msg_upgrade_fd && strcmp(command, kStartUpgrade) == 0)
        HTTP_ERROR("http_msg_upgrade_fd timeo=%d\n", timeout);
    int rc = nn_setsockopt(msg_fd, NN_SOL_SOCKET, NN_RCVTIMEO, &timeout, sizeof timeout);
    if (rc < 0)
        HTTP_ERROR("http recv set  nn_setsockopt fail return=%d\n", rc);

    for (;;) {
        void *buf = nullptr;
        int got = nn_recv(msg_fd, &buf, NN_MSG, 0);
        if (got < 0) {
            int err = nn_errno();
            HTTP_ERROR("errno is: %d\n", err);
            if (err == EINTR || err == EAGAIN)
                continue;
            if (err == ETIMEDOUT) {
                HTTP_ERROR("http recv fail connect time out! :%s\n", http_msg_reason(HTTP_MSG_TIMEOUT, reason));
                return HTTP_MSG_TIMEOUT;
            }
            HTTP_ERROR("http recv fail ! :%s\n", http_msg_reason(HTTP_MSG_FAILED, reason));
            return HTTP_MSG_FAILED;
        }
        NnMsgPtr msg(buf);
        CJsonPtr tree;
        cJSON *response = nullptr;
        int code = http_check_reply(static_cast<const char *>(buf), static_cast<size_t>(got), command, reason, &tree,
                                    &response, LOG_HERE);
        if (code != 0)
            return code;
        int progress = 0;
        if (msg_fd == http_msg_upgrade_fd && upgrade_progress(response, &progress)) {
            HTTP_DEBUG("http recv ProgressValue->valueint %d\n", progress);
            if (progress < kUpgradeDone)
                continue;  // this message and its tree are released before the next wait
        }
        *reply = cJSON_Print(response);
        if (!*reply) {
            HTTP_ERROR("http recv fail ! :%s\n", http_msg_reason(HTTP_MSG_FAILED, reason));
            return HTTP_MSG_FAILED;
        }
        HTTP_DEBUG("http recv format sucess %s\n", *reply);
        return 0;
    }
}

int http_msg_socket_uninit(int index)
{
    if (index < 0 || index >= HTTP_PROTOCOL_MAX)
        return 0;
    const http_protocol_receiver &entry = http_protocol_command[index];
    // msg_fd keeps the closed id until the entry's next lookup.
    if (http_is_ipc_url(entry.ipc_url) && entry.msg_fd != -1)
        nn_close(entry.msg_fd);
    return 0;
}
