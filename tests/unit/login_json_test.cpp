#include "c2json/login_json.h"
#include "common/owners.h"
#include "json2c/json_fields.h"
#include "json2c/login_json.h"
#include "testsupport.h"

#include <gtest/gtest.h>

namespace {

TEST(LoginJson, LoginBodyYieldsCredentialsAndATimeoutOfAtLeastOne)
{
    const std::pair<const char *, int> timeouts[] = {{"600", 600}, {"true", 1}, {"0", 1800}, {"-5", 1800}};
    for (const auto &[value, expected] : timeouts) {
        std::string body =
            R"({"username":")" + std::string(70, 'n') + R"(","password":"p\"w","timeout":)" + value + "}";
        LoginParam login{};
        int timeout = -7;
        ASSERT_EQ(0, getLoginParamFromJSON(body.c_str(), &login, &timeout)) << body;
        EXPECT_EQ(std::string(63, 'n'), login.username);
        EXPECT_STREQ("p\"w", login.password);
        EXPECT_EQ(expected, timeout) << value;
    }
    int valid = -7;
    EXPECT_EQ(0, getLoginParamFromJSON_msg(R"({"Parameters":{"PassValidation":true},"Result":"OK"})", &valid));
    EXPECT_EQ(1, valid);
    EXPECT_EQ(0, getLoginParamFromJSON_msg(R"({"Result":"OK","Parameters":{"PassValidation":0}})", &valid));
    EXPECT_EQ(0, valid);
    char id[8];
    EXPECT_EQ(0, getSessionidParamFromJSON(R"({"sessionid":"0123456789"})", id, sizeof id));
    EXPECT_STREQ("0123456", id);
}

TEST(LoginJson, UnusableTextsAreRefusedWithTheirCodesAndLines)
{
    enum Parser { Login, Answer, Logout };
    const struct {
        Parser parser;
        const char *text;
        int code;
        const char *line;
    } cases[] = {
        {Login, nullptr, -2, "Invalid params\n"},
        {Login, "{\"username\":", -15, "json pack into cjson error...\n"},
        {Login, R"({"password":"x","timeout":9})", -2, "username is empty or error value type : -1\n"},
        {Login, R"({"username":"","password":"x","timeout":9})", -2, "username is empty or error value type : 16\n"},
        {Login, R"({"username":"a","password":5,"timeout":9})", -2, "password is empty or error value type : 8\n"},
        {Login, R"({"username":"a","password":"x"})", -2, "timeout is empty or error value type : -1\n"},
        {Login, R"({"username":"a","password":"x","timeout":"6"})", -2, "timeout is empty or error value type : 16\n"},
        {Answer, nullptr, -2, "Invalid params\n"},
        {Answer, "OK", -15, "json pack into cjson error...\n"},
        {Answer, R"({"Result":"Fail","Parameters":{}})", -2, " Result is empty or error value type \n"},
        {Answer, R"({"Result":1})", -2, " Result is empty or error value type \n"},
        {Answer, R"({"Result":"OK"})", -2, " object is empty or error value type \n"},
        {Answer, R"({"Result":"OK","Parameters":[1]})", -2, " object is empty or error value type \n"},
        {Answer, R"({"Result":"OK","Parameters":{}})", -2, "PassValidation is empty or error value type : -1\n"},
        {Answer, R"({"Result":"OK","Parameters":{"PassValidation":"1"}})", -2,
         "PassValidation is empty or error value type : 16\n"},
        {Logout, nullptr, -2, "Invalid params\n"},
        {Logout, "sessionid", -15, "json pack into cjson error...\n"},
        {Logout, R"({"session":"x"})", -2, "sessionid is empty or error value type : -1\n"},
        {Logout, R"({"sessionid":5})", -2, "sessionid is empty or error value type : 8\n"},
    };
    for (const auto &c : cases) {
        LoginParam login{};
        int number = 0;
        char id[128];
        ts::Capture err(2);
        int code = c.parser == Login    ? getLoginParamFromJSON(c.text, &login, &number)
                   : c.parser == Answer ? getLoginParamFromJSON_msg(c.text, &number)
                                        : getSessionidParamFromJSON(c.text, id, sizeof id);
        std::string text = err.text();
        EXPECT_EQ(c.code, code) << (c.text ? c.text : "<null>");
        EXPECT_TRUE(ts::has_error(text, c.line)) << (c.text ? c.text : "<null>") << "\n" << text;
    }
}

TEST(LoginJson, VerificationPayloadIsPrintedByteForByte)
{
    LoginParam login{};
    copy_field(login.username, sizeof login.username, "admin");
    copy_field(login.password, sizeof login.password, "pa\"ss");
    char *out = nullptr;
    ASSERT_EQ(0, formatLoginMsgParamJSON(&out, &login));
    HeapText text(out);
    EXPECT_STREQ("{\n\t\"UserName\":\t\"admin\",\n\t\"Password\":\t\"pa\\\"ss\",\n\t\"MD5Password\":\t1\n}", out);
    ts::Capture err(2);
    EXPECT_EQ(-2, formatLoginMsgParamJSON(&out, nullptr));
    EXPECT_TRUE(ts::has_error(err.text(), "Invalid input params!\n"));
}

} // namespace
