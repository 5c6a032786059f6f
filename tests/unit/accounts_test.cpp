// The session table, the MD5 digest, the account store and actions, and the login parsers.
// Logout and the password check are proven through the server (the gate and watermark tests).
#include "actions/password_check.h"
#include "actions/user_actions.h"
#include "common/text_field.h"
#include "json2c/login_json.h"
#include "md5/md5.h"
#include "session/session.h"
#include "testsupport.h"
#include "usermanagement/usermgnt.h"

#include <chrono>
#include <map>
#include <cstring>
#include <gtest/gtest.h>
#include <set>
#include <sys/mount.h>
#include <thread>

namespace {

std::string login(const std::string &user, int timeout)
{
    char *id = nullptr;
    EXPECT_EQ(0, add_new_session(user.c_str(), timeout, &id));
    return id ? std::string(id) : std::string();
}

int slot(const std::string &id, const char *access = "get") { return find_saved_session(id.c_str(), access); }

// 36 characters: lower-case hexadecimal digits in groups of 8-4-4-4-12, all distinct.
TEST(SessionTable, IdsAreDistinctLowerCaseHexInGroups)
{
    memset(user_sessions, 0, sizeof user_sessions);
    std::set<std::string> seen;
    for (int i = 0; i < 10000; ++i) {
        std::string id = login("admin", 60);
        ASSERT_EQ(36u, id.size()) << id;
        for (size_t k = 0; k < id.size(); ++k) {
            bool dash = k == 8 || k == 13 || k == 18 || k == 23;
            ASSERT_TRUE(dash ? id[k] == '-' : isdigit(id[k]) || (id[k] >= 'a' && id[k] <= 'f')) << id;
        }
        seen.insert(id);
    }
    EXPECT_EQ(10000u, seen.size());
}

TEST(SessionTable, TimeOutsBelowOneAreRefused)
{
    char *id = nullptr;
    EXPECT_EQ(-1, add_new_session("admin", 0, &id));
    EXPECT_EQ(-1, add_new_session("admin", -1, &id));
}

// Sessions made in one second S with the time-outs in their names are looked up in S + 1,
// then three logins come in S + 3. Time-outs count whole seconds of the monotonic clock: a
// session idle for more than its time-out is gone, whether a lookup or the sweep at the next
// login finds it first. What each step showed is kept for the tests below.
class SessionClock : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        memset(user_sessions, 0, sizeof user_sessions);
        long long made = ts::fresh_second();
        std::string keep = login("keep", 1000), shortlived = login("short", 1), refreshed = login("set", 2),
                    probed = login("get", 2), unseen = login("unseen", 1);
        ASSERT_EQ(made, ts::monotonic_seconds()) << "the logins took a second";
        at_once = slot(shortlived);
        ts::wait_for_second(made + 1);
        refreshed_in_s1 = slot(refreshed, "set");
        probed_in_s1 = {slot(probed, "get"), slot(probed, "GetWebServerParameter")};
        ts::wait_for_second(made + 3);
        new_logins = {slot(login("next", 60)), slot(login("after", 60)), slot(login("last", 60))};
        in_s3 = {{"keep", slot(keep)}, {"short", slot(shortlived)}, {"set", slot(refreshed)},
                 {"get", slot(probed)}, {"unseen", slot(unseen)}};
    }

    static inline int at_once = -2, refreshed_in_s1 = -2;
    static inline std::vector<int> probed_in_s1, new_logins;
    static inline std::map<std::string, int> in_s3;  // the slots of the first five in S + 3
};

TEST_F(SessionClock, ASessionLivesFromItsLogin)
{
    EXPECT_EQ(1, at_once);
    EXPECT_EQ(0, in_s3["keep"]);
}

TEST_F(SessionClock, ASessionIdleLongerThanItsTimeOutIsGone)
{
    EXPECT_EQ(-1, in_s3["short"]);
    EXPECT_EQ(-1, in_s3["unseen"]);
}

TEST_F(SessionClock, ASetLookupKeepsASessionAlive)
{
    EXPECT_EQ(2, refreshed_in_s1);
    EXPECT_EQ(2, in_s3["set"]);
}

TEST_F(SessionClock, AnyOtherLookupLeavesTheTimeOutRunning)
{
    EXPECT_EQ(std::vector<int>({3, 3}), probed_in_s1);
    EXPECT_EQ(-1, in_s3["get"]);
}

