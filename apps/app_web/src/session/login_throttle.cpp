#include "session/login_throttle.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cstring>
#include <ctime>
#include <mutex>

using namespace throttle_limits;

namespace {

// An address as the throttle counts it: IPv4 whole, IPv6 by its /64 network (one subscriber
// holds a whole /64, and could otherwise step to a fresh address for every guess), text
// that is no address as its first bytes.
struct AddressKey {
    std::array<unsigned char, 16> bytes{};
    bool operator==(const AddressKey &) const = default;
};

AddressKey address_key(const char *text)
{
    AddressKey key;
    if (!text)
        return key;
    in_addr v4;
    in6_addr v6;
    if (inet_pton(AF_INET, text, &v4) == 1) {
        key.bytes[0] = 4;
        memcpy(&key.bytes[1], &v4, sizeof v4);
    } else if (inet_pton(AF_INET6, text, &v6) == 1 && IN6_IS_ADDR_V4MAPPED(&v6)) {
        key.bytes[0] = 4;
        memcpy(&key.bytes[1], &v6.s6_addr[12], 4);
    } else if (inet_pton(AF_INET6, text, &v6) == 1) {
        key.bytes[0] = 6;
        memcpy(&key.bytes[1], v6.s6_addr, 8);
    } else {
        key.bytes[0] = 1;
        memcpy(&key.bytes[1], text, strnlen(text, key.bytes.size() - 1));
    }
    return key;
}

// The latest N failure times, oldest overwritten first.
template <int N>
struct FailureRing {
    std::array<int64_t, N> times{};
    int used = 0, next = 0;

    void add(int64_t now)
    {
        times[static_cast<size_t>(next)] = now;
        next = (next + 1) % N;
        used = std::min(used + 1, N);
    }
    // Failures that still count at now.
    int recent(int64_t now) const
    {
        int n = 0;
        for (int i = 0; i < used; ++i)
            n += now - times[static_cast<size_t>(i)] < kFailureWindowMs;
        return n;
    }
    int64_t latest() const { return used ? times[static_cast<size_t>((next + N - 1) % N)] : 0; }
};

struct AddressEntry {
    bool used = false;
    AddressKey key;
    FailureRing<kAddressFailures> failures;
    int level = 0;  // refusals so far: the next one lasts kFirstBlockMs << level, at most kLongestBlockMs
    int64_t blocked_until = 0;

    bool blocked(int64_t now) const { return now < blocked_until; }
    // The last thing that happened to the address: its last failure or the end of its refusal.
    int64_t last_event() const { return std::max(failures.latest(), blocked_until); }
};

struct AccountEntry {
    bool used = false;
    char name[kAccountNameSize] = "";
    FailureRing<kAccountFailures> failures;
    int64_t next_check = 0;  // while slowed, no check before this
    bool has_owner = false;
    AddressKey owner;  // the address of the last successful check

    bool slowed(int64_t now) const { return failures.recent(now) >= kAccountFailures; }
};

int64_t block_length(int level)
{
    int64_t length = kFirstBlockMs;
    for (int i = 0; i < level && length < kLongestBlockMs; ++i)
        length *= 2;
    return std::min(length, kLongestBlockMs);
}

template <typename Entry, size_t N, typename Match>
Entry *find(std::array<Entry, N> &table, Match match)
{
    for (Entry &e : table)
        if (e.used && match(e))
            return &e;
    return nullptr;
}

// The slot for a new entry: a free one, else the one that matters least by less().
template <typename Entry, size_t N, typename Less>
Entry &claim(std::array<Entry, N> &table, Less less)
{
    Entry *victim = &table[0];
    for (Entry &e : table) {
        if (!e.used) {
            victim = &e;
            break;
        }
        if (less(e, *victim))
            victim = &e;
    }
    *victim = Entry{};
    victim->used = true;
    return *victim;
}

} // namespace

