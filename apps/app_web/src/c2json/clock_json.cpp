#include "c2json/clock_json.h"

#include "c2json/json_print.h"
#include "common/log.h"
#include "common/owners.h"

#include <cjson/cJSON.h>
#include <utility>

int formatDeviceTimeParamJSON(char **out, const char *local_time)
{
    if (!out || !local_time) {
        HTTP_ERROR("Invalid input params!\n");
        return -2;
    }
    CJsonPtr obj(cJSON_CreateObject());
    bool built = obj && cJSON_AddStringToObject(obj.get(), "local_time", local_time);
    return json_print_formatted(std::move(obj), built, out, LOG_HERE);
}
