#include "c2json/port_json.h"

#include "c2json/json_print.h"
#include "common/log.h"
#include "common/owners.h"

#include <cjson/cJSON.h>
#include <utility>

int formatPortParamJSON(char **out, int port)
{
    if (!out) {
        HTTP_ERROR("Invalid input params!\n");
        return -2;
    }
    CJsonPtr obj(cJSON_CreateObject());
    bool built = obj && cJSON_AddNumberToObject(obj.get(), "Port", port == WEB_PORT_NONE ? WEB_PORT_DEFAULT : port);
    return json_print_formatted(std::move(obj), built, out, LOG_HERE);
}
