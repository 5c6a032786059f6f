#include "c2json/clock_json.h"

#include "common/log.h"
#include "common/owners.h"

#include <cjson/cJSON.h>

int formatDeviceTimeParamJSON(char **out, const char *local_time)
{
    if (!out || !local_time) {
        HTTP_ERROR("Invalid input params!\n");
        return -2;
    }
    CJsonPtr obj(cJSON_CreateObject());
    if (!obj || !cJSON_AddStringToObject(obj.get(), "local_time", local_time)) {
        HTTP_ERROR("Out of memory!\n");
        return -15;
    }
    *out = cJSON_Print(obj.get());
    if (!*out) {
        HTTP_ERROR("Out of memory!\n");
        return -15;
    }
    return 0;
}
