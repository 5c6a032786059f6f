// The account store, the account actions and the local password check, on account files
// built byte by byte.
#include "actions/password_check.h"
#include "actions/user_actions.h"
#include "common/owners.h"
#include "json2c/json_fields.h"
#include "testsupport.h"
#include "usermanagement/usermgnt.h"

#include <cjson/cJSON.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

namespace {

using Accounts = std::vector<std::pair<std::string, std::string>>;

const std::string kDir = "/mnt/usr/config/app_parameters";
const std::string kTavel = ts::kAdminDigest, kBob = "0123456789abcdef0123456789abcdef",
                  kNew = "fedcba9876543210fedcba9876543210";
const Accounts kAdmin = {{"admin", kTavel}};
const Accounts kFour = {{"admin", kTavel}, {"a", kBob}, {"b", kNew}, {"c", kBob}};

Accounts full_table()
{
    Accounts full;
    for (int i = 0; i < USERMGNT_MAX_USERS; ++i)
        full.push_back({"user" + std::to_string(i), kBob});
    return full;
}

ino_t inode_of(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

// The configuration directory read-only (a read-only bind mount over itself) while it lives.
class ReadOnlyDir {
public:
    ReadOnlyDir()
    {
        EXPECT_EQ(0, mount(kDir.c_str(), kDir.c_str(), nullptr, MS_BIND, nullptr));
        EXPECT_EQ(0, mount(nullptr, kDir.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr));
    }
    ~ReadOnlyDir() { umount2(kDir.c_str(), MNT_DETACH); }
};

// The "get_user_param" reply listing these accounts.
std::string list_reply(const Accounts &list)
{
    std::string raw;
    for (const auto &[name, digest] : list)
        raw += (raw.empty() ? "[" : ", ") + std::string("{\n\t\t\"user_name\":\t\"") + name + "\",\n\t\t\"password\":\t\"" +
               digest + "\"\n\t}";
    return ts::params("Successfully to get params", raw + "]");
}

ts::Outcome set_user(int operation, const std::string &name, const std::string &digest)
{
    std::string body = "{\"operation\":" + std::to_string(operation) + ",\"user_name\":\"" + name +
                       "\",\"password\":\"" + digest + "\"}";
    return ts::call(actionSetUserParam, body.c_str());
}

class AccountStore : public ::testing::Test {
protected:
    void SetUp() override
    {
        ts::reset_device_tree();
        ts::make_dirs(kDir);
    }

    int set(int operation, const std::string &name, const std::string &password)
    {
        UsermgntUser user{};
        copy_field(user.user_name, sizeof user.user_name, name.c_str());
        copy_field(user.password, sizeof user.password, password.c_str());
        ts::Capture err(2);
        int ret = HTTP_Set_UsermgntConfig(operation, &user);
        err_ = err.text();
        return ret;
    }

    std::string err_;
};
using AccountActions = AccountStore;

TEST_F(AccountStore, MissingOrWrongSizedFileIsReplacedByTheOneAccountDefault)
{
    for (long size : {-1L, 2047L, 2049L}) {
        ts::remove_tree(ts::kAccountFile);
        if (size >= 0)
            ts::write_file(ts::kAccountFile, std::string(static_cast<size_t>(size), 'u'));
        UsermgntConfig config;
        memset(&config, 0x55, sizeof config);
        ts::Capture err(2);
        EXPECT_EQ(0, HTTP_Get_UsermgntConfig(&config)) << size;
        EXPECT_TRUE(ts::has_error(err.text(), "DEVSDK_Get_CfgFile: USERMGNT_PARA_FILE failed!\n"));
        EXPECT_EQ(ts::account_image(kAdmin), std::string(reinterpret_cast<char *>(&config), sizeof config));
        EXPECT_EQ(ts::account_image(kAdmin), ts::read_file(ts::kAccountFile));
    }
    EXPECT_EQ(-1, HTTP_Get_UsermgntConfig(nullptr));
    EXPECT_EQ(-1, HTTP_Set_UsermgntConfig(USERMGNT_ADD, nullptr));
}

TEST_F(AccountStore, UpdatesKeepTheUsedSlotsOneRunFromSlotZero)
{
    Accounts full_less_last = full_table();
    full_less_last.pop_back();
    const struct {
        Accounts before;
        int operation;
        std::string name, password;
        Accounts after;
    } cases[] = {
        {kAdmin, USERMGNT_ADD, "bob", kBob, {kAdmin[0], {"bob", kBob}}},
        {kFour, USERMGNT_DELETE, "b", kNew, {kFour[0], kFour[1], kFour[3]}},  // later ones move up
        {full_table(), USERMGNT_DELETE, "user15", kBob, full_less_last},
        {kFour, USERMGNT_DELETE, "nobody", kNew, kFour},
        {kAdmin, USERMGNT_CHANGE_PASSWORD, "admin", kNew, {{"admin", kNew}}},  // old digest not asked
        {kFour, 3, "a", "", kFour},
    };
    for (const auto &c : cases) {
        ts::write_file(ts::kAccountFile, ts::account_image(c.before));
        EXPECT_EQ(0, set(c.operation, c.name, c.password)) << c.operation << " " << c.name << err_;
        EXPECT_EQ(ts::account_image(c.after), ts::read_file(ts::kAccountFile)) << c.operation << " " << c.name;
    }
}

TEST_F(AccountStore, RefusedUpdatesLeaveTheFileUntouched)
{
    const std::string two = ts::account_image({kAdmin[0], {"bob", kBob}, {"eve", ""}}),
                      upper = "0123456789ABCDEF0123456789ABCDEF";
    const struct {
        std::string before;
        int operation;
        std::string name, password;
        int code;
        const char *line;
    } cases[] = {
        {two, USERMGNT_ADD, "bob", kNew, -1, "user is  already existence \n"},
        {two, USERMGNT_ADD, "", kNew, -1, "user is  already existence \n"},  // "" names a free slot
        {ts::account_image(full_table()), USERMGNT_ADD, "user16", kNew, -1, "user table is full, at most 16 accounts\n"},
        {two, USERMGNT_DELETE, "admin", kTavel, -1, "username:admin can't delete \n"},
        {two, USERMGNT_DELETE, "bob", upper, -3, "user password mistake please check\n"},
        {two, USERMGNT_CHANGE_PASSWORD, "Bob", kNew, -2, "user is  not existence \n"},
        {two, USERMGNT_CHANGE_PASSWORD, "eve", kNew, -4, "user password is empty\n"},
        // A right-sized file without terminators: fields are compared within their 64 bytes.
        {std::string(2048, 'x'), USERMGNT_ADD, std::string(63, 'x'), kNew, -1, "user table is full, at most 16 accounts\n"},
        {std::string(2048, 'x'), USERMGNT_CHANGE_PASSWORD, std::string(63, 'x'), kNew, -2, "user is  not existence \n"},
    };
    for (const auto &c : cases) {
        ts::write_file(ts::kAccountFile, c.before);
        ino_t before = inode_of(ts::kAccountFile);
        EXPECT_EQ(c.code, set(c.operation, c.name, c.password)) << c.line;
        EXPECT_TRUE(ts::has_error(err_, c.line)) << err_;
        EXPECT_EQ(before, inode_of(ts::kAccountFile)) << "rewritten: " << c.line;
        EXPECT_EQ(c.before, ts::read_file(ts::kAccountFile)) << c.line;
    }
}

TEST_F(AccountStore, FailedWritesLeaveTheFileAsItWas)
{
    ts::write_file(ts::kAccountFile, ts::account_image(kAdmin));
    {
        ReadOnlyDir readonly;
        EXPECT_EQ(-1, set(USERMGNT_ADD, "bob", kBob));
        EXPECT_TRUE(ts::has_error(err_, "DEVSDK_Set_CfgFile: USERMGNT_PARA_FILE failed!\n")) << err_;
        EXPECT_EQ(ts::account_image(kAdmin), ts::read_file(ts::kAccountFile));
    }
    // A damaged file that cannot be replaced fails the read, and so every update.
    ts::write_file(ts::kAccountFile, "short");
    ReadOnlyDir readonly;
    UsermgntConfig config;
    EXPECT_EQ(-1, HTTP_Get_UsermgntConfig(&config));
    ts::Capture out(1);
    EXPECT_EQ(-1, set(USERMGNT_CHANGE_PASSWORD, "admin", kBob));
    EXPECT_EQ("DEVSDK_Get_UsermgntConfig failed\n", out.text());
    EXPECT_EQ("short", ts::read_file(ts::kAccountFile));
}

TEST_F(AccountActions, AccountsAreListedInSlotOrderThroughAddAndDelete)
{
    EXPECT_EQ(list_reply(kAdmin), ts::call(actionGetUserParam, "{}").reply);  // a fresh device
    const std::string done = ts::ok("Successfully to set params");
    EXPECT_EQ(done, set_user(0, "bob", kBob).reply);
    EXPECT_EQ(done, set_user(0, "carol", kNew).reply);
    EXPECT_EQ(list_reply({kAdmin[0], {"bob", kBob}, {"carol", kNew}}), ts::call(actionGetUserParam, "{}").reply);
    EXPECT_EQ(done, set_user(1, "bob", kBob).reply);
    // Names are cut to 63 characters; operation 5 changes nothing and still succeeds.
    EXPECT_EQ(done, set_user(0, std::string(70, 'n'), kBob).reply);
    EXPECT_EQ(done, set_user(5, "carol", kBob).reply);
    EXPECT_EQ(list_reply({kAdmin[0], {"carol", kNew}, {std::string(63, 'n'), kBob}}),
              ts::call(actionGetUserParam, "{}").reply);
}

TEST_F(AccountActions, UnusableBodiesNeverReachTheStoreAndStoreRefusalsGiveTheirCode)
{
    for (const char *body : {R"({"operation":"0","user_name":"b","password":"x"})", R"({"operation":0,"user_name":"b"})",
                             R"({"operation":0,"user_name":null,"password":"x"})", "operation=0", (const char *)nullptr})
        EXPECT_EQ(ts::fail("Invalid input params"), ts::call(actionSetUserParam, body).reply) << (body ? body : "<null>");
    EXPECT_FALSE(ts::exists(ts::kAccountFile)) << "the store was called";

    ts::write_file(ts::kAccountFile, ts::account_image({kAdmin[0], {"bob", kBob}}));
    ts::Outcome wrong = set_user(1, "bob", kNew);
    EXPECT_EQ(-3, wrong.rc);
    EXPECT_EQ(ts::fail("set User params fail"), wrong.reply);
    EXPECT_TRUE(ts::has_error(wrong.err, "set User administration param fail! return : -3\n"));
    // Without a file and without a way to write one, neither action can answer with accounts.
    ts::remove_tree(ts::kAccountFile);
    ReadOnlyDir readonly;
    EXPECT_EQ(ts::fail("set User params fail"), set_user(0, "carol", kNew).reply);
    EXPECT_EQ(ts::fail("get User params fail"), ts::call(actionGetUserParam, "{}").reply);
}

// A right-sized file without a single terminator lists 16 accounts of 64-byte fields.
TEST_F(AccountActions, DamagedFileIsListedWithinItsFields)
{
    ts::write_file(ts::kAccountFile, std::string(2048, 'x'));
    CJsonPtr reply(cJSON_Parse(ts::call(actionGetUserParam, "{}").reply.c_str()));
    const cJSON *list = cJSON_GetObjectItem(reply.get(), "Parameters");
    ASSERT_EQ(16, cJSON_GetArraySize(list));
    const cJSON *last = cJSON_GetArrayItem(list, 15);
    EXPECT_EQ(std::string(64, 'x'), cJSON_GetObjectItem(last, "user_name")->valuestring);
    EXPECT_EQ(std::string(64, 'x'), cJSON_GetObjectItem(last, "password")->valuestring);
}

TEST_F(AccountActions, PasswordCheckMatchesAStoredAccountExactlyAndNothingElse)
{
    EXPECT_EQ(1, check_user_pass_valid("admin", kTavel.c_str()));  // no file: the default account
    ts::write_file(ts::kAccountFile, ts::account_image({{"admin", "AB12"}, {"bob", "cd34"}}));
    EXPECT_EQ(1, check_user_pass_valid("bob", "cd34"));
    // Case counts; a free slot (empty name and digest) is no account.
    const std::pair<const char *, const char *> wrong[] = {
        {"admin", "ab12"}, {"Bob", "cd34"}, {"bob", "cd3"}, {"bob", "cd345"}, {"", ""}, {"admin", "cd34"}, {nullptr, "cd34"},
    };
    for (const auto &[name, digest] : wrong) {
        ts::Capture err(2);
        EXPECT_EQ(0, check_user_pass_valid(name, digest)) << (name ? name : "<null>") << " " << digest;
        EXPECT_TRUE(ts::has_error(err.text(), name ? "login < UserName and password is false>\n"
                                                   : "failure username and password input...\n"));
    }
    ts::remove_tree(ts::kAccountFile);
    ReadOnlyDir readonly;
    ts::Capture err(2);
    EXPECT_EQ(0, check_user_pass_valid("admin", kTavel.c_str()));
    EXPECT_TRUE(ts::has_error(err.text(), "get User params fail!  return : -1\n"));
}

} // namespace
