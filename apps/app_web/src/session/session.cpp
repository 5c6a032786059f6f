#include "session/session.h"

#include "common/owners.h"
#include "common/text_field.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <sys/random.h>
#include <unistd.h>

UserSession user_sessions[kMaxSessions];

namespace {

// The table is used by the event loop and by the steps that run on the worker thread.
std::mutex sessions_mutex;

int32_t monotonic_seconds()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int32_t>(ts.tv_sec);
}

// Idle for longer than its time-out; computed in 64 bits so a huge time-out cannot wrap.
bool expired(const UserSession &s, int32_t now)
{
    return static_cast<int64_t>(now) > static_cast<int64_t>(s.last_access) + s.timeout;
}

void sweep_expired()
{
    int32_t now = monotonic_seconds();
    for (UserSession &s : user_sessions) {
        if (s.last_access != 0 && s.timeout != 0 && s.session_id[0] != '\0' && expired(s, now))
            s.session_id[0] = '\0';
    }
}

int find_slot(const char *session_id)
{
    for (int i = 0; i < kMaxSessions; ++i)
        if (strcmp(user_sessions[i].session_id, session_id) == 0)
            return i;
    return -1;
}

// Runs fn(slot) on the slot of session_id with the table locked; -1 when the id is missing,
// empty or unknown.
template <class Fn>
int with_session(const char *session_id, Fn fn)
{
    if (!session_id || session_id[0] == '\0')
        return -1;
    std::lock_guard<std::mutex> lock(sessions_mutex);
    int slot = find_slot(session_id);
    return slot < 0 ? -1 : fn(slot);
}

// Kernels before 3.17 have no getrandom; they offer the same source as /dev/urandom.
bool read_urandom(void *buf, size_t size)
{
    UniqueFd fd(open("/dev/urandom", O_RDONLY | O_CLOEXEC));
    if (!fd)
        return false;
    ssize_t n;
    do {
        n = read(fd.get(), buf, size);
    } while (n < 0 && errno == EINTR);
    return n == static_cast<ssize_t>(size);
}

} // namespace

unsigned short gen_ushort_rand(bool *ok)
{
    // The kernel's random source, not a generator seeded with the time: an id made from
    // the login second could be guessed by anyone who can guess that second.
    unsigned short value = 0;
    ssize_t n;
    do {
        n = getrandom(&value, sizeof value, 0);
    } while (n < 0 && errno == EINTR);
    if (n < 0 && errno == ENOSYS)
        *ok = read_urandom(&value, sizeof value);
    else
        *ok = n == static_cast<ssize_t>(sizeof value);
    return value;
}

int add_new_session(const char *user_name, int timeout, char **session_id)
{
    if (!user_name || !session_id || timeout < 1)
        return -1;

    unsigned short r[8];
    for (unsigned short &v : r) {
        bool ok = false;
        v = gen_ushort_rand(&ok);
        if (!ok)
            return -1;
    }

    std::lock_guard<std::mutex> lock(sessions_mutex);
    sweep_expired();
    int slot = 0;
    while (slot < kMaxSessions && user_sessions[slot].session_id[0] != '\0')
        ++slot;
    if (slot == kMaxSessions)
        slot = 0;  // every slot is live: the session in slot 0 is replaced

    UserSession &s = user_sessions[slot];
    int32_t now = monotonic_seconds();
    copy_field(s.user_name, sizeof s.user_name, user_name);
    snprintf(s.session_id, sizeof s.session_id, "%4.4x%4.4x-%4.4x-%4.4x-%4.4x-%4.4x%4.4x%4.4x", r[0], r[1], r[2],
             r[3], r[4], r[5], r[6], r[7]);
    s.timeout = timeout;
    s.last_access = now;
    *session_id = s.session_id;
    return 0;
}

int find_saved_session(const char *session_id, const char *access)
{
    return with_session(session_id, [access](int slot) {
        UserSession &s = user_sessions[slot];
        int32_t now = monotonic_seconds();
        if (expired(s, now)) {
            s.session_id[0] = '\0';
            return -1;
        }
        if (access && strcmp(access, "set") == 0)
            s.last_access = now;
        return slot;
    });
}

int delete_session_by_id(const char *session_id)
{
    return with_session(session_id, [](int slot) {
        user_sessions[slot].session_id[0] = '\0';
        user_sessions[slot].user_name[0] = '\0';
        return slot;
    });
}
