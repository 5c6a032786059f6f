#include "accounts_support.h"
#include "json2c/json_fields.h"
#include "testsupport.h"
#include "usermanagement/usermgnt.h"

#include <cstring>
#include <gtest/gtest.h>

namespace {

using accounts::has_error_line;
using accounts::image;
using accounts::inode_of;
using accounts::kAccountFile;

const std::string kBob = "0123456789abcdef0123456789abcdef";
const std::string kNew = "fedcba9876543210fedcba9876543210";

class Usermgnt : public ::testing::Test {
protected:
    void SetUp() override { accounts::fresh_device(); }

    // Runs one update; its stderr is kept in err_.
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

    // Stores accounts and expects the refused update to leave the file as it was.
    void expect_refused(const std::vector<accounts::Account> &accounts, int operation, const std::string &name,
                        const std::string &password, int code, const std::string &line)
    {
        ts::write_file(kAccountFile, image(accounts));
        ino_t before = inode_of(kAccountFile);
        EXPECT_EQ(code, set(operation, name, password)) << line;
        EXPECT_TRUE(has_error_line(err_, line)) << err_;
        EXPECT_EQ(before, inode_of(kAccountFile)) << "rewritten: " << line;
        EXPECT_EQ(image(accounts), ts::read_file(kAccountFile)) << line;
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
        EXPECT_EQ(accounts::default_image(), std::string(reinterpret_cast<char *>(&config), sizeof config));
        EXPECT_EQ(accounts::default_image(), ts::read_file(kAccountFile));
        ts::remove_tree(kAccountFile);
    }
    EXPECT_EQ(-1, HTTP_Get_UsermgntConfig(nullptr));
}

TEST_F(Usermgnt, StoredFileIsReadAsItStandsWithoutRewriting)
{
    std::string stored = image({{"admin", kBob}, {"bob", ""}});
    ts::write_file(kAccountFile, stored);
    ino_t before = inode_of(kAccountFile);
    UsermgntConfig config;
    EXPECT_EQ(0, HTTP_Get_UsermgntConfig(&config));
    EXPECT_EQ(stored, std::string(reinterpret_cast<char *>(&config), sizeof config));
    EXPECT_EQ(before, inode_of(kAccountFile));
}

TEST_F(Usermgnt, AddFillsTheFirstFreeSlotOfTheDefault)
{
    EXPECT_EQ(0, set(USERMGNT_ADD, "bob", kBob));
    EXPECT_EQ(image({{"admin", accounts::kTavelDigest}, {"bob", kBob}}), ts::read_file(kAccountFile));
}

TEST_F(Usermgnt, AddRefusesATakenNameAnEmptyNameAndAFullTable)
{
    const std::vector<accounts::Account> two = {{"admin", accounts::kTavelDigest}, {"bob", kBob}};
    expect_refused(two, USERMGNT_ADD, "bob", kNew, -1, "user is  already existence \n");
    // An empty name equals the name of the first free slot.
    expect_refused(two, USERMGNT_ADD, "", kNew, -1, "user is  already existence \n");

    std::vector<accounts::Account> full;
    for (int i = 0; i < USERMGNT_MAX_USERS; ++i)
        full.push_back({"user" + std::to_string(i), kBob});
    expect_refused(full, USERMGNT_ADD, "one-too-many", kNew, -1, "user table is full, at most 16 accounts\n");
}

TEST_F(Usermgnt, DeleteMovesLaterAccountsUpAndLeavesTheTailZero)
{
    ts::write_file(kAccountFile, image({{"admin", accounts::kTavelDigest}, {"a", kBob}, {"b", kNew}, {"c", kBob}}));
    EXPECT_EQ(0, set(USERMGNT_DELETE, "b", kNew));
    EXPECT_EQ(image({{"admin", accounts::kTavelDigest}, {"a", kBob}, {"c", kBob}}), ts::read_file(kAccountFile));

    // An unknown name is no error and changes nothing.
    EXPECT_EQ(0, set(USERMGNT_DELETE, "nobody", kNew));
    EXPECT_EQ(image({{"admin", accounts::kTavelDigest}, {"a", kBob}, {"c", kBob}}), ts::read_file(kAccountFile));

    // The last slot is freed too.
    std::vector<accounts::Account> full;
    for (int i = 0; i < USERMGNT_MAX_USERS; ++i)
        full.push_back({"user" + std::to_string(i), kBob});
    ts::write_file(kAccountFile, image(full));
    EXPECT_EQ(0, set(USERMGNT_DELETE, "user15", kBob));
    full.pop_back();
    EXPECT_EQ(image(full), ts::read_file(kAccountFile));
}

TEST_F(Usermgnt, DeleteRefusesAdminAndAWrongDigest)
{
    const std::vector<accounts::Account> two = {{"admin", accounts::kTavelDigest}, {"bob", kBob}};
    expect_refused(two, USERMGNT_DELETE, "admin", accounts::kTavelDigest, -1, "username:admin can't delete \n");
    expect_refused(two, USERMGNT_DELETE, "bob", kNew, -3, "user password mistake please check\n");
    // Digests are compared as text, case included.
    std::string upper = kBob;
    for (char &ch : upper)
        ch = static_cast<char>(toupper(ch));
    expect_refused(two, USERMGNT_DELETE, "bob", upper, -3, "user password mistake please check\n");
}

TEST_F(Usermgnt, ChangeReplacesTheDigestWithoutCheckingTheOldOne)
{
    EXPECT_EQ(0, set(USERMGNT_CHANGE_PASSWORD, "admin", kNew));
    EXPECT_EQ(image({{"admin", kNew}}), ts::read_file(kAccountFile));

    expect_refused({{"admin", kNew}}, USERMGNT_CHANGE_PASSWORD, "Admin", kBob, -2, "user is  not existence \n");
    expect_refused({{"admin", kNew}, {"bob", ""}}, USERMGNT_CHANGE_PASSWORD, "bob", kBob, -4,
                   "user password is empty\n");
}

TEST_F(Usermgnt, UnknownOperationRewritesTheImageUnchanged)
{
    ts::write_file(kAccountFile, image({{"admin", kNew}, {"bob", kBob}}));
    EXPECT_EQ(0, set(3, "bob", ""));
    EXPECT_EQ(image({{"admin", kNew}, {"bob", kBob}}), ts::read_file(kAccountFile));
    EXPECT_EQ(-1, HTTP_Set_UsermgntConfig(USERMGNT_ADD, nullptr));
}

TEST_F(Usermgnt, FailedWritesLeaveTheFileAsItWas)
{
    const std::string stored = image({{"admin", accounts::kTavelDigest}});
    ts::write_file(kAccountFile, stored);
    {
        accounts::ReadOnlyDir readonly(accounts::kConfigDir);
        EXPECT_EQ(-1, set(USERMGNT_ADD, "bob", kBob));
        EXPECT_TRUE(has_error_line(err_, "DEVSDK_Set_CfgFile: USERMGNT_PARA_FILE failed!\n")) << err_;
        EXPECT_EQ(stored, ts::read_file(kAccountFile));
    }

    // A damaged file that cannot be replaced: the read fails, and so does every update.
    ts::write_file(kAccountFile, "short");
    accounts::ReadOnlyDir readonly(accounts::kConfigDir);
    UsermgntConfig config;
    {
        ts::Capture err(2);
        EXPECT_EQ(-1, HTTP_Get_UsermgntConfig(&config));
        EXPECT_TRUE(has_error_line(err.text(), "DEVSDK_Set_CfgFile: USERMGNT_PARA_FILE failed!\n"));
    }
    ts::Capture out(1);
    EXPECT_EQ(-1, set(USERMGNT_CHANGE_PASSWORD, "admin", kBob));
    EXPECT_EQ("DEVSDK_Get_UsermgntConfig failed\n", out.text());
    EXPECT_EQ("short", ts::read_file(kAccountFile));
}

// A file of the right size but without terminators must not be read past its fields.
TEST_F(Usermgnt, UnterminatedFieldsAreComparedWithinTheirBytes)
{
    std::string filled(2048, 'x');
    ts::write_file(kAccountFile, filled);
    EXPECT_EQ(-1, set(USERMGNT_ADD, std::string(63, 'x'), kBob));
    EXPECT_TRUE(has_error_line(err_, "user table is full, at most 16 accounts\n"));
    EXPECT_EQ(-2, set(USERMGNT_CHANGE_PASSWORD, std::string(63, 'x'), kBob));
    EXPECT_EQ(filled, ts::read_file(kAccountFile));
}

} // namespace
