#include "c2json/upgrade_json.h"

#include "c2json/json_print.h"
#include "common/log.h"
#include "common/owners.h"

#include <cjson/cJSON.h>
#include <utility>

int formatUpgradeProgressJSON(char **out, bool running, int value)
{
    if (!out) {
        HTTP_ERROR("Invalid input params!\n");
        return -2;
    }
    CJsonPtr obj(cJSON_CreateObject());
    bool built = obj && cJSON_AddBoolToObject(obj.get(), "UpgradeRunning", running) &&
                 cJSON_AddNumberToObject(obj.get(), "UpgradeProgressValue", value);
    return json_print_formatted(std::move(obj), built, out, LOG_HERE);
}
