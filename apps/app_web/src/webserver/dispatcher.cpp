// The dispatcher: the one action procedure of the web pages. It reads the action name and
// the query as soon as the request's line and headers are in, admits the caller before any
// byte of the body is read, and has the action answered by the row of the command table:
// a local handler on its turn, the device application that the routing table names, or one
// of the flows of their own (login, upload, upgrade). Every path writes exactly one reply.
#include "webserver/dispatcher.h"

#include "actions/capability_actions.h"
#include "common/log.h"
#include "common/owners.h"
#include "common/text_field.h"
#include "session/session.h"
#include "webs/webs.h"
#include "webserver/commands.h"
#include "webserver/device_message.h"
#include "webserver/http_reply.h"
#include "webserver/local_actions.h"
#include "webserver/login_flow.h"
#include "webserver/msg_exchange.h"
#include "webserver/outcome.h"
#include "webserver/request_query.h"
#include "webserver/routing_table.h"
#include "webserver/upgrade.h"
#include "webserver/upload_image.h"

#include <cstring>
#include <memory>

std::mutex mutex;  // kept for the contract; never contended (see dispatcher.h)

namespace {

constexpr size_t kAccessSize = 128;    // access text: the action name cut at its first "_"

constexpr char kNoProtocol[] = "The server does not support this protocol";

// One action request while it is under way: the cut URL copy that the action name and the
// query point into, and the command's row. Shared by the steps that answer it, each of
// which holds the request.
struct ActionRequest {
    explicit ActionRequest(Webs *wp) : hold(wp) {}
    ActionRequest(const ActionRequest &) = delete;
    ActionRequest &operator=(const ActionRequest &) = delete;

    Webs *wp() const { return hold.get(); }
    const char *body() const { return wp()->input.servp ? wp()->input.servp : ""; }

