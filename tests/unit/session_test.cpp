#include "session/session.h"

#include <chrono>
#include <cstring>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <thread>

namespace {

void clear_table() { memset(user_sessions, 0, sizeof user_sessions); }

std::string login(const std::string &user, int timeout)
{
    char *id = nullptr;
    EXPECT_EQ(0, add_new_session(user.c_str(), timeout, &id));
    return id ? std::string(id) : std::string();
}

int slot(const std::string &id, const char *access = "get") { return find_saved_session(id.c_str(), access); }

void sleep_s(double s) { std::this_thread::sleep_for(std::chrono::duration<double>(s)); }

TEST(SessionTable, RefusesMissingArgumentsAndTimeoutsBelowOne)
{
    clear_table();
    char *id = nullptr;
    EXPECT_EQ(-1, add_new_session(nullptr, 60, &id));
    EXPECT_EQ(-1, add_new_session("admin", 60, nullptr));
    EXPECT_EQ(-1, add_new_session("admin", 0, &id));
    EXPECT_EQ(-1, add_new_session("admin", -5, &id));
    EXPECT_EQ(-1, find_saved_session(nullptr, "get"));
    EXPECT_EQ(-1, slot(""));
    EXPECT_EQ(-1, delete_session_by_id(""));
}

// 36 characters: lower-case hexadecimal digits in groups of 8-4-4-4-12, all distinct.
TEST(SessionTable, IdsAreDistinctLowerCaseHexInGroups)
{
    clear_table();
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

// Time-outs count whole seconds of the monotonic clock: a session idle for more than its
// time-out is gone, whether a lookup or the sweep at the next login finds it first.
TEST(SessionTable, ExpiryRefreshSweepAndSlotReuseFollowTheMonotonicClock)
{
    clear_table();
    std::string keep = login("keep", 1000), shortlived = login("short", 1), refreshed = login("set", 2),
                probed = login("get", 2), unseen = login("unseen", 1);
    EXPECT_EQ(1, slot(shortlived));  // live right after creation
    sleep_s(1.6);
    EXPECT_EQ(2, slot(refreshed, "set"));
    EXPECT_EQ(3, slot(probed, "get"));
    EXPECT_EQ(3, slot(probed, "GetWebServerParameter"));
    sleep_s(1.6);
    // The login's sweep frees slots 1, 3 and 4, nobody having looked them up; the lowest is taken first.
    EXPECT_EQ(1, slot(login("next", 60)));
    EXPECT_EQ(3, slot(login("after", 60)));
    EXPECT_EQ(4, slot(login("last", 60)));
    EXPECT_EQ(-1, slot(shortlived));
    EXPECT_EQ(-1, slot(probed));
    EXPECT_EQ(-1, slot(unseen));
    EXPECT_EQ(2, slot(refreshed));
    EXPECT_EQ(0, slot(keep));
}

TEST(SessionTable, SixtyFifthLoginTakesSlotZeroAndNamesAreCut)
{
    clear_table();
    std::string first = login("u0", 1000);
    for (int i = 1; i < kMaxSessions; ++i)
        login("u" + std::to_string(i), 1000);
    std::string extra = login(std::string(40, 'u'), 1000);
    EXPECT_EQ(0, slot(extra));
    EXPECT_EQ(-1, slot(first));
    EXPECT_EQ(std::string(31, 'u'), user_sessions[0].user_name);
}

TEST(SessionTable, DeleteFreesTheSlotAndIgnoresUnknownIds)
{
    clear_table();
    std::string a = login("a", 60), b = login("b", 60);
    EXPECT_EQ(-1, delete_session_by_id("00000000-0000-0000-0000-000000000000"));
    EXPECT_EQ(0, delete_session_by_id(a.c_str()));
    EXPECT_EQ(-1, slot(a));
    EXPECT_EQ(-1, delete_session_by_id(a.c_str()));
    EXPECT_STREQ("", user_sessions[0].user_name);
    EXPECT_EQ(1, slot(b));
}

} // namespace
