#include "webserver/dispatcher.h"

#include "actions/capability_actions.h"
#include "actions/clock_actions.h"
#include "actions/language_actions.h"
#include "actions/login_actions.h"
#include "actions/port_actions.h"
#include "actions/reboot_action.h"
#include "actions/user_actions.h"
#include "common/log.h"
#include "common/owners.h"
#include "json2c/json_fields.h"
#include "network/storage.h"
#include "session/session.h"
#include "webs/webs.h"
#include "webserver/device_message.h"
#include "webserver/http_reply.h"
#include "webserver/login_flow.h"
#include "webserver/msg_exchange.h"
#include "webserver/request_query.h"
#include "webserver/routing_table.h"
#include "webserver/service.h"
#include "webserver/upgrade.h"
#include "webserver/upload_image.h"

#include <cstring>
#include <mutex>

// Held from the choice of the handler until its reply is written.
std::mutex mutex;

namespace {

constexpr size_t kAccessSize = 128;    // access text: the action name cut at its first "_"

constexpr char kNoProtocol[] = "The server does not support this protocol";

// What a local action gets: the body, the reply out-parameter and the reason buffer.
struct ActionCall {
    const char *body;
    char **out;
    char *reason;
};

// One line per local action: its name, whether it runs without a session, and how its
// handler is called. Looked up after the gate, in this order.
struct LocalAction {
    const char *name;
    bool open;
    int (*run)(ActionCall &call);
};

const LocalAction kActions[] = {
    {"login", true, [](ActionCall &c) { return http_login_flow(c.body, c.out, c.reason); }},
    {"logout", true, [](ActionCall &c) { return actionLogOut(c.body, c.out); }},
    {"get_Language_Format", true, [](ActionCall &c) { return actionGetLanguageFormat(c.body, c.out); }},
    {"set_Language_Format", true, [](ActionCall &c) { return actionSetLanguageFormat(c.body, c.out); }},
    {"set_device_reboot", false, [](ActionCall &c) { return actionSetDeviceReboot(c.body, c.out); }},
    {"set_user_param", false, [](ActionCall &c) { return actionSetUserParam(c.body, c.out); }},
    {"get_user_param", false, [](ActionCall &c) { return actionGetUserParam(c.body, c.out); }},
    {"get_device_localtime", false, [](ActionCall &c) { return actiongetDeviceLocalTime(c.body, c.out); }},
    {"set_device_localtime", false, [](ActionCall &c) { return actionsetDeviceLocalTime(c.body, c.out); }},
    {"get_video_directory", false, [](ActionCall &c) { return actiongetVideoDirectory(c.body, c.out); }},
    {"set_storage_deletefile", false, [](ActionCall &c) { return actionSetStorageDelectFile(c.body, c.out); }},
    {"GetWebServerParameter", false,
     [](ActionCall &c) {
         int port = 80;
         return actionGetPortParam(c.body, c.out, &port);
     }},
    {"SetWebServerParameter", false,
     [](ActionCall &c) {
         // The supervisor moves the server once HTTP_WEB_PORT differs from the port in use.
         int port = HTTP_WEB_PORT;
         int result = actionSetPortParam(c.body, c.out, &port);
         HTTP_WEB_PORT = port;
         return result;
     }},
    {"GetWebServerPortStatus", false, [](ActionCall &c) { return actionGetPortStatus(c.body, c.out); }},
};

const LocalAction *find_action(const char *name)
{
    for (const LocalAction &a : kActions)
        if (strcmp(a.name, name) == 0)
            return &a;
    return nullptr;
}

void session_probe(Webs *wp, const char *session_id, const char *access)
{
    if (check_session_id_valid(wp, session_id, access) == 0)
        json_OK(wp);
    else
        HTTP_DEBUG("sessionId:%s\n", session_id ? session_id : "(null)");
}

// Relays the request to the device application that the routing table names for it.
// Returns the result for the reply choice, or -1 after writing a reply of its own.
int relay(Webs *wp, const char *action, const char *body, char **out, char *reason, bool *replied)
{
    int route_socket = -1;
    int route_index = -1;
    char receiver[HTTP_RECEIVER_NAME_SIZE] = "";
    if (!http_protocol_matching(action, &route_socket, receiver, &route_index, body)) {
        snprintf(reason, HTTP_REASON_SIZE, "%s :%s", kNoProtocol, action);
        HTTP_ERROR("web server not support this protocol! :%s\n", kNoProtocol);
        return 501;
    }
    HTTP_DEBUG("app_update -----------------------------start\n");
    int result;
    if (strcmp(receiver, "app_update") == 0 && strcmp(action, "StartUpgrade") == 0) {
        result = http_upgrade_relay(wp, out, reason, route_socket, receiver, replied);
    } else if (wp->inputFile) {
        // Only a firmware image may arrive as a spooled body.
        websError(wp, 413, "Request body too large");
        *replied = true;
        result = -1;
    } else {
        HTTP_DEBUG("msg--------------------other\n");
        result = http_send_and_recv_app_codec(action, reason, body, out, route_socket, receiver);
    }
    http_msg_socket_uninit(route_index);
    return result;
}

// Runs the handler the action names and writes its reply; the caller holds mutex.
void process(Webs *wp, const char *action, const RequestQuery &query)
{
    const char *body = wp->input.servp ? wp->input.servp : "";
    char *out_raw = nullptr;
    char reason[HTTP_REASON_SIZE] = "";
    int result;
    bool replied = false;

    ActionCall call{body, &out_raw, reason};
    char cap_path[HTTP_CAP_PATH_SIZE] = "";
    if (const LocalAction *a = find_action(action))
        result = a->run(call);
    else if (http_capability_protocol_matching(action, cap_path))
        result = actionGetDeviceCap(cap_path, body, &out_raw);
    else
        result = relay(wp, action, body, &out_raw, reason, &replied);

    HeapText out(out_raw);
    if (replied)
        return;
    if (query.sessionid)
        find_saved_session(query.sessionid, "set");
    if (out) {
        HTTP_DEBUG("out_json=\n%s\n", out.get());
        http_response(wp, out.get());
    } else if (result == 0) {
        HTTP_DEBUG("json_OK\n");
        json_OK(wp);
    } else {
        HTTP_DEBUG("json_perror\n");
        json_perror(wp, result, reason);
    }
}

// Whether the request may run: the gate, in its order. False after a reply was written.
bool admitted(Webs *wp, const char *action, const char *access, const RequestQuery &query)
{
    if (query.username && query.password)
        return check_query_credentials(wp, query.username, query.password) == 0;
    const LocalAction *local = find_action(action);
    if (local && local->open)
        return true;
    if (strcmp(action, "set_login_time") == 0) {
        session_probe(wp, query.sessionid, "set");
        return false;
    }
    return check_session_id_valid(wp, query.sessionid, access) == 0;
}

} // namespace

