// The dispatcher's table: one row per command that is treated in any special way, with
// everything that makes it special. A command without a row is relayed to the device
// application that the routing file names, with a session and the usual time-out.
#pragma once

#include "webs/webs.h"

// Who may run the command, decided once the request's line and headers are in.
enum class Access {
    Open,     // anybody: the login, the logout and the page language
    Session,  // a live session id, or user name and password in the query
    Probe,    // the session probe: answers whether the session lives, without refreshing it
    Touch,    // the session touch: refreshes the session
    Upload,   // the watermark upload, which checks its caller itself
};

// How the command is answered once its body is in.
enum class Exec {
    Quick,     // a local handler that returns at once: runs on the event loop
    Blocking,  // a local handler that waits (commands, the card, pauses): runs on the worker
    Answer,    // the probe and the touch: the plain success, without the reply choice
    Relay,     // the device application's answer
    Login,     // the password check with the device application, then the session
    Upload,    // the watermark image checks and copy, on the worker
};

// What a local handler gets: the request body, the reply out-parameter and the reason buffer.
struct ActionCall {
    const char *body;
    char **out;
    char *reason;
};

struct Command {
    const char *name;
    Access access;
    WebsBodyRule body;          // a firmware image may be spooled, a picture uploaded
    Exec exec;
    int recv_timeout_ms;        // relayed: the application's time to answer (0: the usual)
    bool upgrade_socket_only;   // that time-out holds only on the upgrade application's socket
    int (*handler)(ActionCall &call);  // Quick and Blocking
};

// The row of a command, compared exactly, or the row of an ordinary relayed command.
const Command &find_command(const char *name);
// Whether name has a row of its own.
bool has_own_row(const char *name);

// The time an application has to answer a relayed command that has no time-out of its own.
constexpr int kDefaultRecvTimeoutMs = 3000;
