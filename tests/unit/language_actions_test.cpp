#include "actions/language_actions.h"
#include "actions/language_format.h"
#include "settings_support.h"
#include "testsupport.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>

namespace {

// The record as stored; language may fill its field whole, without a terminator.
std::string record(const std::string &language, int32_t mode)
{
    LanguageFormat lang{};
    memcpy(lang.language, language.data(), std::min(language.size(), sizeof lang.language));
    lang.mode = mode;
    memcpy(lang.index_page, "login.html", 10);
    return std::string(reinterpret_cast<const char *>(&lang), sizeof lang);
}

ts::HandlerRun set_language(const char *body)
{
    return ts::call_handler([&](char **out) { return actionSetLanguageFormat(body, out); });
}

ts::HandlerRun get_language()
{
    return ts::call_handler([](char **out) { return actionGetLanguageFormat(nullptr, out); });
}

std::string params(const std::string &language, int mode)
{
    return ts::params_reply("Successfully to get params", "{\n\t\"language\":\t\"" + language +
                                                              "\",\n\t\"mode\":\t" + std::to_string(mode) + "\n}");
}

class LanguageActions : public ::testing::Test {
protected:
    void SetUp() override
    {
        ts::reset_device_tree();
        ts::make_dirs("/mnt/app/web_root/config");
    }
};

TEST_F(LanguageActions, SetStoresTheWholeRecordAndGetReturnsLanguageAndMode)
{
    for (int mode : {1, -7}) {
        std::string body = R"({"language":"english","mode":)" + std::to_string(mode) + "}";
        ts::HandlerRun set = set_language(body.c_str());
        EXPECT_EQ(0, set.rc);
        EXPECT_EQ(ts::ok_reply("Successfully to set params"), set.reply);
        EXPECT_EQ(record("english", mode), ts::read_file(WEB_LANGUAGE_FILE));
        EXPECT_EQ(params("english", mode), get_language().reply);
    }
    ts::write_file(WEB_LANGUAGE_FILE, record(std::string(128, 'x'), 2));
    EXPECT_EQ(params(std::string(128, 'x'), 2), get_language().reply);
}

TEST_F(LanguageActions, RefusedBodiesLeaveTheFileUntouched)
{
    const struct {
        const char *body;
        const char *line;
    } cases[] = {
        {R"({"language":"English","mode":1})", "Invalid params!\n"},
        {R"({"language":"chinese"})", "mode is empty or error value type : -1\n"},
        {R"({"language":"chinese","mode":"1"})", "mode is empty or error value type : 16\n"},
        {R"({"language":"chinese",)", "json pack into cjson error...\n"},
    };
    const std::string stored = record("chinese", 3);
    ts::write_file(WEB_LANGUAGE_FILE, stored);
    for (const auto &c : cases) {
        ts::HandlerRun set = set_language(c.body);
        EXPECT_EQ(-1, set.rc) << c.body;
        EXPECT_EQ(ts::fail_reply("set language params fail"), set.reply);
        EXPECT_NE(std::string::npos, set.err.find(ts::error_line("getLanguageFormatFromJSON", c.line))) << set.err;
        EXPECT_EQ(stored, ts::read_file(WEB_LANGUAGE_FILE));
    }
}

TEST_F(LanguageActions, UnreadableOrUnwritableFileAnswersFailAndIsNotRecreated)
{
    ts::HandlerRun missing = get_language();
    EXPECT_EQ(-1, missing.rc);
    EXPECT_EQ(ts::fail_reply("get language params fail"), missing.reply);
    EXPECT_NE(std::string::npos,
              missing.err.find(ts::error_line("actionGetLanguageFormat", "GetLanguage Format Fail! return : -1\n")));
    EXPECT_FALSE(ts::exists(WEB_LANGUAGE_FILE));

    ts::write_file(WEB_LANGUAGE_FILE, record("english", 1).substr(0, 259));
    EXPECT_EQ(ts::fail_reply("get language params fail"), get_language().reply);
    EXPECT_EQ(259, ts::file_size(WEB_LANGUAGE_FILE));

    ts::remove_tree("/mnt/app/web_root/config");
    ts::HandlerRun unwritable = set_language(R"({"language":"english","mode":1})");
    EXPECT_EQ(ts::fail_reply("set language params fail"), unwritable.reply);
    EXPECT_NE(std::string::npos, unwritable.err.find("Set Language Format Fail!\n"));
}

} // namespace