// Slots 1, 3 and 4 held sessions that had expired, nobody having looked them up since.
TEST_F(SessionClock, TheSweepAtALoginFreesExpiredSlotsLowestFirst)
{
    EXPECT_EQ(std::vector<int>({1, 3, 4}), new_logins);
}

TEST(SessionTable, SixtyFifthLoginTakesSlotZero)
{
    memset(user_sessions, 0, sizeof user_sessions);
    std::string first = login("u0", 1000);
    for (int i = 1; i < kMaxSessions; ++i)
        login("u" + std::to_string(i), 1000);
    EXPECT_EQ(0, slot(login("u64", 1000)));
    EXPECT_EQ(-1, slot(first));
}

TEST(SessionTable, NamesAreCutTo31Characters)
{
    memset(user_sessions, 0, sizeof user_sessions);
    EXPECT_EQ(0, slot(login(std::string(40, 'u'), 1000)));
    EXPECT_EQ(std::string(31, 'u'), user_sessions[0].user_name);
}

// The RFC 1321 suite, then lengths around the padding boundary (55 bytes fit one block with
// the length field, 56 need a second) and a whole block.
TEST(Md5, MatchesKnownDigests)
{
    const std::pair<std::string, const char *> cases[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"}, {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"}, {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
        {std::string(55, 'a'), "ef1772b6dff9a122358552954ad0df65"},
        {std::string(56, 'a'), "3b0c8ac703f828b04c6c197006d17218"},
        {std::string(64, 'a'), "014842d480b571495a4a0363793f7367"},
    };
    for (const auto &[message, digest] : cases) {
        unsigned char sum[MD5_DIGEST_SIZE];
        char text[64];
        MD5Buffer(message.data(), static_cast<uint32_t>(message.size()), sum);
        md5_sig_to_string(sum, text, sizeof text);
        EXPECT_STREQ(digest, text) << message.size() << " bytes: " << message;
    }
}

using Accounts = std::vector<std::pair<std::string, std::string>>;

const std::string kDir = "/mnt/usr/config/app_parameters";
const std::string kTavel = ts::kAdminDigest, kBob = "0123456789abcdef0123456789abcdef",
                  kNew = "fedcba9876543210fedcba9876543210";
const Accounts kAdmin = {{"admin", kTavel}};
const Accounts kFour = {{"admin", kTavel}, {"a", kBob}, {"b", kNew}, {"c", kBob}};

// The 2048-byte account file holding these {name, digest} accounts from slot 0 on.
std::string image(const Accounts &accounts)
{
    std::string img(2048, '\0');
    for (size_t i = 0; i < accounts.size(); ++i) {
        img.replace(128 * i, accounts[i].first.size(), accounts[i].first);
        img.replace(128 * i + 64, accounts[i].second.size(), accounts[i].second);
    }
    return img;
}

Accounts full_table()
{
    Accounts full;
    for (int i = 0; i < USERMGNT_MAX_USERS; ++i)
        full.push_back({"user" + std::to_string(i), kBob});
    return full;
}

// The "get_user_param" reply listing these accounts.
std::string list_reply(const Accounts &list)
{
    std::string raw;
    for (const auto &[name, digest] : list)
        raw += (raw.empty() ? "[" : ", ") + std::string("{\n\t\t\"user_name\":\t\"") + name +
               "\",\n\t\t\"password\":\t\"" + digest + "\"\n\t}";
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
        EXPECT_EQ(image(kAdmin), std::string(reinterpret_cast<char *>(&config), sizeof config));
        EXPECT_EQ(image(kAdmin), ts::read_file(ts::kAccountFile));
    }
}

