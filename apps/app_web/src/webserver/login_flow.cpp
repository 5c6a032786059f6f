#include "webserver/login_flow.h"

#include "actions/login_actions.h"
#include "c2json/login_json.h"
#include "c2json/reply_text.h"
#include "common/log.h"
#include "common/owners.h"
#include "common/text_field.h"
#include "json2c/login_json.h"
#include "session/login_throttle.h"
#include "session/session.h"
#include "webserver/device_message.h"
#include "webserver/http_reply.h"
#include "webserver/local_actions.h"
#include "webserver/msg_exchange.h"
#include "webserver/routing_table.h"

#include <cstdio>
#include <memory>

namespace {

constexpr char kVerifyCommand[] = "VerifyPassword";
constexpr char kInvalidUser[] = "Invalid username or password";
constexpr char kNoServer[] = "Failed to request server";

enum class Verdict { Answered, PayloadFailed, ExchangeFailed };

struct Verification {
    Verdict verdict = Verdict::ExchangeFailed;
    int result = 0;       // the formatter's or the exchange's result when it failed
    HeapText answer;      // the application's "Response" text when it answered
    char reason[HTTP_REASON_SIZE] = "";
};
using Verified = std::function<void(Verification &)>;

// Asks the application routed for "VerifyPassword" about login's credentials. The route's
// connection is closed on every path. body is what earlier receivers of the command get.
void ask_device(const LoginParam &login, const char *body, WebsHold hold, Verified done)
{
    http_protocol_matching(kVerifyCommand, body, std::move(hold), [login, done](Route route) {
        Verification v;
        char *payload_raw = nullptr;
        int rc = formatLoginMsgParamJSON(&payload_raw, &login);
        HeapText payload(payload_raw);
        if (rc != 0 || !payload) {
            HTTP_ERROR_AS("ask_device", "Format Language fail  return : %d\n", rc);  // contract: exact bytes
            route.reset();
            v.verdict = Verdict::PayloadFailed;
            v.result = rc != 0 ? rc : -15;
            done(v);
            return;
        }
        if (!route) {
            // No application to ask: answered as a failed request, without touching a socket.
            snprintf(v.reason, sizeof v.reason, "%s", kNoServer);
            HTTP_ERROR_AS("ask_device", "no route for %s: %s\n", kVerifyCommand, v.reason);
            v.result = 550;
            done(v);
            return;
        }
        auto open = std::make_shared<Route>(std::move(route));
        http_send_and_recv_app_codec(kVerifyCommand, payload.get(), *open, [open, done](ExchangeResult &r) {
            open->reset();
            Verification answered;
            answered.verdict = r.code == 0 ? Verdict::Answered : Verdict::ExchangeFailed;
            answered.result = r.code;
            answered.answer = std::move(r.reply);
            snprintf(answered.reason, sizeof answered.reason, "%s", r.reason);
            done(answered);
        });
    });
}

// Whether a password check for account from the request's client may run now: a guesser's
// address is refused for a while, a guessed account slowed to one check a second. Writes the
// refusal (the failure text "try again later") when it may not; the device application is
// then never asked.
bool throttle_allows(Webs *wp, const char *account)
{
    const char *addr = websClientAddress(wp);
    if (throttle_admit(addr, account, throttle_now_ms()))
        return true;
    HTTP_ERROR("password check for %s from %s refused: too many failed attempts\n", account, addr);
    return false;
}

// Tells the throttle how a password check the application answered came out.
void throttle_note(Webs *wp, const char *account, bool accepted)
{
    throttle_record(websClientAddress(wp), account, accepted, throttle_now_ms());
}

// The failure text of a refused check, in the form a wrong password gets.
void reply_throttled(Webs *wp)
{
    char *text_raw = nullptr;
    formatFailCallJSON(&text_raw, kThrottledReason);
    HeapText text(text_raw);
    if (text)
        http_response(wp, text.get());
    else
        json_perror(wp, -1, kThrottledReason);
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

void check_query_credentials(WebsHold hold, const char *username, const char *password,
                             std::function<void()> admitted)
{
    LoginParam login{};
    copy_field(login.username, sizeof login.username, username);
    copy_field(login.password, sizeof login.password, password);
    if (!throttle_allows(hold.get(), login.username)) {
        reply_throttled(hold.get());
        return;
    }
    ask_device(login, nullptr, hold, [hold, admitted, login](Verification &v) {
        Webs *wp = hold.get();
        if (v.verdict != Verdict::Answered) {
            json_perror(wp, -1, kInvalidUser);
            HTTP_ERROR_AS("check_query_credentials", "Invalid username or password\n");
            return;
        }
        bool accepted = password_accepted(v.answer.get());
        throttle_note(wp, login.username, accepted);
        if (!accepted) {
            char *text_raw = nullptr;
            formatFailCallJSON(&text_raw, kInvalidUser);
            HeapText text(text_raw);
            if (text)
                http_response(wp, text.get());
            else
                json_perror(wp, -1, kInvalidUser);
            return;
        }
        admitted();
    });
}

void http_login_flow(WebsHold hold, const char *in_json, std::function<void(Outcome)> done)
{
    LoginParam login{};
    int timeout = 0;
    if (getLoginParamFromJSON(in_json, &login, &timeout) != 0) {
        HTTP_ERROR("Invalid input params\n");
        char *out = nullptr;
        formatFailCallJSON(&out, "Invalid input params");
        done(Outcome::of(-1, out));
        return;
    }
    if (!throttle_allows(hold.get(), login.username)) {
        char *out = nullptr;
        formatFailCallJSON(&out, kThrottledReason);
        done(Outcome::of(-1, out));
        return;
    }
    ask_device(login, in_json, hold, [hold, login, timeout, done](Verification &v) {
        if (v.verdict != Verdict::Answered) {
            done(Outcome::of(v.result, nullptr, v.reason));
            return;
        }
        bool accepted = password_accepted(v.answer.get());
        throttle_note(hold.get(), login.username, accepted);
        if (!accepted) {
            char *out = nullptr;
            formatFailCallJSON(&out, kInvalidUser);
            done(Outcome::of(-1, out));
            return;
        }
        // The session is the login's local step: it takes its turn among the local actions.
        local_actions().run(false, hold, [login, timeout, done] {
            char *out = nullptr;
            int rc = actionLogin(&login, timeout, &out);
            done(Outcome::of(rc, out));
        });
    });
}
