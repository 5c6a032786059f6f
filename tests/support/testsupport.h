// Helpers shared by the tests. Every test binary runs in the private namespace that
// tests/isolate.sh makes; main() refuses to run anywhere else.
#pragma once

#include "common/owners.h"

#include <functional>
#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

namespace ts {

constexpr char kPortFile[] = "/mnt/usr/config/app_parameters/WebServerParameter.json";
constexpr char kAccountFile[] = "/mnt/usr/config/app_parameters/usermgnt_para";
constexpr char kAdminDigest[] = "45b5d899e8cbbf16302d286d2c2f8e9d";  // of the default password "tavel"

std::string bin_path(const std::string &name);  // a binary of this build
// A helper that acts on this machine's processes themselves (tests/tools/enosys sets up a
// seccomp filter, which an emulator would refuse): built for the machine even when the
// tests run emulated, in the folder that WEB_TEST_HOST_BIN names then.
std::string host_tool_path(const std::string &name);
void write_file(const std::string &path, const std::string &content, mode_t mode = 0644);
std::string read_file(const std::string &path);
bool exists(const std::string &path);  // a dangling link counts
void make_dirs(const std::string &path, mode_t mode = 0755);
void make_file(const std::string &path, unsigned long long size);  // sparse
void remove_tree(const std::string &path);
// Empties the device tree (/mnt) and the test's /tmp, keeping the stand-in log.
void reset_device_tree();
// Empties the device tree and lays out the demo's, without a stored port.
void lay_out_demo_tree();
size_t occurrences(const std::string &text, const std::string &part);

// Captures what the calling process writes to stdout or stderr (at the fd level); text() stops it.
class Capture {
public:
    explicit Capture(int fd);
    ~Capture() { text(); }
    std::string text();

private:
    int fd_, saved_;
    std::string path_, text_;
    bool done_ = false;
};

// Whether captured stderr holds the red error line with message (written by func when given).
bool has_error(const std::string &err, const std::string &message, const std::string &func = "");

// A local action handler's result, reply text ("<null>" when none) and output.
struct Outcome {
    int rc = 0;
    std::string reply, out, err;
};
Outcome call(const std::function<int(char **)> &handler);
Outcome call(int (*handler)(const char *, char **), const char *body);

// The reply envelope forms, as cJSON's formatted printer prints them.
std::string envelope(const char *result, const char *reason, int code = 0, const char *raw_params = nullptr);
inline std::string fail(const std::string &reason) { return envelope("Fail", reason.c_str()); }
inline std::string ok(const std::string &reason) { return envelope("OK", reason.c_str()); }
inline std::string plain_ok() { return envelope("OK", nullptr); }
inline std::string coded(int code, const std::string &reason) { return envelope("Fail", reason.c_str(), code); }
inline std::string params(const std::string &reason, const std::string &raw)
{
    return envelope("OK", reason.c_str(), 0, raw.c_str());
}

// A child process with stdout and stderr going to one log file; stopped when destroyed.
class Process {
public:
    Process() = default;
    Process(const std::vector<std::string> &argv, const std::string &log_path);
    Process(Process &&other) noexcept { *this = std::move(other); }
    Process &operator=(Process &&other) noexcept;
    ~Process() { stop(); }
    pid_t pid() const { return pid_; }
    bool running();
    // Sends SIGSTOP and waits until the kernel has stopped the process.
    bool freeze();
    int wait(int timeout_ms);  // the exit status (as from waitpid), -1 on time-out
    void stop(int sig = 15);
    std::string log() const { return read_file(log_path_); }
    bool wait_for_log(const std::string &text, int timeout_ms) const;

private:
    pid_t pid_ = -1;
    int status_ = -1;
    std::string log_path_;
};

// Runs a command to its end; its exit status, and its output (stdout+stderr) when asked.
int run(const std::vector<std::string> &argv, std::string *output = nullptr, int timeout_ms = 30000);
// build/bin/webserver with these arguments. A device without a port file stores 80 at start
// and the stored port wins, so the command line's port is stored unless the test stored one.
// A launcher (a program and its arguments) runs the server when given.
Process start_server(const std::vector<std::string> &args, const std::vector<std::string> &launcher = {});
// devicesim on the routing file (and a scenario when given), serving when returned.
Process start_sim(const std::string &scenario_json = "");

// A connection to 127.0.0.1:port from the local address source (any of 127.0.0.0/8), or none.
UniqueFd connect_from(const std::string &source, int port);
bool port_accepts(const std::string &host, int port);
bool wait_for_port(const std::string &host, int port, bool open, int timeout_ms = 5000);
int free_port();
std::string local_url(int port, const std::string &path);

struct HttpRequest {
    std::string method = "GET", url{}, body{};  // the URL is sent as is, without normalisation
    std::vector<std::string> headers{};
    std::string upload_path{}, upload_name{}, upload_type{};  // a multipart upload's file part
    std::string body_file{};                                  // a body streamed from this file
    long timeout_ms = 20000;
    std::string source{};  // the local address to send from (any of 127.0.0.0/8); the default when empty
};
struct HttpReply {
    long status = 0;  // 0 when the request failed at the transport
    std::string body;
    std::map<std::string, std::string> headers;  // names in lower case
};
HttpReply http(const HttpRequest &req);
// Sends raw bytes on a new connection; all received until the peer closes or timeout_ms passes.
std::string raw_http(int port, const std::string &request, int timeout_ms = 5000);
std::string status_line(const std::string &raw);

// Temporary files of the web layer ("webs-*") and of the upgrade (".upgrade-*") in /tmp,
// counted once the requests in flight have ended (a request ends just after its reply).
int temp_files();
// The same, counted now.
int temp_files_now();
// Whether done() holds within timeout_ms, looked at every 10 ms.
bool eventually(const std::function<bool()> &done, int timeout_ms = 5000);
long long now_ms();
// Whole seconds of the monotonic clock, which session time-outs count; and a wait until it
// shows second (or a later one), so a test of time-outs depends on the clock, not on how
// long a sleep took.
long long monotonic_seconds();
void wait_for_second(long long second);
// Waits until a second has just begun and returns it: what happens next falls in it.
long long fresh_second();

// True, after printing what is left out and why, when the tests run under an emulator
// (scripts/cross.sh ARCH test names it in WEB_TEST_EMULATOR): a check that measures memory
// or time would measure the emulator too.
bool skipped_under_emulation(const std::string &check, const std::string &why);

// The whole device: the demo tree (with this routing file when given), the simulator and
// the real webserver on 127.0.0.1:port, driven over HTTP.
class Device {
public:
    explicit Device(const std::string &scenario = "", const std::string &routes = "", int port = 8080,
                    const std::vector<std::string> &launcher = {});
    // POST body to /action/device/ACTION?QUERY (query without "?").
    HttpReply call(const std::string &action, const std::string &query = "", const std::string &body = "");
    std::string login(int timeout = 600);  // as admin; the session id ("" on failure)
    Process &server() { return server_; }
    Process &sim() { return sim_; }

private:
    int port_;
    Process sim_, server_;
};

} // namespace ts