TEST_F(AccountStore, UpdatesKeepTheUsedSlotsOneRunFromSlotZero)
{
    Accounts full_less_last = full_table();
    full_less_last.pop_back();
    const std::tuple<Accounts, int, std::string, std::string, Accounts> cases[] = {
        {kAdmin, USERMGNT_ADD, "bob", kBob, {kAdmin[0], {"bob", kBob}}},
        {kFour, USERMGNT_DELETE, "b", kNew, {kFour[0], kFour[1], kFour[3]}},  // later ones move up
        {full_table(), USERMGNT_DELETE, "user15", kBob, full_less_last},
        {kFour, USERMGNT_DELETE, "nobody", kNew, kFour},
        {kAdmin, USERMGNT_CHANGE_PASSWORD, "admin", kNew, {{"admin", kNew}}},  // old digest not asked
        {kFour, 3, "a", "", kFour},
    };
    for (const auto &[before, operation, name, password, after] : cases) {
        ts::write_file(ts::kAccountFile, image(before));
        EXPECT_EQ(0, set(operation, name, password)) << operation << " " << name << err_;
        EXPECT_EQ(image(after), ts::read_file(ts::kAccountFile)) << operation << " " << name;
    }
}

TEST_F(AccountStore, RefusedUpdatesLeaveTheFileUntouched)
{
    const std::string two = image({kAdmin[0], {"bob", kBob}, {"eve", ""}}), upper = "0123456789ABCDEF0123456789ABCDEF";
    const std::tuple<std::string, int, std::string, std::string, int, const char *> cases[] = {
        {two, USERMGNT_ADD, "bob", kNew, -1, "user is  already existence \n"},
        {two, USERMGNT_ADD, "", kNew, -1, "user is  already existence \n"},  // "" names a free slot
        {image(full_table()), USERMGNT_ADD, "user16", kNew, -1, "user table is full, at most 16 accounts\n"},
        {two, USERMGNT_DELETE, "admin", kTavel, -1, "username:admin can't delete \n"},
        {two, USERMGNT_DELETE, "bob", upper, -3, "user password mistake please check\n"},
        {two, USERMGNT_CHANGE_PASSWORD, "Bob", kNew, -2, "user is  not existence \n"},
        {two, USERMGNT_CHANGE_PASSWORD, "eve", kNew, -4, "user password is empty\n"},
        // A right-sized file without terminators: fields are compared within their 64 bytes.
        {std::string(2048, 'x'), USERMGNT_ADD, std::string(63, 'x'), kNew, -1,
         "user table is full, at most 16 accounts\n"},
        {std::string(2048, 'x'), USERMGNT_CHANGE_PASSWORD, std::string(63, 'x'), kNew, -2, "user is  not existence \n"},
    };
    for (const auto &[before, operation, name, password, code, line] : cases) {
        ts::write_file(ts::kAccountFile, before);
        EXPECT_EQ(code, set(operation, name, password)) << line;
        EXPECT_TRUE(ts::has_error(err_, line)) << err_;
        EXPECT_EQ(before, ts::read_file(ts::kAccountFile)) << line;
    }
}

TEST_F(AccountStore, FailedWriteLeavesTheFileAsItWas)
{
    ts::write_file(ts::kAccountFile, image(kAdmin));
    ASSERT_EQ(0, mount(kDir.c_str(), kDir.c_str(), nullptr, MS_BIND, nullptr));
    ASSERT_EQ(0, mount(nullptr, kDir.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr));
    EXPECT_EQ(-1, set(USERMGNT_ADD, "bob", kBob));
    EXPECT_EQ(ts::fail("set User params fail"), set_user(0, "bob", kBob).reply);
    umount2(kDir.c_str(), MNT_DETACH);
    EXPECT_EQ(image(kAdmin), ts::read_file(ts::kAccountFile));
}

std::string listed() { return ts::call(actionGetUserParam, "{}").reply; }

const std::string kDone = ts::ok("Successfully to set params");

TEST_F(AccountActions, AFreshDeviceListsTheAdminAlone)
{
    EXPECT_EQ(list_reply(kAdmin), listed());
}

TEST_F(AccountActions, AccountsAreListedInSlotOrderThroughAddsAndDeletes)
{
    for (const char *name : {"bob", "carol", "dave"})
        EXPECT_EQ(kDone, set_user(0, name, kBob).reply) << name;
    EXPECT_EQ(kDone, set_user(1, "bob", kBob).reply);
    EXPECT_EQ(kDone, set_user(0, "erin", kNew).reply);
    EXPECT_EQ(list_reply({kAdmin[0], {"carol", kBob}, {"dave", kBob}, {"erin", kNew}}), listed());
}

TEST_F(AccountActions, NamesAreCutTo63Characters)
{
    EXPECT_EQ(kDone, set_user(0, std::string(70, 'n'), kBob).reply);
    EXPECT_EQ(list_reply({kAdmin[0], {std::string(63, 'n'), kBob}}), listed());
}

