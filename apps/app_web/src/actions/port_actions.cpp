#include "actions/port_actions.h"

#include "c2json/port_json.h"
#include "c2json/reply_text.h"
#include "common/cfgfile.h"
#include "common/log.h"
#include "common/owners.h"
#include "json2c/port_json.h"

#include <cstdio>

namespace {

constexpr size_t kProbeCommandSize = 32;  // "netstat -tuln | grep " and up to five digits fit
constexpr size_t kProbeLineSize = 1024;   // one line of netstat's list; its content is not used

// The port a request body asks for, refused (false) when it is missing or outside the ports a
// web server can use; the setting and the status probe refuse the same ports.
bool requested_port(const char *in_json, int *port)
{
    if (getPortFormatFromJSON(in_json, port) != 0)
        return false;
    if (*port >= WEB_PORT_MIN && *port <= WEB_PORT_MAX)
        return true;
    HTTP_ERROR("http port %d out of range %d-%d\n", *port, WEB_PORT_MIN, WEB_PORT_MAX);
    return false;
}

// The port file's text, or nullptr when it is missing, empty or unreadable.
HeapText read_port_file()
{
    int length = 0;
    return HeapText(http_get_datafile(WEB_PORT_FILE, &length));
}

// The port file's text as it stands and its port in *port, the file created with the
// default port first when it is missing or empty; nullptr when no port can be read. The port
// comes from a second read, which also proves that a just-created default file was written.
// Its lines carry the name of the action the logs know them by.
HeapText stored_port_file(int *port)
{
    HeapText stored = read_port_file();
    if (!stored) {
        char *text = nullptr;
        int rc = formatPortParamJSON(&text, WEB_PORT_NONE);
        if (rc != 0) {
            HTTP_ERROR_AS("actionGetPortParam", "Get http port Fail : %d\n", rc);
            return nullptr;
        }
        stored.reset(text);
        // A failed write shows up as a failed second read below.
        http_set_jsoncfgfile(WEB_PORT_FILE, stored.get());
    }
    HeapText current = read_port_file();
    if (getPortFormatFromJSON(current.get(), port) != 0)
        return nullptr;
    return stored;
}

} // namespace

int actionGetPortParam(const char * /*in_json*/, char **out_json, int *port)
{
    if (!out_json)
        return -2;
    int parsed = 0;
    HeapText stored = stored_port_file(&parsed);
    if (!stored) {
        formatFailCallJSON(out_json, "Failed to get params");
        return -1;
    }
    if (port)
        *port = parsed;
    formatParamsJSON(out_json, REPLY_REASON_GOT, stored.release());
    return 0;
}

int web_stored_port(int *port)
{
    int parsed = 0;
    if (!port || !stored_port_file(&parsed))
        return -1;
    *port = parsed;
    return 0;
}

int actionSetPortParam(const char *in_json, char **out_json, int *port)
{
    if (!out_json)
        return -2;
    int parsed = 0;
    if (!requested_port(in_json, &parsed)) {
        formatFailCallJSON(out_json, "Failed to set params");
        return -1;
    }
    char *formatted = nullptr;
    int rc = formatPortParamJSON(&formatted, parsed);
    HeapText text(formatted);
    if (rc != 0) {
        HTTP_ERROR("Set http port Fail : %d\n", rc);
        formatFailCallJSON(out_json, "Failed to set params");
        return -1;
    }
    if (http_set_jsoncfgfile(WEB_PORT_FILE, text.get()) != 0) {
        HTTP_ERROR("Set http port Fail!\n");
        formatFailCallJSON(out_json, "Failed to set params");
        return -1;
    }
    if (port)
        *port = parsed;
    formatSuccessCallJSON(out_json, REPLY_REASON_SET);
    return 0;
}

int actionGetPortStatus(const char *in_json, char **out_json)
{
    if (!out_json)
        return -2;
    int parsed = 0;
    if (!requested_port(in_json, &parsed)) {
        formatFailCallJSON(out_json, "Failed to get params");
        return -1;
    }
    // A plain text match: any listening socket whose line holds these digits counts, so
    // 80 is "in use" while 8080 listens.
    char command[kProbeCommandSize];
    snprintf(command, sizeof command, "netstat -tuln | grep %d", parsed);
    PipePtr pipe(popen(command, "r"));
    if (!pipe) {
        HTTP_ERROR("http port popen Fail!\n");
        formatFailCallJSON(out_json, "Failed to get params");
        return -1;
    }
    char line[kProbeLineSize];
    bool listed = fgets(line, sizeof line, pipe.get()) != nullptr;
    pipe.reset();
    if (listed) {
        HTTP_ERROR("http port in use\n");
        formatFailCallJSON(out_json, "http port in use");
        return -1;
    }
    formatSuccessCallJSON(out_json, "Port available");
    return 0;
}
