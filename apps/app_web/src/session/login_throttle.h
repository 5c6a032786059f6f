// The password-guess throttle. Every password check (login, credentials in a request's
// query, the watermark upload's local check) asks admit() first and reports its outcome to
// record(); a check that admit() refuses never runs.
//
//   - Per client address: after kAddressFailures failures within kFailureWindowMs, checks
//     from that address are refused for kFirstBlockMs; each failure after a refusal refuses
//     it again for twice as long, up to kLongestBlockMs. A success from the address resets
//     it, and so do kFailureWindowMs without a failure or a refusal.
//   - Per account, from any addresses: an account with kAccountFailures failures within
//     kFailureWindowMs gets one check per kAccountIntervalMs until those failures age out.
//     The owner is not locked out: the one check of each second may carry the right
//     password, and the address that last logged in to the account is not held to the rate.
//
// An IPv6 address counts by its /64 network, the block one subscriber holds. The tables have
// fixed sizes; when one is full, the entry that matters least is replaced (a refused address
// and a slowed account are the last to go). The clock is passed in, so that tests need no
// waiting: monotonic milliseconds, as throttle_now_ms() gives them. All calls are
// thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace throttle_limits {

// Failures of one address that start its refusal: enough for a user who mistypes, few for
// a guesser.
constexpr int kAddressFailures = 5;
// How long a failure counts; also the quiet time after which an address starts afresh.
constexpr int64_t kFailureWindowMs = 10 * 60 * 1000;
// The first refusal of an address; each further failure doubles it.
constexpr int64_t kFirstBlockMs = 30 * 1000;
// The longest refusal: guessing stays useless, and an owner behind the same address (a
// shared NAT) waits a quarter of an hour at most.
constexpr int64_t kLongestBlockMs = 15 * 60 * 1000;
// Failures of one account, from all addresses together, that slow the account down: a
// guesser with many addresses, each below kAddressFailures.
constexpr int kAccountFailures = 20;
// Time between two checks of a slowed account: about 86,000 guesses a day at most instead
// of over a thousand a second.
constexpr int64_t kAccountIntervalMs = 1000;
// Addresses followed at once: far more than the clients of one device; beyond that the
// account rule still holds.
constexpr size_t kAddressSlots = 256;
// Accounts followed at once: the account store has 16, guessed names take the rest.
constexpr size_t kAccountSlots = 64;
// Characters of an account name that are compared (the store's names have at most 63).
constexpr size_t kAccountNameSize = 64;

} // namespace throttle_limits

// The "Reason" of a refused login: the refusal says nothing about the password.
constexpr const char kThrottledReason[] = "Too many failed attempts, try again later";

class LoginThrottle {
public:
    LoginThrottle();
    ~LoginThrottle();
    LoginThrottle(const LoginThrottle &) = delete;
    LoginThrottle &operator=(const LoginThrottle &) = delete;

    // Whether a password check for account from addr (an IPv4 or IPv6 address as text) may
    // run at now_ms. Letting a check of a slowed account run uses up that account's second.
    bool admit(const char *addr, const char *account, int64_t now_ms);
    // The outcome of a check that admit() let run: ok when the password was right.
    void record(const char *addr, const char *account, bool ok, int64_t now_ms);

private:
    struct Tables;
    std::unique_ptr<Tables> tables_;
};

// The process-wide throttle.
bool throttle_admit(const char *addr, const char *account, int64_t now_ms);
void throttle_record(const char *addr, const char *account, bool ok, int64_t now_ms);
// Milliseconds of the monotonic clock, the clock admit() and record() expect.
int64_t throttle_now_ms();