    WebsHold hold;
    char url[kUrlCopySize] = "";
    char *action = nullptr;
    RequestQuery query;
    char access[kAccessSize] = "";
    const Command *row = nullptr;
};
using RequestPtr = std::shared_ptr<ActionRequest>;

// The reply choice, the same for every handler and for the relay: the session is
// refreshed, then the reply text, the plain success or the coded failure is written.
void reply_with(const ActionRequest &req, Outcome &o)
{
    if (o.replied)
        return;
    if (req.query.sessionid)
        find_saved_session(req.query.sessionid, "set");
    Webs *wp = req.wp();
    if (o.out) {
        HTTP_DEBUG("out_json=\n%s\n", o.out.get());
        http_response(wp, o.out.get());
    } else if (o.result == 0) {
        HTTP_DEBUG("json_OK\n");
        json_OK(wp);
    } else {
        HTTP_DEBUG("json_perror\n");
        json_perror(wp, o.result, o.reason);
    }
}

// A local handler's step: the handler, then the reply choice.
void run_local(const RequestPtr &req, bool blocking, int (*handler)(ActionCall &))
{
    local_actions().run(blocking, req->hold, [req, handler] {
        char *out = nullptr;
        Outcome o;
        ActionCall call{req->body(), &out, o.reason};
        o.result = handler(call);
        o.out.reset(out);
        reply_with(*req, o);
    });
}

// A capability command, answered from its file on the local actions' turn.
void answer_capability(const RequestPtr &req, const char *cap_path)
{
    std::string path = cap_path;
    local_actions().run(false, req->hold, [req, path] {
        char *out = nullptr;
        int result = actionGetDeviceCap(path.c_str(), req->body(), &out);
        Outcome o = Outcome::of(result, out);
        reply_with(*req, o);
    });
}

// Relays the request to the device application that the routing table names for it.
void relay(const RequestPtr &req)
{
    http_protocol_matching(req->action, req->body(), req->hold, [req](Route route) {
        if (!route) {
            char reason[HTTP_REASON_SIZE];
            snprintf(reason, sizeof reason, "%s :%s", kNoProtocol, req->action);
            // contract: exact bytes
            HTTP_ERROR_AS("actionGetMethodUrl", "web server not support this protocol! :%s\n", kNoProtocol);
            Outcome o = Outcome::of(501, nullptr, reason);
            reply_with(*req, o);
            return;
        }
        HTTP_DEBUG("app_update -----------------------------start\n");
        auto done = [req](Outcome o) { reply_with(*req, o); };
        if (strcmp(route.receiver_name(), HTTP_RECEIVER_APP_UPDATE) == 0 && strcmp(req->action, "StartUpgrade") == 0) {
            http_upgrade_relay(req->hold, std::move(route), done);
            return;
        }
        if (req->wp()->inputFile) {
            // Only a firmware image for the upgrade application may arrive as a spooled body.
            route.reset();
            websError(req->wp(), 413, "Request body too large");
            return;
        }
        HTTP_DEBUG("msg--------------------other\n");
        auto open = std::make_shared<Route>(std::move(route));
        http_send_and_recv_app_codec(req->action, req->body(), *open, [req, open](ExchangeResult &r) {
            open->reset();
            Outcome o = Outcome::of(r.code, r.reply.release(), r.reason);
            reply_with(*req, o);
        });
    });
}

// The request's body is in: the action runs as its row says.
void process(const RequestPtr &req)
{
    HTTP_DEBUG("in_json=\n%s\n", req->body());
    const Command &row = *req->row;
    switch (row.exec) {
    case Exec::Quick:
    case Exec::Blocking:
        run_local(req, row.exec == Exec::Blocking, row.handler);
        return;
    case Exec::Login:
        http_login_flow(req->hold, req->body(), [req](Outcome o) { reply_with(*req, o); });
        return;
    case Exec::Answer:  // reached only with credentials in the query: no command of its own
    case Exec::Relay:
    case Exec::Upload:
        break;
    }
    char cap_path[HTTP_CAP_PATH_SIZE] = "";
    if (http_capability_protocol_matching(req->action, cap_path))
        answer_capability(req, cap_path);
    else
        relay(req);
}

// The caller passed the gate: the body may come now.
void admit(const RequestPtr &req)
{
    websReadBody(req->wp(), req->row->body, [req](Webs *) { process(req); });
}

// The probe ("get": the session is not refreshed) and the touch ("set"): the plain success,
// once the body is in, on the local turn.
void session_probe(const RequestPtr &req, const char *access)
{
    const char *sid = req->query.sessionid;
    if (check_session_id_valid(req->wp(), sid, access) != 0) {
        HTTP_DEBUG("sessionId:%s\n", sid ? sid : "(null)");
        return;
    }
    websReadBody(req->wp(), req->row->body, [req](Webs *) {
        local_actions().run(false, req->hold, [req] { json_OK(req->wp()); });
    });
}

void upload(const RequestPtr &req)
{
    if (!caller_allowed(req->wp(), req->query))
        return;
    websReadBody(req->wp(), req->row->body, [req](Webs *) {
        local_actions().run(true, req->hold, [req] { http_upload_image(req->wp(), req->query); });
    });
}

// The gate, in its order. Refusals are written here, before the body is read.
void gate(const RequestPtr &req)
{
    Webs *wp = req->wp();
    const RequestQuery &query = req->query;
    const Access access = req->row->access;
    if (access == Access::Upload) {
        upload(req);
        return;
    }
    if (access == Access::Probe) {
        session_probe(req, "get");
        return;
    }
    if (query.username && query.password) {
        check_query_credentials(req->hold, query.username, query.password, [req] { admit(req); });
        return;
    }
    if (access == Access::Open) {
        admit(req);
        return;
    }
    if (access == Access::Touch) {
        session_probe(req, "set");
        return;
    }
    if (check_session_id_valid(wp, query.sessionid, req->access) == 0)
        admit(req);
}

} // namespace

void actionGetMethodUrl(Webs *wp)
{
    auto req = std::make_shared<ActionRequest>(wp);
    scopy(req->url, sizeof req->url, wp->url ? wp->url : "");
    char *slash = strrchr(req->url, '/');
    if (!slash) {
        websError(wp, 404, "Missing action name");
        return;
    }
    req->action = slash + 1;
    if (char *mark = strchr(req->action, '?')) {
        *mark = '\0';
        if (parse_request_query(mark + 1, &req->query) != 0) {
            json_perror(wp, -1, "Invalid URL");
            return;
        }
    }
    HTTP_DEBUG("actionName=%s\n", req->action);
    copy_field(req->access, sizeof req->access, req->action);
    if (char *underscore = strchr(req->access, '_'))
        *underscore = '\0';
    req->row = &find_command(req->action);
    gate(req);
}
