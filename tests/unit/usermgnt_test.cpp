#include "accounts_support.h"
#include "json2c/json_fields.h"
#include "testsupport.h"
#include "usermanagement/usermgnt.h"

#include <cstring>
#include <gtest/gtest.h>

namespace {

using namespace accounts;

const std::string kBob = "0123456789abcdef0123456789abcdef";
const std::string kNew = "fedcba9876543210fedcba9876543210";
const std::vector<Account> kAdmin = {{"admin", kTavelDigest}};
const std::vector<Account> kFour = {{"admin", kTavelDigest}, {"a", kBob}, {"b", kNew}, {"c", kBob}};

std::vector<Account> full_table()
{
    std::vector<Account> full;
    for (int i = 0; i < USERMGNT_MAX_USERS; ++i)
        full.push_back({"user" + std::to_string(i), kBob});
    return full;
}

class Usermgnt : public ::testing::Test {
protected:
    void SetUp() override { fresh_device(); }

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

TEST_F(Usermgnt, MissingOrWrongSizedFileIsReplacedByTheOneAccountDefault)
{
    for (long size : {-1L, 2047L, 2049L}) {
        if (size >= 0)
            ts::write_file(kAccountFile, std::string(static_cast<size_t>(size), 'u'));
        UsermgntConfig config;
        memset(&config, 0x55, sizeof config);
        ts::Capture err(2);
        EXPECT_EQ(0, HTTP_Get_UsermgntConfig(&config)) << size;
        EXPECT_TRUE(has_error_line(err.text(), "DEVSDK_Get_CfgFile: USERMGNT_PARA_FILE failed!\n"));
        EXPECT_EQ(default_image(), std::string(reinterpret_cast<char *>(&config), sizeof config));
        EXPECT_EQ(default_image(), ts::read_file(kAccountFile));
        ts::remove_tree(kAccountFile);
    }
    EXPECT_EQ(-1, HTTP_Get_UsermgntConfig(nullptr));
    EXPECT_EQ(-1, HTTP_Set_UsermgntConfig(USERMGNT_ADD, nullptr));
}

TEST_F(Usermgnt, UpdatesKeepTheUsedSlotsOneRunFromSlotZero)
{
    std::vector<Account> full_less_last = full_table();
    full_less_last.pop_back();
    const struct {
        std::vector<Account> before;
        int operation;
        std::string name, password;
        std::vector<Account> after;
    } cases[] = {
        {kAdmin, USERMGNT_ADD, "bob", kBob, {kAdmin[0], {"bob", kBob}}},
        {kFour, USERMGNT_DELETE, "b", kNew, {kFour[0], kFour[1], kFour[3]}},  // later ones move up
        {full_table(), USERMGNT_DELETE, "user15", kBob, full_less_last},
        {kFour, USERMGNT_DELETE, "nobody", kNew, kFour},
        {kAdmin, USERMGNT_CHANGE_PASSWORD, "admin", kNew, {{"admin", kNew}}},  // old digest not asked
        {kFour, 3, "a", "", kFour},
    };
    for (const auto &c : cases) {
        ts::write_file(kAccountFile, image(c.before));
        EXPECT_EQ(0, set(c.operation, c.name, c.password)) << c.operation << " " << c.name << err_;
        EXPECT_EQ(image(c.after), ts::read_file(kAccountFile)) << c.operation << " " << c.name;
    }
}

TEST_F(Usermgnt, RefusedUpdatesLeaveTheFileUntouched)
{
    const std::vector<Account> two = {kAdmin[0], {"bob", kBob}, {"eve", ""}};
    std::string upper = kBob;
    for (char &ch : upper)
        ch = static_cast<char>(toupper(ch));
    const struct {
        std::string before;
        int operation;
        std::string name, password;
        int code;
        const char *line;
    } cases[] = {
        {image(two), USERMGNT_ADD, "bob", kNew, -1, "user is  already existence \n"},
        {image(two), USERMGNT_ADD, "", kNew, -1, "user is  already existence \n"},  // "" names a free slot
        {image(full_table()), USERMGNT_ADD, "user16", kNew, -1, "user table is full, at most 16 accounts\n"},
        {image(two), USERMGNT_DELETE, "admin", kTavelDigest, -1, "username:admin can't delete \n"},
        {image(two), USERMGNT_DELETE, "bob", upper, -3, "user password mistake please check\n"},
        {image(two), USERMGNT_CHANGE_PASSWORD, "Bob", kNew, -2, "user is  not existence \n"},
        {image(two), USERMGNT_CHANGE_PASSWORD, "eve", kNew, -4, "user password is empty\n"},
        // A right-sized file without terminators: fields are compared within their 64 bytes.
        {std::string(2048, 'x'), USERMGNT_ADD, std::string(63, 'x'), kNew, -1,
         "user table is full, at most 16 accounts\n"},
        {std::string(2048, 'x'), USERMGNT_CHANGE_PASSWORD, std::string(63, 'x'), kNew, -2,
         "user is  not existence \n"},
    };
    for (const auto &c : cases) {
        ts::write_file(kAccountFile, c.before);
        ino_t before = inode_of(kAccountFile);
        EXPECT_EQ(c.code, set(c.operation, c.name, c.password)) << c.line;
        EXPECT_TRUE(has_error_line(err_, c.line)) << err_;
        EXPECT_EQ(before, inode_of(kAccountFile)) << "rewritten: " << c.line;
        EXPECT_EQ(c.before, ts::read_file(kAccountFile)) << c.line;
    }
}

TEST_F(Usermgnt, FailedWritesLeaveTheFileAsItWas)
{
    ts::write_file(kAccountFile, default_image());
    {
        ReadOnlyDir readonly(kConfigDir);
        EXPECT_EQ(-1, set(USERMGNT_ADD, "bob", kBob));
        EXPECT_TRUE(has_error_line(err_, "DEVSDK_Set_CfgFile: USERMGNT_PARA_FILE failed!\n")) << err_;
        EXPECT_EQ(default_image(), ts::read_file(kAccountFile));
    }
    // A damaged file that cannot be replaced fails the read, and so every update.
    ts::write_file(kAccountFile, "short");
    ReadOnlyDir readonly(kConfigDir);
    UsermgntConfig config;
    EXPECT_EQ(-1, HTTP_Get_UsermgntConfig(&config));
    ts::Capture out(1);
    EXPECT_EQ(-1, set(USERMGNT_CHANGE_PASSWORD, "admin", kBob));
    EXPECT_EQ("DEVSDK_Get_UsermgntConfig failed\n", out.text());
    EXPECT_EQ("short", ts::read_file(kAccountFile));
}

} // namespace
