#include "accounts_support.h"
#include "actions/password_check.h"
#include "c2json/login_json.h"
#include "common/owners.h"
#include "json2c/json_fields.h"
#include "json2c/login_json.h"
#include "testsupport.h"

#include <functional>
#include <gtest/gtest.h>

namespace {

using accounts::has_error_line;

struct Refusal {
    const char *body;
    int code;
    const char *line;
};

// Runs each refused body through parse and expects its code and its error line.
void expect_refusals(const std::function<int(const char *)> &parse, const std::vector<Refusal> &cases)
{
    for (const Refusal &c : cases) {
        ts::Capture err(2);
        EXPECT_EQ(c.code, parse(c.body)) << (c.body ? c.body : "<null>");
        std::string text = err.text();
        EXPECT_TRUE(has_error_line(text, c.line)) << (c.body ? c.body : "<null>") << "\n" << text;
    }
}

TEST(LoginBody, CredentialsAndTimeoutAreTakenWithTheDefaultBelowOne)
{
    const std::pair<const char *, int> timeouts[] = {
        {"600", 600}, {"1", 1}, {"true", 1}, {"0", 1800}, {"-5", 1800}, {"0.5", 1800},
    };
    for (const auto &[value, expected] : timeouts) {
        std::string body = std::string(R"({"username":"admin","password":"p\"w","timeout":)") + value + "}";
        LoginParam login{};
        int timeout = -7;
        ASSERT_EQ(0, getLoginParamFromJSON(body.c_str(), &login, &timeout)) << body;
        EXPECT_STREQ("admin", login.username);
        EXPECT_STREQ("p\"w", login.password);
        EXPECT_EQ(expected, timeout) << value;
    }
    std::string body = R"({"username":")" + std::string(70, 'n') + R"(","password":"x","timeout":9})";
    LoginParam login{};
    int timeout = 0;
    ASSERT_EQ(0, getLoginParamFromJSON(body.c_str(), &login, &timeout));
    EXPECT_EQ(std::string(63, 'n'), login.username);
}

TEST(LoginBody, UnusableBodiesAreRefusedWithTheirLines)
{
    LoginParam login{};
    int timeout = 0;
    expect_refusals([&](const char *body) { return getLoginParamFromJSON(body, &login, &timeout); },
                    {
                        {nullptr, -2, "Invalid params\n"},
                        {"{\"username\":", -15, "json pack into cjson error...\n"},
                        {R"({"password":"x","timeout":9})", -2, "username is empty or error value type : -1\n"},
                        {R"({"username":"","password":"x","timeout":9})", -2,
                         "username is empty or error value type : 16\n"},
                        {R"({"username":"a","password":5,"timeout":9})", -2,
                         "password is empty or error value type : 8\n"},
                        {R"({"username":"a","password":"x"})", -2, "timeout is empty or error value type : -1\n"},
                        {R"({"username":"a","password":"x","timeout":"60"})", -2,
                         "timeout is empty or error value type : 16\n"},
                    });
    ts::Capture err(2);
    EXPECT_EQ(-2, getLoginParamFromJSON("{}", nullptr, &timeout));
    EXPECT_EQ(-2, getLoginParamFromJSON("{}", &login, nullptr));
}

TEST(VerificationAnswer, ValidationFlagIsReadFromAnOkAnswer)
{
    const std::pair<const char *, int> answers[] = {
        {R"({"Result":"OK","Parameters":{"PassValidation":1}})", 1},
        {R"({"Result":"OK","Parameters":{"PassValidation":0}})", 0},
        {R"({"Parameters":{"PassValidation":true},"Result":"OK","Extra":[]})", 1},
    };
    for (const auto &[answer, expected] : answers) {
        int valid = -7;
        EXPECT_EQ(0, getLoginParamFromJSON_msg(answer, &valid)) << answer;
        EXPECT_EQ(expected, valid) << answer;
    }
}

