#include "c2json/json_print.h"

#include <cjson/cJSON.h>

int json_print_formatted(CJsonPtr obj, bool built, char **out, const LogSite &site)
{
    *out = built && obj ? cJSON_Print(obj.get()) : nullptr;
    if (!*out) {
        log_error_at(site, "Out of memory!\n");
        return -15;
    }
    return 0;
}