TEST_F(AccountActions, AnUnknownOperationSucceedsWithoutAChange)
{
    EXPECT_EQ(kDone, set_user(5, "admin", kBob).reply);
    EXPECT_EQ(list_reply(kAdmin), listed());
}

// A right-sized file without a single terminator: its fields are read within their 64 bytes.
TEST_F(AccountActions, AFileWithoutTerminatorsListsSixteenWholeFields)
{
    ts::write_file(ts::kAccountFile, std::string(2048, 'x'));
    EXPECT_EQ(list_reply(Accounts(16, {std::string(64, 'x'), std::string(64, 'x')})), listed());
}

TEST_F(AccountActions, UnusableBodiesNeverReachTheStore)
{
    for (const char *body :
         {R"({"operation":"0","user_name":"b","password":"x"})", R"({"operation":0,"user_name":"b"})",
          R"({"operation":0,"user_name":null,"password":"x"})", "operation=0", (const char *)nullptr})
        EXPECT_EQ(ts::fail("Invalid input params"), ts::call(actionSetUserParam, body).reply)
            << (body ? body : "<null>");
    EXPECT_FALSE(ts::exists(ts::kAccountFile)) << "the store was called";
}

TEST_F(AccountActions, AStoreRefusalAnswersTheFailure)
{
    ts::write_file(ts::kAccountFile, image({kAdmin[0], {"bob", kBob}}));
    EXPECT_EQ(ts::fail("set User params fail"), set_user(1, "bob", kNew).reply);  // the wrong digest
}

TEST_F(AccountActions, AFreeSlotIsNoAccount)
{
    ts::Capture err(2);
    EXPECT_EQ(0, check_user_pass_valid("", ""));
}

TEST(LoginJson, LoginBodyYieldsCredentialsCutToTheirFields)
{
    std::string body = R"({"username":")" + std::string(70, 'n') + R"(","password":"p\"w","timeout":600})";
    LoginParam login{};
    int timeout = -7;
    ASSERT_EQ(0, getLoginParamFromJSON(body.c_str(), &login, &timeout));
    EXPECT_EQ(std::string(63, 'n'), login.username);
    EXPECT_STREQ("p\"w", login.password);
}

TEST(LoginJson, ATimeOutBelowOneIsHalfAnHour)
{
    for (auto [value, expected] : {std::pair{"600", 600}, {"true", 1}, {"0", 1800}, {"-5", 1800}}) {
        std::string body = R"({"username":"u","password":"p","timeout":)" + std::string(value) + "}";
        LoginParam login{};
        int timeout = -7;
        ASSERT_EQ(0, getLoginParamFromJSON(body.c_str(), &login, &timeout)) << body;
        EXPECT_EQ(expected, timeout) << value;
    }
}

TEST(LoginJson, TheAccountApplicationsVerdictIsRead)
{
    int valid = -7;
    EXPECT_EQ(0, getLoginParamFromJSON_msg(R"({"Parameters":{"PassValidation":true},"Result":"OK"})", &valid));
    EXPECT_EQ(1, valid);
}

// The account application's answer; refused login and logout bodies are shown through the server.
TEST(LoginJson, UnusableAnswersOfTheAccountApplicationAreRefusedWithTheirLines)
{
    const std::pair<const char *, const char *> cases[] = {
        {"OK", "json pack into cjson error...\n"},
        {R"({"Result":"Fail","Parameters":{}})", " Result is empty or error value type \n"},
        {R"({"Result":1})", " Result is empty or error value type \n"},
        {R"({"Result":"OK"})", " object is empty or error value type \n"},
        {R"({"Result":"OK","Parameters":[1]})", " object is empty or error value type \n"},
        {R"({"Result":"OK","Parameters":{"PassValidation":"1"}})", 
         "PassValidation is empty or error value type : 16\n"},
        {R"({"Result":"OK","Parameters":{}})", "PassValidation is empty or error value type : -1\n"},
    };
    for (auto [text, line] : cases) {
        int valid = -7;
        ts::Capture err(2);
        EXPECT_GT(0, getLoginParamFromJSON_msg(text, &valid)) << text;
        EXPECT_TRUE(ts::has_error(err.text(), line)) << text;
    }
}

} // namespace
