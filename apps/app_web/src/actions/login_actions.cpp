#include "actions/login_actions.h"

#include "c2json/reply_text.h"
#include "common/log.h"
#include "common/owners.h"
#include "json2c/login_json.h"
#include "session/session.h"

#include <cjson/cJSON.h>

namespace {

constexpr size_t kLogoutIdSize = 128;  // at most 127 characters of the id are used

char *print_login_reply(const char *session_id)
{
    CJsonPtr obj(reply_envelope("OK", "user login successfully"));
    if (!obj || !cJSON_AddStringToObject(obj.get(), "sessionid", session_id))
        return nullptr;
    return cJSON_Print(obj.get());
}

} // namespace

int actionLogin(const LoginParam *login, int timeout, char **out_json)
{
    char *session_id = nullptr;
    if (add_new_session(login->username, timeout, &session_id) != 0) {
        formatFailCallJSON(out_json, "More than the maximum number of clients");
        HTTP_ERROR("More than the maximum number of clients\n");
        return -16;
    }
    *out_json = print_login_reply(session_id);
    return 0;
}

int actionLogOut(const char *in_json, char **out_json)
{
    char session_id[kLogoutIdSize] = "";
    if (getSessionidParamFromJSON(in_json, session_id, sizeof session_id) != 0) {
        HTTP_ERROR("Invalid input params\n");
        formatFailCallJSON(out_json, "Invalid input params");
        return -1;
    }
    if (delete_session_by_id(session_id) < 0) {
        formatFailCallJSON(out_json, "Invalid session id");
        return -1;
    }
    formatSuccessCallJSON(out_json, REPLY_REASON_SET);
    return 0;
}
