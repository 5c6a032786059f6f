// The password-guess throttle, driven by a clock the tests advance: per-address refusal
// windows, per-account slowing, and the fixed-size tables under a flood.
#include "session/login_throttle.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using namespace throttle_limits;

constexpr int64_t kSecond = 1000, kMinute = 60 * kSecond;
constexpr int64_t kStart = 1000 * kMinute;  // any monotonic time

class Throttle : public ::testing::Test {
protected:
    // A failed check, which admit() must have let run.
    void fail(const char *addr, const char *account = "admin")
    {
        ASSERT_TRUE(t.admit(addr, account, now)) << addr << " " << account << " at " << now - kStart;
        t.record(addr, account, false, now);
    }
    void fail_times(int count, const char *addr)
    {
        for (int i = 0; i < count; ++i)
            fail(addr);
    }
    // An account guessed from many addresses, four guesses each: none of them is refused.
    void guess_from_many_addresses(const char *account = "admin")
    {
        for (int i = 0; i < kAccountFailures; ++i)
            fail(("198.51.100." + std::to_string(i / 4)).c_str(), account);
    }

    LoginThrottle t;
    int64_t now = kStart;
};

TEST_F(Throttle, FifthFailureRefusesTheAddressForAWindowThatDoublesUpToAQuarterHour)
{
    fail_times(kAddressFailures, "192.0.2.7");
    // Each further failure from the address, once allowed again, refuses it twice as long.
    for (int64_t window : {30, 60, 120, 240, 480, 900, 900}) {
        EXPECT_FALSE(t.admit("192.0.2.7", "admin", now));
        EXPECT_FALSE(t.admit("192.0.2.7", "other", now + window * kSecond - 1)) << window;
        EXPECT_TRUE(t.admit("192.0.2.8", "admin", now)) << "another address is not refused";
        now += window * kSecond;
        fail("192.0.2.7");
    }
}

TEST_F(Throttle, OnlyFailuresWithinTenMinutesCount)
{
    fail_times(kAddressFailures - 1, "192.0.2.7");
    now += kFailureWindowMs;  // the four age out
    fail_times(kAddressFailures - 1, "192.0.2.7");
    EXPECT_TRUE(t.admit("192.0.2.7", "admin", now));
    fail("192.0.2.7");
    EXPECT_FALSE(t.admit("192.0.2.7", "admin", now));
}

TEST_F(Throttle, ASuccessStartsTheAddressAfresh)
{
    fail_times(kAddressFailures - 1, "192.0.2.7");
    t.record("192.0.2.7", "admin", true, now);
    fail_times(kAddressFailures - 1, "192.0.2.7");
    EXPECT_TRUE(t.admit("192.0.2.7", "admin", now));
    fail("192.0.2.7");
    EXPECT_FALSE(t.admit("192.0.2.7", "admin", now));
}

TEST_F(Throttle, TenQuietMinutesAfterARefusalStartTheWindowsAgainAtThirtySeconds)
{
    fail_times(kAddressFailures, "192.0.2.7");
    now += 30 * kSecond;
    fail("192.0.2.7");  // 60 s
    now += 60 * kSecond + kFailureWindowMs;
    fail_times(kAddressFailures, "192.0.2.7");
    EXPECT_FALSE(t.admit("192.0.2.7", "admin", now + 30 * kSecond - 1));
    EXPECT_TRUE(t.admit("192.0.2.7", "admin", now + 30 * kSecond));
}

