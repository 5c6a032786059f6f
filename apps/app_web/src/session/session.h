// The in-memory session table: who has logged in, and until when their session lives.
// Used by the event loop and by local actions on the worker thread: each call below takes
// the table's lock.
#pragma once

#include <cstdint>

constexpr int kMaxSessions = 64;     // concurrent sessions; a 65th login takes slot 0
constexpr int kSessionIdLength = 36; // 8-4-4-4-12 lower-case hexadecimal digits

struct UserSession {
    char session_id[64];  // empty when the slot is free
    char user_name[32];
    int32_t timeout;      // seconds the session may stay idle
    int32_t last_access;  // monotonic seconds at creation or the last refreshing lookup
};

extern UserSession user_sessions[kMaxSessions];

// A 16-bit value from the kernel's random source; *ok becomes false when it failed.
unsigned short gen_ushort_rand(bool *ok);

// Creates a session; *session_id then points at the id inside the table. -1 when the user
// name or the out-parameter is missing, the time-out is below 1, or no random id could be
// drawn.
int add_new_session(const char *user_name, int timeout, char **session_id);

// The slot of the live session with this id, or -1 (an expired one is freed on the way).
// The access text "set" refreshes the session; any other leaves its last access as it was.
int find_saved_session(const char *session_id, const char *access);

// Frees the session with this id; its slot, or -1 when the id is missing or unknown.
int delete_session_by_id(const char *session_id);
