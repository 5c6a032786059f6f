#include "accounts_support.h"
#include "actions/user_actions.h"
#include "common/owners.h"
#include "testsupport.h"

#include <cjson/cJSON.h>
#include <gtest/gtest.h>

namespace {

using namespace accounts;

const std::string kBob = "0123456789abcdef0123456789abcdef";
const std::string kCarol = "fedcba9876543210fedcba9876543210";

std::string envelope(const char *result, const char *reason)
{
    return std::string("{\n\t\"Result\":\t\"") + result + "\",\n\t\"Reason\":\t\"" + reason + "\"\n}";
}

// The "get_user_param" reply listing these accounts, as cJSON's formatted printer makes it.
std::string list_reply(const std::vector<Account> &list)
{
    std::string params;
    for (const auto &[name, digest] : list)
        params += std::string(params.empty() ? "[" : ", ") + "{\n\t\t\"user_name\":\t\"" + name +
                  "\",\n\t\t\"password\":\t\"" + digest + "\"\n\t}";
    return "{\n\t\"Result\":\t\"OK\",\n\t\"Reason\":\t\"Successfully to get params\",\n\t\"Parameters\":\t" +
           params + "]\n}";
}

struct Reply {
    int code;
    std::string text, err;
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
    void SetUp() override { fresh_device(); }
};

TEST_F(UserActions, AccountsAreListedInSlotOrderThroughAddAndDelete)
{
    EXPECT_EQ(list_reply({{"admin", kTavelDigest}}), get_users().text);  // a fresh device
    const std::string ok = envelope("OK", "Successfully to set params");
    EXPECT_EQ(ok, set_user(0, "bob", kBob).text);
    EXPECT_EQ(ok, set_user(0, "carol", kCarol).text);
    EXPECT_EQ(list_reply({{"admin", kTavelDigest}, {"bob", kBob}, {"carol", kCarol}}), get_users().text);
    EXPECT_EQ(ok, set_user(1, "bob", kBob).text);
    // Names are cut to 63 characters; operation 5 changes nothing and still succeeds.
    EXPECT_EQ(ok, set_user(0, std::string(70, 'n'), kBob).text);
    Reply r = set_user(5, "carol", kBob);
    EXPECT_EQ(0, r.code);
    EXPECT_EQ(ok, r.text);
    EXPECT_EQ(list_reply({{"admin", kTavelDigest}, {"carol", kCarol}, {std::string(63, 'n'), kBob}}),
              get_users().text);
}

TEST_F(UserActions, UnusableBodiesNeverReachTheStore)
{
    const char *bodies[] = {R"({"operation":"0","user_name":"b","password":"x"})", R"({"operation":0,"user_name":"b"})",
                            R"({"operation":0,"user_name":null,"password":"x"})", "operation=0", nullptr};
    for (const char *body : bodies) {
        Reply r = call(actionSetUserParam, body);
        EXPECT_EQ(-1, r.code) << (body ? body : "<null>");
        EXPECT_EQ(envelope("Fail", "Invalid input params"), r.text);
    }
    EXPECT_FALSE(ts::exists(kAccountFile)) << "the store was called";
}

TEST_F(UserActions, StoreRefusalsAnswerWithTheStoreCode)
{
    const std::string stored = image({{"admin", kTavelDigest}, {"bob", kBob}, {"eve", ""}});
    const struct {
        int operation;
        const char *name;
        std::string digest;
        int code;
    } cases[] = {{1, "admin", kTavelDigest, -1}, {1, "bob", kCarol, -3}, {2, "eve", kCarol, -4}};
    for (const auto &c : cases) {
        ts::write_file(kAccountFile, stored);
        Reply r = set_user(c.operation, c.name, c.digest);
        EXPECT_EQ(c.code, r.code) << c.operation << " " << c.name;
        EXPECT_EQ(envelope("Fail", "set User params fail"), r.text);
        EXPECT_TRUE(has_error_line(r.err, "set User administration param fail! return : " + std::to_string(c.code) +
                                              "\n"));
        EXPECT_EQ(stored, ts::read_file(kAccountFile));
    }
    // Without a file and without a way to write one, neither action can answer with accounts.
    ts::remove_tree(kAccountFile);
    ReadOnlyDir readonly(kConfigDir);
    EXPECT_EQ(envelope("Fail", "set User params fail"), set_user(0, "carol", kCarol).text);
    Reply r = get_users();
    EXPECT_EQ(-1, r.code);
    EXPECT_EQ(envelope("Fail", "get User params fail"), r.text);
    EXPECT_TRUE(has_error_line(r.err, "get User Param  fail  return : -1\n")) << r.err;
}

// A right-sized file without a single terminator lists 16 accounts of 64-byte fields.
TEST_F(UserActions, DamagedFileIsListedWithinItsFields)
{
    ts::write_file(kAccountFile, std::string(2048, 'x'));
    Reply r = get_users();
    CJsonPtr reply(cJSON_Parse(r.text.c_str()));
    const cJSON *list = cJSON_GetObjectItem(reply.get(), "Parameters");
    ASSERT_EQ(16, cJSON_GetArraySize(list));
    const cJSON *last = cJSON_GetArrayItem(list, 15);
    EXPECT_EQ(std::string(64, 'x'), cJSON_GetObjectItem(last, "user_name")->valuestring);
    EXPECT_EQ(std::string(64, 'x'), cJSON_GetObjectItem(last, "password")->valuestring);
}

} // namespace
