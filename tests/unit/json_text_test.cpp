// Request bodies read through field descriptions, and reply texts as cJSON's formatted
// printer prints them.
#include "actions/reply_text.h"
#include "common/owners.h"
#include "json2c/json_fields.h"
#include "testsupport.h"

#include <cstring>
#include <gtest/gtest.h>

namespace {

struct Parsed {
    int port = -7;
    char name[8] = "";
    char lang[16] = "";
    int sec = -7;
};

int parse(const char *text, Parsed *p, std::string *err)
{
    static const char *const kLanguages[] = {"chinese", "english", nullptr};
    const JsonField fields[] = {
        json_text_one_of("language", p->lang, sizeof p->lang, kLanguages, "Invalid params!\n"),
        json_int("Port", &p->port),
        json_text("name", p->name, sizeof p->name, false),
        json_int_in("tm_sec", &p->sec, 0, 59, "Invalid params ! <sec>\n"),
    };
    ts::Capture capture(2);
    CJsonPtr tree;
    int rc = json_parse_text(text, &tree, LOG_HERE);
    if (rc == 0)
        rc = json_read_fields(tree.get(), fields, LOG_HERE);
    *err = capture.text();
    return rc;
}

std::string take(char *text)
{
    HeapText owner(text);
    return text ? text : "<null>";
}

TEST(JsonFields, ValidBodyFillsEveryFieldWithinItsSize)
{
    Parsed p;
    std::string err;
    EXPECT_EQ(0, parse(R"({"language":"english","Port":true,"name":"abcdefghij","tm_sec":59.9})", &p, &err));
    EXPECT_EQ("", err);
    EXPECT_STREQ("english", p.lang);
    EXPECT_EQ(1, p.port);
    EXPECT_STREQ("abcdefg", p.name);
    EXPECT_EQ(59, p.sec);
}

TEST(JsonFields, FirstFailingFieldNamesItselfWithItsTypeCodeInTheCallersName)
{
    const struct {
        const char *body;
        int rc;
        const char *line;
    } cases[] = {
        {"not json", -15, "json pack into cjson error...\n"},
        {R"({"Port":1})", -2, "language is empty or error value type : -1\n"},
        {R"({"Language":"chinese","Port":1})", -2, "language is empty or error value type : -1\n"},
        {R"({"language":"English","Port":"80"})", -2, "Invalid params!\n"},
        {R"({"language":"","Port":1})", -2, "Invalid params!\n"},
        {R"({"language":"chinese","Port":"80"})", -2, "Port is empty or error value type : 16\n"},
        {R"({"language":"chinese","Port":false})", -2, "Port is empty or error value type : 1\n"},
        {R"({"language":"chinese","Port":null,"name":""})", -2, "Port is empty or error value type : 4\n"},
        {R"({"language":"chinese","Port":1,"name":""})", -2, "name is empty or error value type : 16\n"},
        {R"({"language":"chinese","Port":1,"name":["x"]})", -2, "name is empty or error value type : 32\n"},
        {R"({"language":"chinese","Port":1,"name":"x","tm_sec":60})", -2, "Invalid params ! <sec>\n"},
        {R"({"language":"chinese","Port":1,"name":"x","tm_sec":-1})", -2, "Invalid params ! <sec>\n"},
        {R"({"language":"chinese","Port":1,"name":"x","tm_sec":{}})", -2, "tm_sec is empty or error value type : 64\n"},
    };
    for (const auto &c : cases) {
        Parsed p;
        std::string err;
        EXPECT_EQ(c.rc, parse(c.body, &p, &err)) << c.body;
        EXPECT_TRUE(ts::has_error(err, c.line, "parse")) << c.body << "\n" << err;
    }
}

TEST(ReplyText, FormsAreTheFormattedPrintWithThePayloadInsertedRaw)
{
    char *out = nullptr;
    formatFailCallJSON(&out, "Invalid input params");
    EXPECT_EQ("{\n\t\"Result\":\t\"Fail\",\n\t\"Reason\":\t\"Invalid input params\"\n}", take(out));
    formatSuccessCallJSON(&out, "");
    EXPECT_EQ(ts::ok(""), take(out));
    const char *odd = "quote \" back\\slash \t tab \x01 ctl é";
    formatFailCallJSON(&out, odd);
    EXPECT_EQ(ts::fail(odd), take(out));
    const std::string big = "[" + std::string(3'000'000, ' ') + "]";
    for (const std::string &payload : {std::string("{\n\t\"language\":\t\"english\",\n\t\"mode\":\t1\n}"),
                                       std::string("[{\"a\":1},  {\"b\" : [1,2]}]"), std::string("0"),
                                       std::string("not json at all"), big}) {
        formatParamsJSON(&out, "Successfully to get params", strdup(payload.c_str()));
        EXPECT_EQ(ts::params("Successfully to get params", payload), take(out)) << payload.substr(0, 40);
    }
    formatParamsJSON(&out, "r", nullptr);
    EXPECT_EQ(nullptr, out);
}

} // namespace
