// The settings actions in-process: page language, web port, device clock and capability
// files.
#include "actions/capability_actions.h"
#include "actions/clock_actions.h"
#include "actions/language_actions.h"
#include "actions/port_actions.h"
#include "actions/user_actions.h"
#include "common/language_format.h"
#include "common/owners.h"
#include "usermanagement/usermgnt.h"
#include "testsupport.h"

#include <arpa/inet.h>
#include <cstring>
#include <ctime>
#include <gtest/gtest.h>
#include <map>
#include <optional>
#include <sys/stat.h>

namespace {

using namespace std::string_literals;

const std::string kGot = "Successfully to get params", kSet = "Successfully to set params";
const std::string kParamDir = "/mnt/usr/config/app_parameters", kCapFile = "/mnt/app/web_root/config/device_cap.json";
constexpr int kUntouched = -99;

class SettingsActions : public ::testing::Test {
protected:
    void SetUp() override
    {
        ts::reset_device_tree();
        ts::make_dirs(kParamDir);
        ts::make_dirs("/mnt/app/web_root/config");
    }
};

// The language record as stored; language may fill its field whole, without a terminator.
std::string language_record(const std::string &language, int32_t mode)
{
    LanguageFormat lang{};
    memcpy(lang.language, language.data(), std::min(language.size(), sizeof lang.language));
    lang.mode = mode;
    memcpy(lang.index_page, "login.html", 10);
    return std::string(reinterpret_cast<const char *>(&lang), sizeof lang);
}

std::string language_reply(const std::string &language, int mode)
{
    return ts::params(kGot, "{\n\t\"language\":\t\"" + language + "\",\n\t\"mode\":\t" + std::to_string(mode) + "\n}");
}

TEST_F(SettingsActions, LanguageIsStoredAsAWholeRecord)
{
    for (int mode : {1, -7}) {
        std::string body = R"({"language":"english","mode":)" + std::to_string(mode) + "}";
        EXPECT_EQ(ts::ok(kSet), ts::call(actionSetLanguageFormat, body.c_str()).reply);
        EXPECT_EQ(language_record("english", mode), ts::read_file(WEB_LANGUAGE_FILE));
        EXPECT_EQ(language_reply("english", mode), ts::call(actionGetLanguageFormat, nullptr).reply);
    }
}

TEST_F(SettingsActions, ALanguageFillingItsFieldIsAnsweredWhole)
{
    ts::write_file(WEB_LANGUAGE_FILE, language_record(std::string(128, 'x'), 2));
    EXPECT_EQ(language_reply(std::string(128, 'x'), 2), ts::call(actionGetLanguageFormat, nullptr).reply);
}

TEST_F(SettingsActions, RefusedLanguagesLeaveTheRecordAsItIs)
{
    const std::string stored = language_record("chinese", 0);
    ts::write_file(WEB_LANGUAGE_FILE, stored);
    for (const char *body : {R"({"language":"English","mode":1})", R"({"Language":"english","mode":1})",
                             R"({"language":"chinese","mode":"1"})", "{\"language\""}) {
        EXPECT_EQ(ts::fail("set language params fail"), ts::call(actionSetLanguageFormat, body).reply) << body;
        EXPECT_EQ(stored, ts::read_file(WEB_LANGUAGE_FILE));
    }
}

TEST_F(SettingsActions, AWronglySizedLanguageRecordIsNeitherAnsweredNorRepaired)
{
    ts::write_file(WEB_LANGUAGE_FILE, language_record("chinese", 0).substr(0, 259));
    EXPECT_EQ(ts::fail("get language params fail"), ts::call(actionGetLanguageFormat, nullptr).reply);
    EXPECT_EQ(259u, ts::read_file(WEB_LANGUAGE_FILE).size());
}

TEST_F(SettingsActions, WithoutItsFolderTheLanguageIsNeitherReadNorStored)
{
    ts::remove_tree("/mnt/app/web_root/config");
    EXPECT_EQ(-1, ts::call(actionGetLanguageFormat, nullptr).rc);
    EXPECT_EQ(ts::fail("set language params fail"),
              ts::call(actionSetLanguageFormat, R"({"language":"english","mode":1})").reply);
    EXPECT_FALSE(ts::exists(WEB_LANGUAGE_FILE));
}

// The port get on a port file holding stored (none when nullptr): the port it hands over
// (kUntouched when none), the reply, and the file afterwards.
struct PortGet {
    int port;
    std::string reply, file;
};
PortGet get_port(const char *stored)
{
    if (stored)
        ts::write_file(WEB_PORT_FILE, stored);
    int port = kUntouched;
    ts::Outcome o = ts::call([&](char **out) { return actionGetPortParam(nullptr, out, &port); });
    return {port, o.reply, ts::read_file(WEB_PORT_FILE)};
}

TEST_F(SettingsActions, PortGetStoresTheDefaultInAMissingOrEmptyFile)
{
    const std::string fresh = "{\n\t\"Port\":\t80\n}";
    for (const char *stored : {(const char *)nullptr, ""}) {
        PortGet got = get_port(stored);
        EXPECT_EQ(80, got.port);
        EXPECT_EQ(ts::params(kGot, fresh), got.reply);
        EXPECT_EQ(fresh, got.file);
    }
}

TEST_F(SettingsActions, PortGetAnswersAStoredObjectVerbatim)
{
    const std::string other = "{ \"Port\" : 8080,\n  \"Owner\": \"x\" }\n";
    PortGet got = get_port(other.c_str());
    EXPECT_EQ(8080, got.port);
    EXPECT_EQ(ts::params(kGot, other), got.reply);
    EXPECT_EQ(other, got.file);
}

TEST_F(SettingsActions, PortGetRefusesAFileWithoutANumericPort)
{
    for (const char *stored : {"Port=8080", R"({"Port":"8080"})"}) {
        PortGet got = get_port(stored);
        EXPECT_EQ(kUntouched, got.port);
        EXPECT_EQ(ts::fail("Failed to get params"), got.reply);
        EXPECT_EQ(stored, got.file);
    }
}

// The port set with this value; *port is what it hands over.
ts::Outcome set_port(const std::string &value, int *port)
{
    std::string body = "{\"Port\":" + value + "}";
    return ts::call([&](char **out) { return actionSetPortParam(body.c_str(), out, port); });
}

TEST_F(SettingsActions, PortSetReplacesTheFileWithTheNewPort)
{
    ts::write_file(WEB_PORT_FILE, R"({"Port":80,"Owner":"installer"})");
    for (int wanted : {8081, 1, 65535}) {
        int port = 80;
        EXPECT_EQ(ts::ok(kSet), set_port(std::to_string(wanted), &port).reply);
        EXPECT_EQ(wanted, port);
        EXPECT_EQ("{\n\t\"Port\":\t" + std::to_string(wanted) + "\n}", ts::read_file(WEB_PORT_FILE));
    }
}

TEST_F(SettingsActions, PortSetRefusesAnUnusablePort)
{
    const std::string stored = R"({"Port":80})";
    ts::write_file(WEB_PORT_FILE, stored);
    for (const char *value : {"0", "65536", "-1", "1e12", "\"8081\""}) {
        int port = 80;
        EXPECT_EQ(ts::fail("Failed to set params"), set_port(value, &port).reply) << value;
        EXPECT_EQ(80, port);
        EXPECT_EQ(stored, ts::read_file(WEB_PORT_FILE)) << value;
    }
}

TEST_F(SettingsActions, PortSetHandsOverNothingWhenTheFileCannotBeWritten)
{
    ts::remove_tree(kParamDir);
    int port = 80;
    EXPECT_EQ(ts::fail("Failed to set params"), set_port("8081", &port).reply);
    EXPECT_EQ(80, port);
}

TEST_F(SettingsActions, PortStatusTellsAListeningPortFromOneNetstatDoesNotList)
{
    auto status = [](int port) {
        std::string body = "{\"Port\":" + std::to_string(port) + "}";
        return ts::call(actionGetPortStatus, body.c_str()).reply;
    };
    UniqueFd listener(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    socklen_t len = sizeof addr;
    ASSERT_EQ(0, bind(listener.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr));
    ASSERT_EQ(0, listen(listener.get(), 1));
    ASSERT_EQ(0, getsockname(listener.get(), reinterpret_cast<sockaddr *>(&addr), &len));
    EXPECT_EQ(ts::fail("http port in use"), status(ntohs(addr.sin_port)));
    std::string listed;
    ts::run({"/bin/sh", "-c", "netstat -tuln"}, &listed);
    int unlisted = 20000;
    while (listed.find(std::to_string(unlisted)) != std::string::npos)
        ++unlisted;
    EXPECT_EQ(ts::ok("Port available"), status(unlisted));
    // Unusable ports are refused before netstat, whose every line would hold a "0".
    for (int port : {0, 65536})
        EXPECT_EQ(ts::fail("Failed to get params"), status(port)) << port;
}

// The process entry starts on the stored port: read, and created when missing, as the get
// action does; a file without a usable port gives none.
TEST_F(SettingsActions, StoredPortIsThePortTheGetActionReports)
{
    const std::pair<const char *, int> cases[] = {
        {nullptr, 80}, {R"({"Port":8080})", 8080}, {R"({"Port":"8080"})", kUntouched}, {"{", kUntouched}};
    for (const auto &[stored, expected] : cases) {
        const std::string name = stored ? stored : "(missing)";
        ts::remove_tree(WEB_PORT_FILE);
        if (stored)
            ts::write_file(WEB_PORT_FILE, stored);
        int port = kUntouched;
        EXPECT_EQ(expected == kUntouched ? -1 : 0, web_stored_port(&port)) << name;
        EXPECT_EQ(expected, port) << name;
        EXPECT_EQ(stored ? stored : "{\n\t\"Port\":\t80\n}", ts::read_file(WEB_PORT_FILE)) << name;
    }
}

// Every action that rewrites a settings file leaves its mode as the installer set it: the
// account file of a device is 0600, for it holds the password digests.
TEST_F(SettingsActions, RewritingActionsKeepAPrivateFilePrivate)
{
    const std::string account_body = std::string(R"({"operation":0,"user_name":"op","password":")") +
                                     ts::kAdminDigest + "\"}";
    const struct {
        const char *file;
        std::string before;
        std::function<ts::Outcome()> action;
    } cases[] = {
        {WEB_PORT_FILE, R"({"Port":80})",
         [] {
             int port = 80;
             return ts::call([&](char **out) { return actionSetPortParam(R"({"Port":8081})", out, &port); });
         }},
        {WEB_PORT_FILE, "",  // an empty port file is rewritten with the default by the get
         [] {
             int port = 80;
             return ts::call([&](char **out) { return actionGetPortParam(nullptr, out, &port); });
         }},
        {WEB_LANGUAGE_FILE, language_record("chinese", 0),
         [] { return ts::call(actionSetLanguageFormat, R"({"language":"english","mode":1})"); }},
        {USERMGNT_PARA_FILE, "", [&] { return ts::call(actionSetUserParam, account_body.c_str()); }},
    };
    mode_t saved = umask(0);
    for (const auto &c : cases) {
        ts::write_file(c.file, c.before, 0600);
        if (c.file == std::string(USERMGNT_PARA_FILE)) {  // the store's own default, then an added account
            ASSERT_EQ(0, ts::call(actionGetUserParam, nullptr).rc);
        }
        std::string before = ts::read_file(c.file);
        ts::Outcome o = c.action();
        EXPECT_EQ(0, o.rc) << c.file << o.err;
        EXPECT_NE(before, ts::read_file(c.file)) << c.file;
        struct stat st {};
        ASSERT_EQ(0, stat(c.file, &st));
        EXPECT_EQ(0600u, st.st_mode & 07777) << c.file;
    }
    umask(saved);
}

// A body for 2023-12-31 23:59:58 with members replaced.
std::string clock_body(const std::map<std::string, int> &changes)
{
    std::map<std::string, int> t = {{"tm_sec", 58}, {"tm_min", 59},   {"tm_hour", 23}, {"tm_mday", 31},
                                    {"tm_mon", 11}, {"tm_year", 123}, {"tm_wday", 0}};
    for (const auto &[name, value] : changes)
        t[name] = value;
    std::string body;
    for (const auto &[name, value] : t)
        body += (body.empty() ? "{\"" : ",\"") + name + "\":" + std::to_string(value);
    return body + "}";
}

// A value inside its range is refused only by the clock, which the test may not set.
TEST_F(SettingsActions, ClockChecksEachFieldAtBothEndsOfItsRange)
{
    const std::tuple<const char *, int, int, const char *> ranges[] = {
        {"tm_sec", 0, 59, "Invalid params ! <sec>\n"},  {"tm_min", 0, 59, "Invalid params! <min>\n"},
        {"tm_hour", 0, 23, "Invalid params! <hour>\n"}, {"tm_mday", 1, 31, "Invalid params! <mday>\n"},
        {"tm_mon", 0, 11, "Invalid params! <mon>\n"},   {"tm_wday", 0, 6, "Invalid params! <wday>\n"},
    };
    for (const auto &[member, min, max, line] : ranges)
        for (int value : {min - 1, min, max, max + 1}) {
            ts::Outcome set = ts::call(actionsetDeviceLocalTime, clock_body({{member, value}}).c_str());
            bool inside = value == min || value == max;
            EXPECT_EQ(inside ? ts::fail("set rtc fail") : ts::fail("Invalid input params"), set.reply)
                << member << value;
            EXPECT_EQ(!inside, ts::has_error(set.err, line, "getRtcParamFromJSON")) << set.err;
        }
}

// Years outside 1971..2069 are refused with the values as sent, before the clock is tried.
TEST_F(SettingsActions, ClockChecksTheYearBeforeTheClock)
{
    for (auto [year, rc] : {std::pair{70, -2}, {170, -2}, {71, -1}, {169, -1}}) {
        ts::Outcome set = ts::call(actionsetDeviceLocalTime, clock_body({{"tm_year", year}}).c_str());
        EXPECT_EQ(rc, set.rc) << year;
        EXPECT_EQ(ts::fail("set rtc fail"), set.reply);
        EXPECT_EQ(rc == -2, ts::has_error(set.err, "parma is invailed:\n", "http_Set_LocalTime")) << set.err;
        EXPECT_TRUE(rc == -1 || set.out == "sec=58,min=59,hour=23\nday=31,mon=11,year=" + std::to_string(year) +
                                               ";tm_wday=0\n") << set.out;
    }
}

TEST_F(SettingsActions, ClockLeavesTheDayOfTheMonthToTheClock)
{
    ts::Outcome set = ts::call(actionsetDeviceLocalTime, clock_body({{"tm_mon", 1}, {"tm_mday", 30}}).c_str());
    EXPECT_EQ(ts::fail("set rtc fail"), set.reply) << "February 30 passes the checks";
}

// In a zone that keeps summer time all year, a conversion that ignored the zone's rules
// would be an hour off.
class SummerTimeAllYear : public SettingsActions {
protected:
    void SetUp() override
    {
        SettingsActions::SetUp();
        const char *saved = getenv("TZ");
        old_ = saved ? std::optional<std::string>(saved) : std::nullopt;
        setenv("TZ", "XST-1XDT,0/0,J365/25", 1);
        tzset();
    }
    void TearDown() override
    {
        old_ ? setenv("TZ", old_->c_str(), 1) : unsetenv("TZ");
        tzset();
    }

private:
    std::optional<std::string> old_;
};

TEST_F(SummerTimeAllYear, ClockAcceptsTheCurrentLocalTimeWithoutSettingIt)
{
    time_t now = time(nullptr);
    struct tm t {};
    localtime_r(&now, &t);
    ASSERT_EQ(1, t.tm_isdst);
    ts::Outcome set = ts::call(actionsetDeviceLocalTime,
                               clock_body({{"tm_sec", t.tm_sec}, {"tm_min", t.tm_min}, {"tm_hour", t.tm_hour},
                                           {"tm_mday", t.tm_mday}, {"tm_mon", t.tm_mon}, {"tm_year", t.tm_year},
                                           {"tm_wday", t.tm_wday}})
                                   .c_str());
    EXPECT_EQ(ts::ok(kSet), set.reply) << set.err;
}

TEST_F(SummerTimeAllYear, ClockShowsTheLocalTimeInNineteenCharacters)
{
    auto reply_now = [] {
        time_t now = time(nullptr);
        char shown[32];
        strftime(shown, sizeof shown, "%Y/%m/%d_%H:%M:%S", localtime(&now));
        return ts::params(kGot, "{\n\t\"local_time\":\t\"" + std::string(shown) + "\"\n}");
    };
    std::string before = reply_now(), got = ts::call(actiongetDeviceLocalTime, nullptr).reply, after = reply_now();
    EXPECT_TRUE(got == before || got == after) << got;
}

TEST_F(SettingsActions, CapabilityFileIsAnsweredExactlyAsStoredOrRefusedUnlessItIsOneJsonValue)
{
    auto get_cap = [](const char *path) {
        return ts::call([&](char **out) { return actionGetDeviceCap(path, nullptr, out); });
    };
    for (const std::string &stored : {"{ \"Audio\" :1,\n  \"Channels\": [ 1, 2 ]  }\n"s, "[]"s, "7"s}) {
        ts::write_file(kCapFile, stored);
        EXPECT_EQ(ts::params(kGot, stored), get_cap(kCapFile.c_str()).reply);
    }
    // Cut short, two values, not JSON at all, a NUL byte hiding the rest, empty.
    for (const std::string &stored : {"{\"Audio\":"s, "{} {}"s, "Audio=1"s, "{}\0{\"x\""s, ""s}) {
        ts::write_file(kCapFile, stored);
        EXPECT_EQ(ts::fail("Failed to get params"), get_cap(kCapFile.c_str()).reply) << stored;
    }
    ts::remove_tree(kCapFile);
    EXPECT_EQ(ts::fail("Failed to get params"), get_cap(kCapFile.c_str()).reply);
    // A routing line without a file gives an empty path: a path that yields no file, not a bad call.
    ts::Outcome empty = get_cap("");
    EXPECT_EQ(ts::fail("Failed to get params"), empty.reply);
    EXPECT_EQ(-1, empty.rc);
    EXPECT_NE(std::string::npos, empty.out.find("open  failed use default para\n")) << empty.out;
    EXPECT_EQ(ts::fail("Invalid input params"), get_cap(nullptr).reply);
}

} // namespace