struct LoginThrottle::Tables {
    std::mutex mutex;
    std::array<AddressEntry, kAddressSlots> addresses;
    std::array<AccountEntry, kAccountSlots> accounts;

    AddressEntry *address(const AddressKey &key)
    {
        return find(addresses, [&](const AddressEntry &e) { return e.key == key; });
    }

    AccountEntry *account(const char *name)
    {
        return find(accounts, [&](const AccountEntry &e) { return strncmp(e.name, name, kAccountNameSize - 1) == 0; });
    }

    // An address that is refused now is kept over one that is not; among equals, the one
    // whose refusal ends first, or that has been quiet longest, goes.
    AddressEntry &new_address(const AddressKey &key, int64_t now)
    {
        AddressEntry &e = claim(addresses, [now](const AddressEntry &a, const AddressEntry &b) {
            if (a.blocked(now) != b.blocked(now))
                return !a.blocked(now);
            return a.last_event() < b.last_event();
        });
        e.key = key;
        return e;
    }

    // The account with the fewest recent failures goes: a flood of guessed names cannot push
    // out an account under attack.
    AccountEntry &new_account(const char *name, int64_t now)
    {
        AccountEntry &e = claim(accounts, [now](const AccountEntry &a, const AccountEntry &b) {
            int ra = a.failures.recent(now), rb = b.failures.recent(now);
            return ra != rb ? ra < rb : a.failures.latest() < b.failures.latest();
        });
        memcpy(e.name, name, strnlen(name, sizeof e.name - 1));
        return e;
    }
};

LoginThrottle::LoginThrottle() : tables_(std::make_unique<Tables>()) {}

LoginThrottle::~LoginThrottle() = default;

bool LoginThrottle::admit(const char *addr, const char *account, int64_t now_ms)
{
    AddressKey key = address_key(addr);
    std::lock_guard<std::mutex> lock(tables_->mutex);
    if (const AddressEntry *a = tables_->address(key); a && a->blocked(now_ms))
        return false;
    AccountEntry *acc = tables_->account(account ? account : "");
    if (!acc || !acc->slowed(now_ms) || (acc->has_owner && acc->owner == key))
        return true;
    if (now_ms < acc->next_check)
        return false;
    acc->next_check = now_ms + kAccountIntervalMs;
    return true;
}

void LoginThrottle::record(const char *addr, const char *account, bool ok, int64_t now_ms)
{
    AddressKey key = address_key(addr);
    const char *name = account ? account : "";
    std::lock_guard<std::mutex> lock(tables_->mutex);
    AddressEntry *a = tables_->address(key);
    AccountEntry *acc = tables_->account(name);
    if (ok) {
        if (a)
            *a = AddressEntry{};
        if (!acc)
            acc = &tables_->new_account(name, now_ms);
        acc->has_owner = true;  // the account's failures stay: its guessers are still slowed
        acc->owner = key;
        return;
    }

    if (!a)
        a = &tables_->new_address(key, now_ms);
    else if (!a->blocked(now_ms) && now_ms - a->last_event() >= kFailureWindowMs)
        a->failures = {}, a->level = 0;  // quiet long enough: the address starts afresh
    a->failures.add(now_ms);
    // Once refused, every further failure refuses again, twice as long, until the address
    // has been quiet for a window or succeeds.
    if (a->level > 0 || a->failures.recent(now_ms) >= kAddressFailures) {
        a->blocked_until = now_ms + block_length(a->level);
        ++a->level;
    }

    if (!acc)
        acc = &tables_->new_account(name, now_ms);
    acc->failures.add(now_ms);
}

namespace {

LoginThrottle &process_throttle()
{
    static LoginThrottle throttle;
    return throttle;
}

} // namespace

bool throttle_admit(const char *addr, const char *account, int64_t now_ms)
{
    return process_throttle().admit(addr, account, now_ms);
}

void throttle_record(const char *addr, const char *account, bool ok, int64_t now_ms)
{
    process_throttle().record(addr, account, ok, now_ms);
}

int64_t throttle_now_ms()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}
