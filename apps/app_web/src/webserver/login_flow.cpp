#include "webserver/login_flow.h"

#include "actions/login_actions.h"
#include "actions/reply_text.h"
#include "c2json/login_json.h"
#include "common/log.h"
#include "common/owners.h"
#include "json2c/json_fields.h"
#include "json2c/login_json.h"
#include "session/session.h"
#include "webserver/device_message.h"
#include "webserver/http_reply.h"
#include "webserver/msg_exchange.h"
#include "webserver/routing_table.h"

#include <cstring>

namespace {

constexpr char kVerifyCommand[] = "VerifyPassword";
constexpr char kInvalidUser[] = "Invalid username or password";
constexpr char kNoServer[] = "Failed to request server";

enum class Verdict { Answered, PayloadFailed, ExchangeFailed };

struct Verification {
    Verdict verdict;
    int result;       // the formatter's or the exchange's result when it failed
    HeapText answer;  // the application's "Response" text when it answered
};

// Asks the application routed for "VerifyPassword" about login's credentials. The route's
// connection is closed on every path. body is what earlier receivers of the command get.
Verification ask_device(const LoginParam &login, const char *body, char *reason)
{
    int route_socket = -1;
    int route_index = -1;
    char receiver[HTTP_RECEIVER_NAME_SIZE] = "";
    bool routed = http_protocol_matching(kVerifyCommand, &route_socket, receiver, &route_index, body) != 0;

    char *payload_raw = nullptr;
    int rc = formatLoginMsgParamJSON(&payload_raw, &login);
    HeapText payload(payload_raw);
    if (rc != 0 || !payload) {
        HTTP_ERROR("Format Language fail  return : %d\n", rc);
        http_msg_socket_uninit(route_index);
        return {Verdict::PayloadFailed, rc != 0 ? rc : -15, nullptr};
    }
    if (!routed) {
        // No application to ask: answered as a failed request, without touching a socket.
        snprintf(reason, HTTP_REASON_SIZE, "%s", kNoServer);
        HTTP_ERROR("no route for %s: %s\n", kVerifyCommand, reason);
        return {Verdict::ExchangeFailed, 550, nullptr};
    }
    char *answer_raw = nullptr;
    rc = http_send_and_recv_app_codec(kVerifyCommand, reason, payload.get(), &answer_raw, route_socket, receiver);
    http_msg_socket_uninit(route_index);
    HeapText answer(answer_raw);
    if (rc != 0)
        return {Verdict::ExchangeFailed, rc, nullptr};
    return {Verdict::Answered, 0, std::move(answer)};
}

// Whether the application's answer says the password is valid.
bool password_accepted(const char *answer)
{
    int valid = 0;
    if (getLoginParamFromJSON_msg(answer, &valid) == 0 && valid != 0)
        return true;
    HTTP_ERROR("Invalid username or password\n");
    return false;
}

} // namespace

int check_session_id_valid(Webs *wp, const char *session_id, const char *access)
{
    if (!session_id) {
        json_perror(wp, -16, "Session ID is empty");
        return -1;
    }
    if (find_saved_session(session_id, access) < 0) {
        json_perror(wp, -16, "Invalid session ID");
        return -1;
    }
    return 0;
}

int check_query_credentials(Webs *wp, const char *username, const char *password)
{
    LoginParam login{};
    copy_field(login.username, sizeof login.username, username);
    copy_field(login.password, sizeof login.password, password);
    char reason[HTTP_REASON_SIZE] = "";
    Verification v = ask_device(login, nullptr, reason);
    if (v.verdict != Verdict::Answered) {
        json_perror(wp, -1, kInvalidUser);
        HTTP_ERROR("Invalid username or password\n");
        return -1;
    }
    if (!password_accepted(v.answer.get())) {
        char *text_raw = nullptr;
        formatFailCallJSON(&text_raw, kInvalidUser);
        HeapText text(text_raw);
        if (text)
            http_response(wp, text.get());
        else
            json_perror(wp, -1, kInvalidUser);
        return -1;
    }
    return 0;
}

int http_login_flow(const char *in_json, char **out_json, char *reason)
{
    LoginParam login{};
    int timeout = 0;
    if (getLoginParamFromJSON(in_json, &login, &timeout) != 0) {
        HTTP_ERROR("Invalid input params\n");
        formatFailCallJSON(out_json, "Invalid input params");
        return -1;
    }
    Verification v = ask_device(login, in_json, reason);
    if (v.verdict != Verdict::Answered)
        return v.result;
    if (!password_accepted(v.answer.get())) {
        formatFailCallJSON(out_json, kInvalidUser);
        return -1;
    }
    return actionLogin(&login, timeout, out_json);
}
