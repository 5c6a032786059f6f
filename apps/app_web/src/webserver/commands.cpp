#include "webserver/commands.h"

#include "actions/clock_actions.h"
#include "actions/language_actions.h"
#include "actions/login_actions.h"
#include "actions/port_actions.h"
#include "actions/reboot_action.h"
#include "actions/user_actions.h"
#include "network/storage.h"
#include "webserver/service.h"
#include "webserver/upgrade.h"

#include <cstring>

namespace {

constexpr WebsBodyRule kJson{};                    // a JSON text in memory
constexpr WebsBodyRule kImage{.upload = true};     // one picture, multipart
constexpr WebsBodyRule kFirmware{.spool = true};   // an image of up to 256 MiB

// Handlers of the local actions that take the call as it comes.
template <int (*handler)(const char *, char **)>
int plain(ActionCall &c)
{
    return handler(c.body, c.out);
}

int get_port(ActionCall &c) { return actionGetPortParam(c.body, c.out, nullptr); }

int set_port(ActionCall &c)
{
    // The supervisor moves the server once HTTP_WEB_PORT differs from the port in use.
    int port = HTTP_WEB_PORT;
    int result = actionSetPortParam(c.body, c.out, &port);
    HTTP_WEB_PORT = port;
    return result;
}

const Command kCommands[] = {
    // name                      access            body       exec            time-out  upgrade only  handler
    {"login",                    Access::Open,     kJson,     Exec::Login,    0,        false, nullptr},
    {"logout",                   Access::Open,     kJson,     Exec::Quick,    0,        false, plain<actionLogOut>},
    {"get_Language_Format",      Access::Open,     kJson,     Exec::Quick,    0,        false, plain<actionGetLanguageFormat>},
    {"set_Language_Format",      Access::Open,     kJson,     Exec::Quick,    0,        false, plain<actionSetLanguageFormat>},
    {"set_device_reboot",        Access::Session,  kJson,     Exec::Blocking, 0,        false, plain<actionSetDeviceReboot>},
    {"set_user_param",           Access::Session,  kJson,     Exec::Quick,    0,        false, plain<actionSetUserParam>},
    {"get_user_param",           Access::Session,  kJson,     Exec::Quick,    0,        false, plain<actionGetUserParam>},
    {"get_device_localtime",     Access::Session,  kJson,     Exec::Quick,    0,        false, plain<actiongetDeviceLocalTime>},
    {"set_device_localtime",     Access::Session,  kJson,     Exec::Quick,    0,        false, plain<actionsetDeviceLocalTime>},
    {"get_video_directory",      Access::Session,  kJson,     Exec::Blocking, 0,        false, plain<actiongetVideoDirectory>},
    {"set_storage_deletefile",   Access::Session,  kJson,     Exec::Blocking, 0,        false, plain<actionSetStorageDelectFile>},
    {"GetWebServerParameter",    Access::Session,  kJson,     Exec::Quick,    0,        false, get_port},
    {"SetWebServerParameter",    Access::Session,  kJson,     Exec::Quick,    0,        false, set_port},
    {"GetWebServerPortStatus",   Access::Session,  kJson,     Exec::Blocking, 0,        false, plain<actionGetPortStatus>},
    {"get_upgrade_progress",     Access::Session,  kJson,     Exec::Quick,    0,        false, plain<actionGetUpgradeProgress>},
    {"upload_Image",             Access::Upload,   kImage,    Exec::Upload,   0,        false, nullptr},
    {"detection_sessionid",      Access::Probe,    kJson,     Exec::Answer,   0,        false, nullptr},
    {"set_login_time",           Access::Touch,    kJson,     Exec::Answer,   0,        false, nullptr},
    // Relayed commands whose answer takes the application longer than the usual 3 seconds.
    {"StartUpgrade",             Access::Session,  kFirmware, Exec::Relay,    180000,   true,  nullptr},  // per progress step
    {"GetScanWIFIHotspot",       Access::Session,  kJson,     Exec::Relay,    180000,   false, nullptr},  // every channel
    {"SetNetworkWIFIParameters", Access::Session,  kJson,     Exec::Relay,    5000,     false, nullptr},
    {"GetNetworkWIFIParameters", Access::Session,  kJson,     Exec::Relay,    5000,     false, nullptr},
};

constexpr Command kRelayed = {"", Access::Session, kJson, Exec::Relay, 0, false, nullptr};

const Command *own_row(const char *name)
{
    for (const Command &c : kCommands)
        if (name && strcmp(c.name, name) == 0)
            return &c;
    return nullptr;
}

}  // namespace

const Command &find_command(const char *name)
{
    const Command *row = own_row(name);
    return row ? *row : kRelayed;
}

bool has_own_row(const char *name) { return own_row(name) != nullptr; }