void actionGetMethodUrl(Webs *wp)
{
    char url[kUrlCopySize] = "";
    scopy(url, sizeof url, wp->url ? wp->url : "");
    char *slash = strrchr(url, '/');
    if (!slash) {
        websError(wp, 404, "Missing action name");
        return;
    }
    char *action = slash + 1;
    RequestQuery query;
    if (char *mark = strchr(action, '?')) {
        *mark = '\0';
        if (parse_request_query(mark + 1, &query) != 0) {
            json_perror(wp, -1, "Invalid URL");
            return;
        }
    }
    HTTP_DEBUG("actionName=%s\n", action);
    char access[kAccessSize];
    copy_field(access, sizeof access, action);
    if (char *underscore = strchr(access, '_'))
        *underscore = '\0';

    // A body too large for memory is only ever a firmware image.
    if (wp->inputFile && strcmp(action, "StartUpgrade") != 0) {
        websError(wp, 413, "Request body too large");
        return;
    }
    if (strcmp(action, "upload_Image") == 0) {
        http_upload_image(wp, query);
        return;
    }
    if (strcmp(action, "detection_sessionid") == 0) {
        session_probe(wp, query.sessionid, "get");
        return;
    }
    if (!admitted(wp, action, access, query))
        return;

    HTTP_DEBUG("in_json=\n%s\n", wp->input.servp ? wp->input.servp : "");
    std::lock_guard<std::mutex> lock(mutex);
    process(wp, action, query);
}
