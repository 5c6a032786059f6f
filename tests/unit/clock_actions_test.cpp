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
    const std::pair<const char *, int> base[] = {{"tm_sec", 58}, {"tm_min", 59},   {"tm_hour", 23}, {"tm_mday", 31},
                                                 {"tm_mon", 11}, {"tm_year", 123}, {"tm_wday", 0}};
    std::string body;
    for (const auto &[name, v] : base) {
        auto change = changes.find(name);
        std::string text = change != changes.end() ? change->second : std::to_string(v);
        if (!text.empty())
            body += (body.empty() ? "{\"" : ",\"") + std::string(name) + "\":" + text;
    }
    return body + "}";
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
        {"tm_sec", 0, 59, "Invalid params ! <sec>\n"},  {"tm_min", 0, 59, "Invalid params! <min>\n"},
        {"tm_hour", 0, 23, "Invalid params! <hour>\n"}, {"tm_mday", 1, 31, "Invalid params! <mday>\n"},
        {"tm_mon", 0, 11, "Invalid params! <mon>\n"},   {"tm_wday", 0, 6, "Invalid params! <wday>\n"},
    };
    for (const auto &r : ranges) {
        for (int inside : {r.min, r.max}) {
            struct tm t {};
            ts::Capture err(2);
            EXPECT_EQ(0, getRtcParamFromJSON(body_with({{r.member, std::to_string(inside)}}).c_str(), &t));
        }
        for (int outside : {r.min - 1, r.max + 1}) {
            ts::HandlerRun set = set_time(body_with({{r.member, std::to_string(outside)}}));
            EXPECT_EQ(-1, set.rc) << r.member << " " << outside;
            EXPECT_EQ(ts::fail_reply("Invalid input params"), set.reply);
            EXPECT_NE(std::string::npos, set.err.find(ts::error_line("getRtcParamFromJSON", r.line))) << set.err;
        }
    }
    ts::HandlerRun missing = set_time(body_with({{"tm_wday", ""}}));
    EXPECT_EQ(ts::fail_reply("Invalid input params"), missing.reply);
    EXPECT_NE(std::string::npos, missing.err.find("tm_wday is empty or error value type : -1\n"));
}

TEST(ClockActions, YearOutside1971To2069IsRefusedWithTheValuesAsSent)
{
    for (int year : {70, 170}) {
        ts::HandlerRun set = set_time(body_with({{"tm_year", std::to_string(year)}}));
        EXPECT_EQ(-2, set.rc);
        EXPECT_EQ(ts::fail_reply("set rtc fail"), set.reply);
        EXPECT_EQ("sec=58,min=59,hour=23\nday=31,mon=11,year=" + std::to_string(year) + ";tm_wday=0\n", set.out);
        size_t first = set.err.find(ts::error_line("http_Set_LocalTime", "parma is invailed:\n"));
        EXPECT_NE(std::string::npos, first) << set.err;
        EXPECT_LT(first, set.err.find(ts::error_line("http_Set_LocalTime", "set rtc fail! return : -2\n")));
    }
}

// The test namespace may not set the clock: bodies that pass every check fail at that step.
TEST(ClockActions, CheckedTimesReachTheClockWhichTheTestMayNotSet)
{
    for (const std::string &body : {body_with({{"tm_year", "71"}}), body_with({{"tm_year", "169"}}),
                                    body_with({{"tm_mon", "1"}, {"tm_mday", "30"}})}) {
        ts::HandlerRun set = set_time(body);
        EXPECT_EQ(-1, set.rc) << body;
        EXPECT_EQ(ts::fail_reply("set rtc fail"), set.reply);
        EXPECT_NE(std::string::npos, set.err.find(ts::error_line("http_Set_LocalTime", "set rtc fail! return : -1\n")));
        EXPECT_EQ(std::string::npos, set.err.find("parma is invailed")) << body;
    }
}

// In a zone that keeps summer time all year, a conversion that ignored the zone's rules
// would be an hour off and try to set the clock.
TEST(ClockActions, TheCurrentLocalTimeIsAcceptedWithoutSettingTheClock)
{
    const char *saved = getenv("TZ");
    std::string old = saved ? saved : "";
    setenv("TZ", "XST-1XDT,0/0,J365/25", 1);
    tzset();
    time_t now = time(nullptr);
    struct tm t {};
    localtime_r(&now, &t);
    char body[256];
    snprintf(body, sizeof body,
             R"({"tm_sec":%d,"tm_min":%d,"tm_hour":%d,"tm_mday":%d,"tm_mon":%d,"tm_year":%d,"tm_wday":%d})",
             t.tm_sec, t.tm_min, t.tm_hour, t.tm_mday, t.tm_mon, t.tm_year, t.tm_wday);
    ts::HandlerRun set = set_time(body);
    saved ? setenv("TZ", old.c_str(), 1) : unsetenv("TZ");
    tzset();
    EXPECT_EQ(1, t.tm_isdst);
    EXPECT_EQ(0, set.rc) << set.err;
    EXPECT_EQ(ts::ok_reply("Successfully to set params"), set.reply);
    EXPECT_EQ("", set.err);
}

TEST(ClockActions, GetAnswersTheLocalTimeAsNineteenCharacters)
{
    auto local_text = [] {
        time_t now = time(nullptr);
        struct tm t {};
        localtime_r(&now, &t);
        char text[32];
        strftime(text, sizeof text, "%Y/%m/%d_%H:%M:%S", &t);
        return std::string(text);
    };
    std::string before = local_text();
    ts::HandlerRun get = ts::call_handler([](char **out) { return actiongetDeviceLocalTime(nullptr, out); });
    std::string after = local_text();
    EXPECT_EQ(0, get.rc);
    EXPECT_EQ(19u, before.size());
    auto reply_for = [](const std::string &shown) {
        return ts::params_reply("Successfully to get params", "{\n\t\"local_time\":\t\"" + shown + "\"\n}");
    };
    EXPECT_TRUE(get.reply == reply_for(before) || get.reply == reply_for(after)) << get.reply;
}

} // namespace
