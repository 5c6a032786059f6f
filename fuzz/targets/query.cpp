// The dispatcher's query parser: keys and values cut in place out of the request URL.
#include "fuzz_target.h"
#include "webserver/request_query.h"

#include <cstring>
#include <string>

namespace {

// A value the parser kept must be a non-empty part of the query, right behind its own key
// and the cut "=", ending at the next pair.
void check_value(const char *key, const char *value, const std::string &buffer)
{
    if (!value)
        return;
    size_t key_len = strlen(key);
    const char *start = buffer.data();
    FUZZ_CHECK(value >= start + key_len + 1 && value < start + buffer.size(), "value points into the query");
    FUZZ_CHECK(value[0] != '\0', "values are never empty");
    FUZZ_CHECK(!strchr(value, '&'), "a value ends at the next pair");
    const char *k = value - key_len - 1;
    FUZZ_CHECK(memcmp(k, key, key_len) == 0 && value[-1] == '\0', "the value follows its own key");
    FUZZ_CHECK(k == start || k[-1] == '\0' || k[-1] == '&', "the key starts a pair");  // "&&" is one separator
}

void run(const uint8_t *data, size_t size)
{
    if (size >= kUrlCopySize)
        return;  // the dispatcher copies at most this much of the URL
    std::string buffer(reinterpret_cast<const char *>(data), size);
    RequestQuery query;
    int rc = parse_request_query(buffer.data(), &query);
    FUZZ_CHECK(rc == 0 || rc == -1, "0 or -1");
    if (rc != 0)
        return;
    check_value("sessionid", query.sessionid, buffer);
    check_value("username", query.username, buffer);
    check_value("password", query.password, buffer);
    check_value("fileName", query.fileName, buffer);
}

} // namespace

FUZZ_TARGET("query", nullptr, run);
