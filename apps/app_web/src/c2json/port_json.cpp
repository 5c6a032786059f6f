#include "c2json/port_json.h"

#include "actions/port_actions.h"
#include "common/log.h"
#include "common/owners.h"

#include <cjson/cJSON.h>

int formatPortParamJSON(char **out, int port)
{
    if (!out) {
        HTTP_ERROR("Invalid input params!\n");
        return -2;
    }
    CJsonPtr obj(cJSON_CreateObject());
    if (!obj || !cJSON_AddNumberToObject(obj.get(), "Port", port == WEB_PORT_NONE ? WEB_PORT_DEFAULT : port)) {
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
