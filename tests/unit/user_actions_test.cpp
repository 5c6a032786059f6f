#include "accounts_support.h"
#include "actions/user_actions.h"
#include "c2json/user_json.h"
#include "common/owners.h"
#include "testsupport.h"

#include <cjson/cJSON.h>
#include <gtest/gtest.h>

namespace {

using accounts::has_error_line;
using accounts::image;
using accounts::kAccountFile;
using accounts::kTavelDigest;

const std::string kBob = "0123456789abcdef0123456789abcdef";
const std::string kCarol = "fedcba9876543210fedcba9876543210";

const std::string kSetOk = "{\n\t\"Result\":\t\"OK\",\n\t\"Reason\":\t\"Successfully to set params\"\n}";
const std::string kSetFail = "{\n\t\"Result\":\t\"Fail\",\n\t\"Reason\":\t\"set User params fail\"\n}";
const std::string kInvalid = "{\n\t\"Result\":\t\"Fail\",\n\t\"Reason\":\t\"Invalid input params\"\n}";
const std::string kGetFail = "{\n\t\"Result\":\t\"Fail\",\n\t\"Reason\":\t\"get User params fail\"\n}";

// The "get_user_param" reply listing these accounts, as the formatted printer makes it.
std::string list_reply(const std::vector<accounts::Account> &list)
{
    std::string params;
    for (const auto &[name, digest] : list)
        params += std::string(params.empty() ? "[" : ", ") + "{\n\t\t\"user_name\":\t\"" + name +
                  "\",\n\t\t\"password\":\t\"" + digest + "\"\n\t}";
    params += params.empty() ? "[]" : "]";
    return "{\n\t\"Result\":\t\"OK\",\n\t\"Reason\":\t\"Successfully to get params\",\n\t\"Parameters\":\t" +
           params + "\n}";
}

struct Reply {
    int code;
    std::string text;
    std::string err;
};

Reply call(int (*handler)(const char *, char **), const char *body)
{
    char *out = nullptr;
    ts::Capture err(2);
    int code = handler(body, &out);
    HeapText owner(out);
    return {code, out ? out : "<null>", err.text()};
}

Reply get_users() { return call(actionGetUserParam, "{}"); }

Reply set_user(int operation, const std::string &name, const std::string &digest)
{
    std::string body = "{\"operation\":" + std::to_string(operation) + ",\"user_name\":\"" + name +
                       "\",\"password\":\"" + digest + "\"}";
    return call(actionSetUserParam, body.c_str());
}

class UserActions : public ::testing::Test {
protected:
    void SetUp() override { accounts::fresh_device(); }
};

TEST_F(UserActions, FreshDeviceListsTheDefaultAccount)
{
    Reply r = get_users();
    EXPECT_EQ(0, r.code);
    EXPECT_EQ(list_reply({{"admin", kTavelDigest}}), r.text);
}

TEST_F(UserActions, AddedAccountsAreListedInOrderAndDeletionMovesLaterOnesUp)
{
    for (const auto &[name, digest] : {std::pair{"bob", kBob}, std::pair{"carol", kCarol}}) {
        Reply r = set_user(0, name, digest);
        EXPECT_EQ(0, r.code);
        EXPECT_EQ(kSetOk, r.text);
    }
    EXPECT_EQ(list_reply({{"admin", kTavelDigest}, {"bob", kBob}, {"carol", kCarol}}), get_users().text);

    EXPECT_EQ(kSetOk, set_user(1, "bob", kBob).text);
    EXPECT_EQ(list_reply({{"admin", kTavelDigest}, {"carol", kCarol}}), get_users().text);

    // Names are cut to 63 characters; operation 5 changes nothing and still succeeds.
    EXPECT_EQ(kSetOk, set_user(0, std::string(70, 'n'), kBob).text);
    EXPECT_EQ(kSetOk, set_user(5, "carol", kBob).text);
    EXPECT_EQ(list_reply({{"admin", kTavelDigest}, {"carol", kCarol}, {std::string(63, 'n'), kBob}}),
              get_users().text);
}

TEST_F(UserActions, UnusableBodiesNeverReachTheStore)
{
    const char *bodies[] = {
        R"({"operation":"0","user_name":"bob","password":"x"})",
        R"({"operation":0,"user_name":"bob"})",
        R"({"operation":0,"password":"x"})",
        R"({"operation":0,"user_name":null,"password":"x"})",
        "operation=0",
        nullptr,
    };
    for (const char *body : bodies) {
        Reply r = call(actionSetUserParam, body);
        EXPECT_EQ(-1, r.code) << (body ? body : "<null>");
        EXPECT_EQ(kInvalid, r.text);
    }
    EXPECT_FALSE(ts::exists(kAccountFile)) << "the store was called";
    Reply r = call(actionSetUserParam, R"({"operation":"0","user_name":"bob","password":"x"})");
    EXPECT_TRUE(has_error_line(r.err, "operation is empty or error value type : 16\n")) << r.err;
}

TEST_F(UserActions, StoreRefusalsAnswerWithTheStoreCode)
{
    const std::string stored = image({{"admin", kTavelDigest}, {"bob", kBob}, {"eve", ""}});
    struct Case {
        int operation;
        const char *name;
        std::string digest;
        int code;
    } cases[] = {
        {0, "bob", kCarol, -1}, {1, "admin", kTavelDigest, -1}, {1, "bob", kCarol, -3},
        {2, "carol", kCarol, -2}, {2, "eve", kCarol, -4},
    };
    for (const Case &c : cases) {
        ts::write_file(kAccountFile, stored);
        Reply r = set_user(c.operation, c.name, c.digest);
        EXPECT_EQ(c.code, r.code) << c.operation << " " << c.name;
        EXPECT_EQ(kSetFail, r.text);
        EXPECT_TRUE(has_error_line(r.err, "set User administration param fail! return : " +
                                              std::to_string(c.code) + "\n"))
            << r.err;
        EXPECT_EQ(stored, ts::read_file(kAccountFile));
    }
    accounts::ReadOnlyDir readonly(accounts::kConfigDir);
    Reply r = set_user(0, "carol", kCarol);
    EXPECT_EQ(-1, r.code);
    EXPECT_EQ(kSetFail, r.text);
}

TEST_F(UserActions, UnreadableStoreFailsTheList)
{
    accounts::ReadOnlyDir readonly(accounts::kConfigDir);
    Reply r = get_users();
    EXPECT_EQ(-1, r.code);
    EXPECT_EQ(kGetFail, r.text);
    EXPECT_TRUE(has_error_line(r.err, "get User Param  fail  return : -1\n")) << r.err;
}

// A right-sized file without a single terminator lists 16 accounts of 64-byte fields.
TEST_F(UserActions, DamagedFileIsListedWithinItsFields)
{
    ts::write_file(kAccountFile, std::string(2048, 'x'));
    Reply r = get_users();
    ASSERT_EQ(0, r.code);
    CJsonPtr reply(cJSON_Parse(r.text.c_str()));
    const cJSON *list = cJSON_GetObjectItem(reply.get(), "Parameters");
    ASSERT_EQ(16, cJSON_GetArraySize(list));
    const cJSON *last = cJSON_GetArrayItem(list, 15);
    EXPECT_EQ(std::string(64, 'x'), cJSON_GetObjectItem(last, "user_name")->valuestring);
    EXPECT_EQ(std::string(64, 'x'), cJSON_GetObjectItem(last, "password")->valuestring);
}

TEST(UserFormatter, EmptyImageIsAnEmptyListAndAMissingOutIsRefused)
{
    UsermgntConfig empty{};
    char *out = nullptr;
    ASSERT_EQ(0, formatUserParamJSON(&out, empty));
    HeapText owner(out);
    EXPECT_STREQ("[]", out);
    ts::Capture err(2);
    EXPECT_EQ(-2, formatUserParamJSON(nullptr, empty));
    EXPECT_TRUE(has_error_line(err.text(), "Invalid input params!\n"));
}

} // namespace