// Four guesses from each of many addresses: no address is refused, the account is slowed.
TEST_F(Throttle, AnAccountGuessedFromManyAddressesGetsOneCheckASecondUntilItsFailuresAgeOut)
{
    guess_from_many_addresses();
    EXPECT_TRUE(t.admit("203.0.113.1", "other", now)) << "other accounts are not slowed";
    EXPECT_TRUE(t.admit("203.0.113.1", "other", now));
    EXPECT_TRUE(t.admit("203.0.113.1", "admin", now));
    EXPECT_FALSE(t.admit("203.0.113.2", "admin", now + kAccountIntervalMs - 1));
    // The check of the next second may carry the right password; it gets through, and the
    // account's guessers stay slowed.
    now += kAccountIntervalMs;
    ASSERT_TRUE(t.admit("203.0.113.2", "admin", now));
    t.record("203.0.113.2", "admin", true, now);
    EXPECT_FALSE(t.admit("198.51.100.9", "admin", now));
    // The owner's address is not held to the rate; any other still is.
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(t.admit("203.0.113.2", "admin", now));
    EXPECT_FALSE(t.admit("203.0.113.3", "admin", now + 1));
    // Once the failures are ten minutes old the account is free again.
    now += kFailureWindowMs;
    EXPECT_TRUE(t.admit("203.0.113.3", "admin", now));
    EXPECT_TRUE(t.admit("203.0.113.4", "admin", now));
}

TEST_F(Throttle, AddressesOfOneIpv6NetworkCountTogether)
{
    for (const char *addr : {"2001:db8:1:2::1", "2001:db8:1:2::2", "2001:db8:1:2:ffff::9", "2001:DB8:1:2:0:0:0:1",
                             "2001:db8:1:2::5"})
        fail(addr);
    EXPECT_FALSE(t.admit("2001:db8:1:2:abcd::1", "admin", now));
    EXPECT_TRUE(t.admit("2001:db8:1:3::1", "admin", now));
}

TEST_F(Throttle, AMappedIpv4AddressCountsAsItsIpv4Address)
{
    fail_times(kAddressFailures - 1, "192.0.2.50");
    fail("::ffff:192.0.2.50");
    EXPECT_FALSE(t.admit("192.0.2.50", "admin", now));
    EXPECT_TRUE(t.admit("192.0.2.51", "admin", now));
}

// One failure each from far more addresses, and for far more names, than the tables hold.
class Flood : public Throttle {
protected:
    void flood()
    {
        for (int i = 0; i < 4000; ++i) {
            std::string addr = "10." + std::to_string(i / 250) + "." + std::to_string(i % 250) + ".1";
            std::string name = "guess" + std::to_string(i);
            t.record(addr.c_str(), name.c_str(), false, now);
        }
    }
};

TEST_F(Flood, CannotPushOutARefusedAddress)
{
    fail_times(kAddressFailures, "192.0.2.7");
    flood();
    EXPECT_FALSE(t.admit("192.0.2.7", "nobody", now));
}

TEST_F(Flood, CannotPushOutASlowedAccount)
{
    guess_from_many_addresses();
    flood();
    EXPECT_TRUE(t.admit("203.0.113.1", "admin", now));
    EXPECT_FALSE(t.admit("203.0.113.2", "admin", now));
}

TEST_F(Throttle, AccountNamesAreComparedExactly)
{
    guess_from_many_addresses("Admin");
    EXPECT_TRUE(t.admit("203.0.113.1", "admin", now));
    EXPECT_TRUE(t.admit("203.0.113.1", "admin", now));
    EXPECT_TRUE(t.admit("203.0.113.1", "Admin", now));
    EXPECT_FALSE(t.admit("203.0.113.1", "Admin", now));
}

TEST_F(Throttle, AMissingAddressOrNameIsAnEntryOfItsOwn)
{
    for (int i = 0; i < kAddressFailures; ++i)
        fail(nullptr, nullptr);
    EXPECT_FALSE(t.admit(nullptr, "x", now));
    EXPECT_TRUE(t.admit("192.0.2.1", nullptr, now));
}

TEST(ThrottleClock, IsMonotonicMilliseconds)
{
    int64_t a = throttle_now_ms(), b = throttle_now_ms();
    EXPECT_GT(a, 0);
    EXPECT_LE(a, b);
}

} // namespace
