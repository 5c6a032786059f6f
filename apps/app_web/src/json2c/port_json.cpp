#include "json2c/port_json.h"

#include "json2c/json_fields.h"

int getPortFormatFromJSON(const char *text, int *port)
{
    if (!text || !port) {
        HTTP_ERROR("Invalid params!\n");
        return -2;
    }
    const JsonField fields[] = {json_int("Port", port)};
    return json_parse_fields(text, fields, LOG_HERE);
}
