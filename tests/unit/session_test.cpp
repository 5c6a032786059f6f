#include "session/session.h"

#include <chrono>
#include <cstring>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <thread>

namespace {

void clear_table() { memset(user_sessions, 0, sizeof user_sessions); }

std::string login(const char *user, int timeout)
{
    char *id = nullptr;
    EXPECT_EQ(0, add_new_session(user, timeout, &id));
    return id ? std::string(id) : std::string();
}

void sleep_s(double s) { std::this_thread::sleep_for(std::chrono::duration<double>(s)); }

TEST(SessionTable, RefusesMissingArgumentsAndTimeoutsBelowOne)
{
    clear_table();
    char *id = nullptr;
    EXPECT_EQ(-1, add_new_session(nullptr, 60, &id));
    EXPECT_EQ(-1, add_new_session("admin", 60, nullptr));
    EXPECT_EQ(-1, add_new_session("admin", 0, &id));
    EXPECT_EQ(-1, add_new_session("admin", -5, &id));
    EXPECT_EQ(-1, find_saved_session("", "get"));
    EXPECT_EQ(-1, find_saved_session(nullptr, "get"));
    EXPECT_EQ(-1, delete_session_by_id(""));
}

TEST(SessionTable, IdsAreDistinctLowerCaseHexInGroups)
{
    clear_table();
    // 8-4-4-4-12 lower-case hexadecimal digits
    auto shaped = [](const std::string &id) {
        if (id.size() != 36)
            return false;
        for (size_t i = 0; i < id.size(); ++i) {
            bool dash = i == 8 || i == 13 || i == 18 || i == 23;
            if (dash ? id[i] != '-' : !strchr("0123456789abcdef", id[i]) || id[i] == '\0')
                return false;
        }
        return true;
    };
    std::set<std::string> seen;
    for (int i = 0; i < 10000; ++i) {
        std::string id = login("admin", 60);
        ASSERT_TRUE(shaped(id)) << id;
        seen.insert(id);
    }
    EXPECT_EQ(10000u, seen.size());
}

TEST(SessionTable, UserNameIsCutToItsField)
{
    clear_table();
    std::string id = login(std::string(40, 'u').c_str(), 60);
    int slot = find_saved_session(id.c_str(), "get");
    ASSERT_GE(slot, 0);
    EXPECT_EQ(std::string(31, 'u'), user_sessions[slot].user_name);
}

// Time-outs count whole seconds of the monotonic clock; a session is gone once it has been
// idle for more than its time-out.
TEST(SessionTable, ExpiryRefreshAndSweepFollowTheMonotonicClock)
{
    clear_table();
    std::string keep = login("keep", 1000);
    std::string shortlived = login("short", 1);
    std::string refreshed = login("set", 2);
    std::string probed = login("get", 2);
    EXPECT_EQ(1, find_saved_session(shortlived.c_str(), "get"));  // live right after creation

    sleep_s(1.6);
    EXPECT_EQ(2, find_saved_session(refreshed.c_str(), "set"));
    EXPECT_EQ(3, find_saved_session(probed.c_str(), "get"));
    EXPECT_EQ(3, find_saved_session(probed.c_str(), "GetWebServerParameter"));

    sleep_s(1.6);
    EXPECT_EQ(-1, find_saved_session(shortlived.c_str(), "get"));
    EXPECT_EQ(-1, find_saved_session(shortlived.c_str(), "get"));  // and gone again
    EXPECT_EQ(2, find_saved_session(refreshed.c_str(), "get"));
    EXPECT_EQ(-1, find_saved_session(probed.c_str(), "get"));
    EXPECT_EQ(0, find_saved_session(keep.c_str(), "get"));

    // The freed slots are reused from the lowest one up.
    std::string next = login("next", 60);
    EXPECT_EQ(1, find_saved_session(next.c_str(), "get"));
    EXPECT_EQ(3, find_saved_session(login("after", 60).c_str(), "get"));
}

TEST(SessionTable, SweepAtLoginFreesStaleSlotsNobodyLookedUp)
{
    clear_table();
    login("a", 60);
    std::string stale = login("b", 1);
    sleep_s(2.1);
    std::string fresh = login("c", 60);
    EXPECT_EQ(1, find_saved_session(fresh.c_str(), "get"));
    EXPECT_EQ(-1, find_saved_session(stale.c_str(), "get"));
}

TEST(SessionTable, SixtyFifthLoginTakesSlotZero)
{
    clear_table();
    std::string first = login("u0", 1000);
    for (int i = 1; i < kMaxSessions; ++i)
        login(("u" + std::to_string(i)).c_str(), 1000);
    std::string extra = login("u64", 1000);
    EXPECT_EQ(0, find_saved_session(extra.c_str(), "get"));
    EXPECT_EQ(-1, find_saved_session(first.c_str(), "get"));
    EXPECT_STREQ("u64", user_sessions[0].user_name);
}

TEST(SessionTable, DeleteFreesTheSlotAndIgnoresUnknownIds)
{
    clear_table();
    std::string a = login("a", 60);
    std::string b = login("b", 60);
    EXPECT_EQ(-1, delete_session_by_id("00000000-0000-0000-0000-000000000000"));
    EXPECT_EQ(0, delete_session_by_id(a.c_str()));
    EXPECT_EQ(-1, find_saved_session(a.c_str(), "get"));
    EXPECT_EQ(-1, delete_session_by_id(a.c_str()));
    EXPECT_STREQ("", user_sessions[0].user_name);
    EXPECT_EQ(1, find_saved_session(b.c_str(), "get"));
}

} // namespace
