// The web server thread: configures the web layer, opens the listening endpoint, binds the
// "device" action to the dispatcher and serves until the supervisor sets finished.
#include "common/language_format.h"
#include "common/cfgfile.h"
#include "common/log.h"
#include "common/owners.h"
#include "common/text_field.h"
#include "webs/webs.h"
#include "webs/webs_version.h"
#include "webserver/dispatcher.h"
#include "webserver/service.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr char kLogPath[] = "stdout:1";
constexpr char kDocuments[] = "/mnt/app/web_root";
constexpr char kRouteFile[] = "/mnt/app/web_root/config/route.txt";
constexpr char kAuthFile[] = "/mnt/app/web_root/config/auth.txt";
constexpr char kDefaultLanguage[] = "chinese";
constexpr char kIndexPage[] = "login.html";
constexpr char kActionName[] = "device";
constexpr char kSeparator[] = "---------------------------------------------";
// Room for the endpoint text, terminator included.
constexpr size_t kEndpointSize = 256;
// Room for the working directory, terminator included.
constexpr size_t kDirectorySize = 256;
// The language file is read and rewritten at most this often, with a pause between tries
// (a card being remounted may come back); then start-up goes on with the default in memory.
constexpr int kLanguageTries = 5;
constexpr std::chrono::milliseconds kLanguagePause{200};
// Level of the configuration header lines and of the exit line; trace lines need 7.
constexpr int kHeaderLevel = 1;
constexpr int kTraceLevel = 7;

bool is_known_interface(const char *name)
{
    return strcmp(name, "eth0") == 0 || strcmp(name, "eth1") == 0 || strcmp(name, "lo") == 0;
}

// The interface's IPv4 address as dotted text; false after the error report.
bool interface_address(const char *name, char *text, size_t size)
{
    UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd) {
        error("Cannot create socket errno %d", errno);
        return false;
    }
    ifreq ifr{};
    copy_field(ifr.ifr_name, sizeof ifr.ifr_name, name);
    if (ioctl(fd.get(), SIOCGIFADDR, &ifr) != 0) {
        error("Cannot ioctl SIOCGIFADDR errno %d", errno);
        return false;
    }
    const auto *addr = reinterpret_cast<const sockaddr_in *>(&ifr.ifr_addr);
    return inet_ntop(AF_INET, &addr->sin_addr, text, static_cast<socklen_t>(size)) != nullptr;
}

void set_text(char (&field)[128], const char *value)
{
    memset(field, 0, sizeof field);  // the bytes behind the text stay zero in the file
    copy_field(field, sizeof field, value);
}

// Reads the language record, recreating the file with the default when it cannot be read.
void load_language_record()
{
    LanguageFormat record;
    memset(&record, 0, sizeof record);
    int tries = 0;
    while (http_get_cfgfile(WEB_LANGUAGE_FILE, &record, sizeof record) != 0) {
        HTTP_PRINT("ERROR :GET WEB_LANGUAGE_FILE failed!\n");  // contract: exact bytes
        set_text(record.index_page, kIndexPage);
        set_text(record.language, kDefaultLanguage);
        if (http_set_cfgfile(WEB_LANGUAGE_FILE, &record, sizeof record) == 0)
            break;
        HTTP_PRINT("WEB_LANGUAGE_FILE failed!\n");
        if (++tries >= kLanguageTries) {
            HTTP_PRINT("WEB_LANGUAGE_FILE cannot be written; going on with the default language in memory\n");
            break;
        }
        std::this_thread::sleep_for(kLanguagePause);
    }
}

// The configuration header, one line at a time while the log level is above 0.
void log_configuration()
{
    char directory[kDirectorySize] = "";
    if (!getcwd(directory, sizeof directory))
        directory[0] = '\0';
    struct HeaderLine {
        const char *format;
        const char *value;
    };
    const HeaderLine lines[] = {
        {"Configuration for %s", WEBS_NAME},
        {"%s", kSeparator},
        {"Version:            %s", websGetVersion()},
        {"BuildType:          %s", WEB_BUILD_TYPE},
        {"CPU:                %s", WEB_BUILD_CPU},
        {"OS:                 %s", WEB_BUILD_OS},
        {"Host:               %s", websGetServer()},
        {"Directory:          %s", directory},
        {"Documents:          %s", websGetDocuments()},
        {"Configure:          %s", WEB_CONFIGURE_LINE},
        {"%s", kSeparator},
    };
    for (const HeaderLine &line : lines) {
        if (websGetLogLevel() <= 0)
            return;
        logmsg(kHeaderLevel, line.format, line.value);
    }
}

}  // namespace

void *webservice_routine(void *arg)
{
    auto *params = static_cast<WebParams *>(arg);
    logSetPath(kLogPath);
    websSetDebug(1);
    if (!params) {
        error("invalid web_params  web_params=null. Exiting.");  // contract: exact bytes
        return nullptr;
    }
    if (!is_known_interface(params->interfaces_name)) {
        // contract: exact bytes
        HTTP_PRINT("invalid interface name:%s   edit default eth0 \n", params->interfaces_name);
        copy_field(params->interfaces_name, sizeof params->interfaces_name, "eth0");
    }
    char endpoint[kEndpointSize];
    snprintf(endpoint, sizeof endpoint,
             strcmp(params->interfaces_name, "lo") == 0 ? "http://127.0.0.1:%d" : "http://*:%d", params->http_port);

    if (websOpen(kDocuments, kRouteFile) < 0) {
        error("Cannot initialize server. Exiting.");
        return nullptr;
    }
    char address[INET_ADDRSTRLEN];
    if (!interface_address(params->interfaces_name, address, sizeof address)) {
        websClose();
        return nullptr;
    }
    websSetIpAddr(address);
    websSetHost(address);

    load_language_record();
    // The index page is always the login page, whatever the record holds.
    websSetIndex(kIndexPage);
    log_configuration();

    if (websLoad(kAuthFile) < 0) {
        error("Cannot load %s", kAuthFile);
        websClose();
        return nullptr;
    }
    if (websGetLogLevel() > kTraceLevel - 1)
        trace(kTraceLevel, "websLoad auth success\n");

    listen_http_sid_ipv4 = websListen(endpoint);
    if (listen_http_sid_ipv4.load() < 0) {
        error("Cannot listen %s", endpoint);
        websClose();
        return nullptr;
    }
    if (websGetLogLevel() > kTraceLevel - 1)
        trace(kTraceLevel, "websListen(%s) success\n", endpoint);

    websDefineAction(kActionName, actionGetMethodUrl);
    websServiceEvents(&finished);
    if (websGetLogLevel() > 0)
        logmsg(kHeaderLevel, "Instructed to exit\n");
    websClose();
    return nullptr;
}
