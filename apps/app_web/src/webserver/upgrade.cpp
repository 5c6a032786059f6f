#include "webserver/upgrade.h"

#include "c2json/reply_text.h"
#include "c2json/upgrade_json.h"
#include "common/log.h"
#include "common/owners.h"
#include "webs/webs.h"
#include "webserver/http_reply.h"
#include "webserver/msg_exchange.h"

#include <cjson/cJSON.h>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <unistd.h>

namespace {

ssize_t body_length(const Webs *wp)
{
    return wp->inputFile ? wp->inputFile->size : bufLen(&wp->input);
}

// Writes a body held in memory into a new file beside the image, to be renamed over it.
bool write_temp_image(const Webs *wp, char *temp_path)
{
    UniqueFd fd(mkstemp(temp_path));
    if (!fd) {
        HTTP_ERROR("upgrade open fail \n");
        return false;
    }
    size_t len = static_cast<size_t>(bufLen(&wp->input));
    ssize_t n = len ? write(fd.get(), wp->input.servp, len) : 0;
    if (n < 0 || static_cast<size_t>(n) != len) {
        HTTP_ERROR("upgrade wirte fail \n");  // contract: exact bytes
        unlink(temp_path);
        return false;
    }
    return true;
}

char *print_announcement()
{
    CJsonPtr obj(cJSON_CreateObject());
    if (!obj || !cJSON_AddStringToObject(obj.get(), "UpgradeImageFile", UPGRADE_IMAGE_FILE)) {
        HTTP_ERROR("Out of memory!\n");
        return nullptr;
    }
    return cJSON_Print(obj.get());
}

} // namespace

char *http_upgrade_save_file(Webs *wp)
{
    HTTP_DEBUG("input :%d\n", static_cast<int>(body_length(wp)));
    // The image replaces "/tmp/upgrade" whole, by a rename: a large body is already in a
    // temporary file of the web layer, a small one is written into one first. A rename
    // never follows a link planted at the target. Both temporary files come from mkstemp,
    // so the image has mode 0600 without a change of mode by path after the rename.
    if (wp->inputFile) {
        if (rename(wp->inputFile->filename, UPGRADE_IMAGE_FILE) != 0) {
            HTTP_ERROR("upgrade open fail \n");
            return nullptr;
        }
    } else {
        char temp_path[] = "/tmp/.upgrade-XXXXXX";
        if (!write_temp_image(wp, temp_path))
            return nullptr;
        if (rename(temp_path, UPGRADE_IMAGE_FILE) != 0) {
            HTTP_ERROR("upgrade open fail \n");
            unlink(temp_path);
            return nullptr;
        }
    }
    return print_announcement();
}

void http_upgrade_relay(WebsHold hold, Route route, std::function<void(Outcome)> done)
{
    Webs *wp = hold.get();
    HTTP_DEBUG("app_update -----------------------------StartUpgrade\n");
    HTTP_DEBUG("input :%d\n", static_cast<int>(body_length(wp)));
    HeapText payload(http_upgrade_save_file(wp));
    if (!payload) {
        HTTP_ERROR("upgrade wirte fail \n");
        json_perror(wp, 550, "upgrade wirte fail");  // contract: exact bytes
        route.reset();
        done(Outcome::written());
        return;
    }
    auto open = std::make_shared<Route>(std::move(route));
    http_send_and_recv_app_codec("StartUpgrade", payload.get(), *open, [open, done](ExchangeResult &r) {
        open->reset();
        done(Outcome::of(r.code, r.reply.release(), r.reason));
    });
}

int actionGetUpgradeProgress(const char * /*in_json*/, char **out_json)
{
    UpgradeStatus status = http_upgrade_status();
    char *params = nullptr;
    int rc = formatUpgradeProgressJSON(&params, status.running, status.value);
    if (rc != 0) {
        HTTP_ERROR("format upgrade progress fail  return : %d\n", rc);
        formatFailCallJSON(out_json, "Failed to get params");
        return rc;
    }
    formatParamsJSON(out_json, REPLY_REASON_GOT, params);
    return 0;
}