TEST(VerificationAnswer, FailedOrMalformedAnswersAreRefused)
{
    int valid = 0;
    expect_refusals([&](const char *answer) { return getLoginParamFromJSON_msg(answer, &valid); },
                    {
                        {nullptr, -2, "Invalid params\n"},
                        {"OK", -15, "json pack into cjson error...\n"},
                        {R"({"Result":"Fail","Parameters":{"PassValidation":1}})", -2,
                         " Result is empty or error value type \n"},
                        {R"({"Result":"ok","Parameters":{"PassValidation":1}})", -2,
                         " Result is empty or error value type \n"},
                        {R"({"Result":1})", -2, " Result is empty or error value type \n"},
                        {R"({"Result":"OK"})", -2, " object is empty or error value type \n"},
                        {R"({"Result":"OK","Parameters":[1]})", -2, " object is empty or error value type \n"},
                        {R"({"Result":"OK","Parameters":{}})", -2,
                         "PassValidation is empty or error value type : -1\n"},
                        {R"({"Result":"OK","Parameters":{"PassValidation":"1"}})", -2,
                         "PassValidation is empty or error value type : 16\n"},
                    });
}

TEST(LogoutBody, SessionIdIsCopiedCutToTheBuffer)
{
    char id[8];
    EXPECT_EQ(0, getSessionidParamFromJSON(R"({"sessionid":"0123456789"})", id, sizeof id));
    EXPECT_STREQ("0123456", id);
    EXPECT_EQ(0, getSessionidParamFromJSON(R"({"sessionid":""})", id, sizeof id));
    EXPECT_STREQ("", id);

    expect_refusals([&](const char *body) { return getSessionidParamFromJSON(body, id, sizeof id); },
                    {
                        {nullptr, -2, "Invalid params\n"},
                        {"sessionid", -15, "json pack into cjson error...\n"},
                        {R"({"session":"x"})", -2, "sessionid is empty or error value type : -1\n"},
                        {R"({"sessionid":5})", -2, "sessionid is empty or error value type : 8\n"},
                    });
    expect_refusals([&](const char *body) { return getSessionidParamFromJSON(body, id, 0); },
                    {{R"({"sessionid":"x"})", -2, "Invalid params\n"}});
}

TEST(VerificationPayload, IsPrintedByteForByte)
{
    LoginParam login{};
    copy_field(login.username, sizeof login.username, "admin");
    copy_field(login.password, sizeof login.password, "pa\"ss");
    char *out = nullptr;
    ASSERT_EQ(0, formatLoginMsgParamJSON(&out, &login));
    HeapText text(out);
    EXPECT_STREQ("{\n\t\"UserName\":\t\"admin\",\n\t\"Password\":\t\"pa\\\"ss\",\n\t\"MD5Password\":\t1\n}", out);

    ts::Capture err(2);
    EXPECT_EQ(-2, formatLoginMsgParamJSON(nullptr, &login));
    EXPECT_EQ(-2, formatLoginMsgParamJSON(&out, nullptr));
    EXPECT_TRUE(has_error_line(err.text(), "Invalid input params!\n"));
}

class PasswordCheck : public ::testing::Test {
protected:
    void SetUp() override { accounts::fresh_device(); }
};

TEST_F(PasswordCheck, MatchesNameAndDigestExactly)
{
    // A fresh device knows only the default account.
    EXPECT_EQ(1, check_user_pass_valid("admin", accounts::kTavelDigest.c_str()));
    ts::write_file(accounts::kAccountFile, accounts::image({{"admin", "AB12"}, {"bob", "cd34"}}));
    EXPECT_EQ(1, check_user_pass_valid("bob", "cd34"));

    const std::pair<const char *, const char *> wrong[] = {
        {"admin", "ab12"}, {"Bob", "cd34"}, {"bob", "cd3"}, {"bob", "cd345"}, {"", ""}, {"admin", "cd34"},
    };
    for (const auto &[name, digest] : wrong) {
        ts::Capture err(2);
        EXPECT_EQ(0, check_user_pass_valid(name, digest)) << name << " " << digest;
        EXPECT_TRUE(has_error_line(err.text(), "login < UserName and password is false>\n"));
    }
    ts::Capture err(2);
    EXPECT_EQ(0, check_user_pass_valid(nullptr, "cd34"));
    EXPECT_EQ(0, check_user_pass_valid("bob", nullptr));
    EXPECT_TRUE(has_error_line(err.text(), "failure username and password input...\n"));
}

TEST_F(PasswordCheck, UnreadableStoreMatchesNobody)
{
    accounts::ReadOnlyDir readonly(accounts::kConfigDir);
    ts::Capture err(2);
    EXPECT_EQ(0, check_user_pass_valid("admin", accounts::kTavelDigest.c_str()));
    EXPECT_TRUE(has_error_line(err.text(), "get User params fail!  return : -1\n"));
}

} // namespace
