// The JSON-to-record parsers of request bodies and device answers, one target each. Every
// parser must answer 0, -2 or -15 and, on 0, leave only terminated texts within their fields
// and values within the ranges it promises.
#include "fuzz_target.h"
#include "common/language_format.h"
#include "json2c/clock_json.h"
#include "json2c/language_json.h"
#include "json2c/login_json.h"
#include "json2c/port_json.h"
#include "json2c/user_json.h"
#include "network/storage.h"

#include <cstring>
#include <memory>
#include <string>

namespace {

// The parsers take terminated texts: the input up to its first NUL, as a body would be read.
std::string text_of(const uint8_t *data, size_t size)
{
    return std::string(reinterpret_cast<const char *>(data), strnlen(reinterpret_cast<const char *>(data), size));
}

void check_rc(int rc) { FUZZ_CHECK(rc == 0 || rc == -2 || rc == -15, "0, -2 or -15"); }

template <size_t N>
void check_field(const char (&field)[N], const char *what)
{
    FUZZ_CHECK(memchr(field, '\0', N) != nullptr, what);
}

void login(const uint8_t *data, size_t size)
{
    LoginParam p;
    memset(&p, 0x55, sizeof p);
    int timeout = 0;
    int rc = getLoginParamFromJSON(text_of(data, size).c_str(), &p, &timeout);
    check_rc(rc);
    if (rc != 0)
        return;
    check_field(p.username, "user name terminated");
    check_field(p.password, "password terminated");
    FUZZ_CHECK(p.username[0] && p.password[0], "neither text is empty");
    FUZZ_CHECK(timeout >= 1, "a time-out of at least 1");
}

void login_answer(const uint8_t *data, size_t size)
{
    int valid = -7;
    check_rc(getLoginParamFromJSON_msg(text_of(data, size).c_str(), &valid));
}

void logout(const uint8_t *data, size_t size)
{
    char id[128];
    memset(id, 0x55, sizeof id);
    int rc = getSessionidParamFromJSON(text_of(data, size).c_str(), id, sizeof id);
    check_rc(rc);
    if (rc == 0)
        check_field(id, "session id terminated");
}

void port(const uint8_t *data, size_t size)
{
    int value = 0;
    check_rc(getPortFormatFromJSON(text_of(data, size).c_str(), &value));
}

void language(const uint8_t *data, size_t size)
{
    LanguageFormat lang;
    memset(&lang, 0x55, sizeof lang);
    int rc = getLanguageFormatFromJSON(text_of(data, size).c_str(), &lang);
    check_rc(rc);
    if (rc != 0)
        return;
    FUZZ_CHECK(strcmp(lang.language, "chinese") == 0 || strcmp(lang.language, "english") == 0, "a known language");
    FUZZ_CHECK(strcmp(lang.index_page, "login.html") == 0, "the index page is fixed");
}

void rtc(const uint8_t *data, size_t size)
{
    struct tm tm {};
    int rc = getRtcParamFromJSON(text_of(data, size).c_str(), &tm);
    check_rc(rc);
    if (rc != 0)
        return;
    FUZZ_CHECK(tm.tm_sec >= 0 && tm.tm_sec <= 59 && tm.tm_min >= 0 && tm.tm_min <= 59 && tm.tm_hour >= 0 &&
                   tm.tm_hour <= 23 && tm.tm_mday >= 1 && tm.tm_mday <= 31 && tm.tm_mon >= 0 && tm.tm_mon <= 11 &&
                   tm.tm_wday >= 0 && tm.tm_wday <= 6,
               "every field within its range");
}

void user(const uint8_t *data, size_t size)
{
    UsermgntUser u;
    memset(&u, 0x55, sizeof u);
    int operation = 0;
    int rc = getUserParamsFromJSON(text_of(data, size).c_str(), &u, &operation);
    check_rc(rc);
    if (rc != 0)
        return;
    check_field(u.user_name, "user name terminated");
    check_field(u.password, "password terminated");
}

void storage(const uint8_t *data, size_t size)
{
    static auto param = std::make_unique<StorageFileParam>();
    memset(param.get(), 0, sizeof *param);
    param->mode = -1;
    int rc = getStorageFileParamFromJSON(text_of(data, size).c_str(), param.get());
    check_rc(rc);
    for (const auto &name : param->file)
        check_field(name, "every name terminated");
}

} // namespace

FUZZ_TARGET("json_login", nullptr, login);
FUZZ_TARGET("json_login_answer", nullptr, login_answer);
FUZZ_TARGET("json_logout", nullptr, logout);
FUZZ_TARGET("json_port", nullptr, port);
FUZZ_TARGET("json_language", nullptr, language);
FUZZ_TARGET("json_clock", nullptr, rtc);
FUZZ_TARGET("json_user", nullptr, user);
FUZZ_TARGET("json_storage", nullptr, storage);
