#include "json2c/port_json.h"

#include "json2c/json_fields.h"

int getPortFormatFromJSON(const char *text, int *port)
{
    if (!text || !port) {
        HTTP_ERROR("Invalid params!\n");
        return -2;
    }
    CJsonPtr tree;
    int rc = json_parse_text(text, &tree, LOG_HERE);
    if (rc != 0)
        return rc;
    const JsonField fields[] = {json_int("Port", port)};
    return json_read_fields(tree.get(), fields, LOG_HERE);
}
