#include "actions/reply_text.h"
#include "common/owners.h"
#include "testsupport.h"

#include <cjson/cJSON.h>
#include <cstring>
#include <gtest/gtest.h>

namespace {

std::string take(char *text)
{
    HeapText owner(text);
    return text ? std::string(text) : std::string("<null>");
}

// What cJSON's formatted printer makes of the envelope built member by member.
std::string cjson_print(const char *result, const char *reason, const char *raw_params)
{
    CJsonPtr obj(cJSON_CreateObject());
    cJSON_AddStringToObject(obj.get(), "Result", result);
    cJSON_AddStringToObject(obj.get(), "Reason", reason);
    if (raw_params)
        cJSON_AddRawToObject(obj.get(), "Parameters", raw_params);
    return take(cJSON_Print(obj.get()));
}

char *dup(const char *s) { return strdup(s); }

TEST(ReplyText, TextFormsMatchTheFormattedPrinter)
{
    char *out = nullptr;
    formatFailCallJSON(&out, "Invalid input params");
    EXPECT_EQ("{\n\t\"Result\":\t\"Fail\",\n\t\"Reason\":\t\"Invalid input params\"\n}", take(out));
    formatSuccessCallJSON(&out, "");
    EXPECT_EQ(cjson_print("OK", "", nullptr), take(out));
    formatFailCallJSON(&out, "quote \" back\\slash \t tab \x01 ctl é");
    EXPECT_EQ(cjson_print("Fail", "quote \" back\\slash \t tab \x01 ctl é", nullptr), take(out));
}

TEST(ReplyText, PayloadIsInsertedRawExactlyWhereThePrinterPutsIt)
{
    for (const char *payload : {"{\n\t\"language\":\t\"english\",\n\t\"mode\":\t1\n}", "[]", "{}", "0",
                                "[{\"a\":1},  {\"b\" : [1,2]}]", "\"text\"", "not json at all"}) {
        char *out = nullptr;
        formatParamsJSON(&out, "Successfully to get params", dup(payload));
        EXPECT_EQ(cjson_print("OK", "Successfully to get params", payload), take(out)) << payload;
    }
}

TEST(ReplyText, LargePayloadSurvivesWhole)
{
    std::string big = "[" + std::string(3'000'000, ' ') + "]";
    char *out = nullptr;
    formatParamsJSON(&out, "r", dup(big.c_str()));
    std::string text = take(out);
    EXPECT_EQ("{\n\t\"Result\":\t\"OK\",\n\t\"Reason\":\t\"r\",\n\t\"Parameters\":\t" + big + "\n}", text);
}

TEST(ReplyText, MissingPayloadGivesNoText)
{
    char *out = dup("stale");
    free(out);
    formatParamsJSON(&out, "r", nullptr);
    EXPECT_EQ(nullptr, out);
}

} // namespace
