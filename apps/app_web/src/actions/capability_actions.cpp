#include "actions/capability_actions.h"

#include "c2json/reply_text.h"
#include "common/cfgfile.h"
#include "common/log.h"
#include "common/owners.h"

#include <cjson/cJSON.h>

int actionGetDeviceCap(const char *cap_path, const char * /*in_json*/, char **out_json)
{
    if (!out_json)
        return -2;
    // Only a missing path is a bad call; an empty one (a routing line without a file) is
    // a path that yields no file.
    if (!cap_path) {
        HTTP_ERROR("Invalid input params\n");
        formatFailCallJSON(out_json, "Invalid input params");
        return -1;
    }
    int length = 0;
    HeapText text(http_get_datafile(cap_path, &length));
    if (!text) {
        HTTP_DEBUG("open %s failed use default para\n", cap_path);
        formatFailCallJSON(out_json, "Failed to get params");
        return -1;
    }
    // The file goes out unparsed, so it is checked here: the browser must never get a
    // reply that is not JSON. One value, nothing but blanks after it, and no NUL byte
    // inside (which would cut the text short).
    const char *end = nullptr;
    CJsonPtr check(cJSON_ParseWithOpts(text.get(), &end, true));
    if (!check || end != text.get() + length) {
        HTTP_ERROR("json pack into cjson error...\n");
        formatFailCallJSON(out_json, "Failed to get params");
        return -1;
    }
    check.reset();
    formatParamsJSON(out_json, REPLY_REASON_GOT, text.release());
    return 0;
}
