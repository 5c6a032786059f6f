#include "actions/clock_actions.h"
#include "json2c/clock_json.h"
#include "settings_support.h"
#include "testsupport.h"

#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <map>

namespace {

// A body for 2023-12-31 23:59:58 with members replaced (or left out with the value "").
std::string body_with(const std::map<std::string, std::string> &changes)
{
    const std::pair<const char *, int> base[] = {{"tm_sec", 58}, {"tm_min", 59},  {"tm_hour", 23}, {"tm_mday", 31},
                                                 {"tm_mon", 11}, {"tm_year", 123}, {"tm_wday", 0}};
    std::string body = "{";
    for (const auto &[name, v] : base) {
        auto change = changes.find(name);
        std::string text = change != changes.end() ? change->second : std::to_string(v);
        if (!text.empty())
            body += std::string(body.size() > 1 ? "," : "") + "\"" + name + "\":" + text;
    }
    return body + "}";
}

std::string body_with(const std::string &member, const std::string &value) { return body_with({{member, value}}); }

std::string body_of(const struct tm &t)
{
    char text[256];
    snprintf(text, sizeof text,
             R"({"tm_sec":%d,"tm_min":%d,"tm_hour":%d,"tm_mday":%d,"tm_mon":%d,"tm_year":%d,"tm_wday":%d})",
             t.tm_sec, t.tm_min, t.tm_hour, t.tm_mday, t.tm_mon, t.tm_year, t.tm_wday);
    return text;
}

ts::HandlerRun set_time(const std::string &body)
{
    return ts::call_handler([&](char **out) { return actionsetDeviceLocalTime(body.c_str(), out); });
}

TEST(ClockActions, EachFieldIsCheckedAtBothEndsOfItsRangeWithItsOwnMessage)
{
    const struct {
        const char *member;
        int min, max;
        const char *line;
    } ranges[] = {
        {"tm_sec", 0, 59, "Invalid params ! <sec>\n"},   {"tm_min", 0, 59, "Invalid params! <min>\n"},
        {"tm_hour", 0, 23, "Invalid params! <hour>\n"},  {"tm_mday", 1, 31, "Invalid params! <mday>\n"},
        {"tm_mon", 0, 11, "Invalid params! <mon>\n"},    {"tm_wday", 0, 6, "Invalid params! <wday>\n"},
    };
    for (const auto &r : ranges) {
        for (int inside : {r.min, r.max}) {
            struct tm t {};
            std::string body = body_with(r.member, std::to_string(inside));
            ts::Capture err(2);
            EXPECT_EQ(0, getRtcParamFromJSON(body.c_str(), &t)) << body;
        }
        for (int outside : {r.min - 1, r.max + 1}) {
            ts::HandlerRun set = set_time(body_with(r.member, std::to_string(outside)));
            EXPECT_EQ(-1, set.rc) << r.member << " " << outside;
            EXPECT_EQ(ts::fail_reply("Invalid input params"), set.reply);
            EXPECT_NE(std::string::npos, set.err.find(ts::error_line("getRtcParamFromJSON", r.line))) << set.err;
        }
    }
    ts::HandlerRun missing = set_time(body_with("tm_wday", ""));
    EXPECT_EQ(ts::fail_reply("Invalid input params"), missing.reply);
    EXPECT_NE(std::string::npos, missing.err.find("tm_wday is empty or error value type : -1\n"));
    ts::HandlerRun text = set_time(body_with("tm_min", "\"5\""));
    EXPECT_NE(std::string::npos, text.err.find("tm_min is empty or error value type : 16\n"));
}

TEST(ClockActions, YearOutside1971To2069IsRefusedWithTheValuesAsSent)
{
    for (int year : {70, 170}) {
        ts::HandlerRun set = set_time(body_with("tm_year", std::to_string(year)));
        EXPECT_EQ(-2, set.rc);
        EXPECT_EQ(ts::fail_reply("set rtc fail"), set.reply);
        EXPECT_EQ("sec=58,min=59,hour=23\nday=31,mon=11,year=" + std::to_string(year) + ";tm_wday=0\n", set.out);
        size_t first = set.err.find(ts::error_line("http_Set_LocalTime", "parma is invailed:\n"));
        EXPECT_NE(std::string::npos, first) << set.err;
        EXPECT_LT(first, set.err.find(ts::error_line("http_Set_LocalTime", "set rtc fail! return : -2\n")));
    }
}

// The test namespace may not set the clock, so a time that needs setting fails there:
// these bodies pass every check and reach the setting step.
TEST(ClockActions, CheckedTimesReachTheClockWhichTheTestMayNotSet)
{
    for (const std::string &body : {body_with("tm_year", "71"), body_with("tm_year", "169"),
                                    body_with({{"tm_mon", "1"}, {"tm_mday", "30"}})}) {
        ts::HandlerRun set = set_time(body);
        EXPECT_EQ(-1, set.rc) << body;
        EXPECT_EQ(ts::fail_reply("set rtc fail"), set.reply);
        EXPECT_NE(std::string::npos, set.err.find(ts::error_line("http_Set_LocalTime", "set rtc fail! return : -1\n")));
        EXPECT_EQ(std::string::npos, set.err.find("parma is invailed")) << body;
    }
}

// Runs with a zone in daylight-saving time now, so a conversion that ignored the zone's
// rules would be an hour off and try to set the clock.
TEST(ClockActions, TheCurrentLocalTimeIsAcceptedWithoutSettingTheClock)
{
    const char *saved = getenv("TZ");
    std::string old = saved ? saved : "";
    int zones_in_summer_time = 0;
    for (const char *zone : {"CET-1CEST,M3.5.0,M10.5.0/3", "AEST-10AEDT,M10.1.0,M4.1.0/3"}) {
        setenv("TZ", zone, 1);
        tzset();
        time_t now = time(nullptr);
        struct tm local {};
        localtime_r(&now, &local);
        if (local.tm_isdst != 1)
            continue;
        ++zones_in_summer_time;
        ts::HandlerRun set = set_time(body_of(local));
        EXPECT_EQ(0, set.rc) << zone << "\n" << set.err;
        EXPECT_EQ(ts::ok_reply("Successfully to set params"), set.reply);
        EXPECT_EQ("", set.err);
    }
    saved ? setenv("TZ", old.c_str(), 1) : unsetenv("TZ");
    tzset();
    EXPECT_LE(1, zones_in_summer_time) << "one of the two zones keeps summer time on any date";
}

TEST(ClockActions, GetAnswersTheLocalTimeAsNineteenCharacters)
{
    ts::HandlerRun get = ts::call_handler([](char **out) { return actiongetDeviceLocalTime(nullptr, out); });
    EXPECT_EQ(0, get.rc);
    const std::string key = "\"local_time\":\t\"";
    size_t at = get.reply.find(key);
    ASSERT_NE(std::string::npos, at) << get.reply;
    std::string shown_text = get.reply.substr(at + key.size(), 19);
    EXPECT_EQ(ts::params_reply("Successfully to get params", "{\n\t" + key + shown_text + "\"\n}"), get.reply);

    const std::string form = "dddd/dd/dd_dd:dd:dd";
    for (size_t i = 0; i < form.size(); ++i)
        EXPECT_TRUE(form[i] == 'd' ? isdigit(static_cast<unsigned char>(shown_text[i])) : shown_text[i] == form[i])
            << shown_text;
    struct tm shown {};
    ASSERT_NE(nullptr, strptime(shown_text.c_str(), "%Y/%m/%d_%H:%M:%S", &shown));
    shown.tm_isdst = -1;
    EXPECT_LE(std::abs(difftime(mktime(&shown), time(nullptr))), 2.0);
}

TEST(ClockActions, MalformedBodiesAreRefusedBeforeAnyCheck)
{
    struct tm t {};
    ts::Capture err(2);
    EXPECT_EQ(-15, getRtcParamFromJSON("{\"tm_sec\":", &t));
    EXPECT_EQ(-2, getRtcParamFromJSON(nullptr, &t));
    EXPECT_EQ(-2, getRtcParamFromJSON("{}", nullptr));
    std::string text = err.text();
    EXPECT_NE(std::string::npos, text.find("json pack into cjson error...\n"));
    EXPECT_NE(std::string::npos, text.find("Invalid params!\n"));
}

} // namespace
