#include "json2c/json_fields.h"
#include "testsupport.h"

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

TEST(JsonFields, ValidBodyFillsEveryField)
{
    Parsed p;
    std::string err;
    EXPECT_EQ(0, parse(R"({"language":"english","Port":true,"name":"abcdefghij","tm_sec":59.9})", &p, &err));
    EXPECT_EQ("", err);
    EXPECT_STREQ("english", p.lang);
    EXPECT_EQ(1, p.port);
    EXPECT_STREQ("abcdefg", p.name);  // cut to the field
    EXPECT_EQ(59, p.sec);
}

TEST(JsonFields, FirstFailingFieldNamesItselfWithItsTypeCode)
{
    struct Case {
        const char *body;
        int rc;
        const char *line;
    } cases[] = {
        {"not json", -15, "json pack into cjson error...\n"},
        {R"({"Port":1})", -2, "language is empty or error value type : -1\n"},
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
    for (const Case &c : cases) {
        Parsed p;
        std::string err;
        EXPECT_EQ(c.rc, parse(c.body, &p, &err)) << c.body;
        EXPECT_NE(std::string::npos, err.find(std::string(">: ") + c.line + "\033[0m")) << c.body << "\n" << err;
        EXPECT_NE(std::string::npos, err.find(", parse>: ")) << "the line names the caller";
    }
}

TEST(JsonFields, KeysAreCaseSensitive)
{
    Parsed p;
    std::string err;
    EXPECT_EQ(-2, parse(R"({"Language":"chinese"})", &p, &err));
}

} // namespace
