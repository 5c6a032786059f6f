#include "webserver/request_query.h"

#include "common/log.h"

#include <cstring>

namespace {

struct QueryKey {
    const char *name;
    const char *RequestQuery::*value;
};

const QueryKey kKeys[] = {
    {"sessionid", &RequestQuery::sessionid},
    {"username", &RequestQuery::username},
    {"password", &RequestQuery::password},
    {"fileName", &RequestQuery::fileName},
};

} // namespace

int parse_request_query(char *query, RequestQuery *out)
{
    char *save = nullptr;
    for (char *pair = strtok_r(query, "&", &save); pair; pair = strtok_r(nullptr, "&", &save)) {
        char *eq = strchr(pair, '=');
        if (!eq) {
            HTTP_ERROR("Invalid URL\n");
            return -1;
        }
        *eq = '\0';
        const char *value = eq + 1;
        if (pair[0] == '\0' || value[0] == '\0')
            return -1;
        for (const QueryKey &key : kKeys)
            if (strcmp(pair, key.name) == 0)
                out->*key.value = value;
    }
    return 0;
}
