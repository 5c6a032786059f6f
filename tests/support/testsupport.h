// Helpers shared by the tests. Every test binary runs in the private namespace that
// tests/isolate.sh makes; main() refuses to run anywhere else.
#pragma once

#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

namespace ts {

// Binaries and sources of this build.
std::string bin_path(const std::string &name);
std::string source_path(const std::string &relative);

// Files.
void write_file(const std::string &path, const std::string &content, mode_t mode = 0644);
std::string read_file(const std::string &path);
bool exists(const std::string &path);
long file_size(const std::string &path);
void make_dirs(const std::string &path, mode_t mode = 0755);
void remove_tree(const std::string &path);
// Empties the device tree (/mnt) and the test's /tmp, keeping the stand-in log.
void reset_device_tree();

// Captures what the calling process writes to stdout or stderr (at the fd level).
class Capture {
public:
    explicit Capture(int fd);
    ~Capture();
    std::string text();  // stops capturing on first call
private:
    int fd_;
    int saved_ = -1;
    std::string path_;
    bool done_ = false;
    std::string text_;
};

// A child process with stdout and stderr going to one log file.
class Process {
public:
    Process() = default;
    Process(const std::vector<std::string> &argv, const std::string &log_path);
    Process(Process &&other) noexcept;
    Process &operator=(Process &&other) noexcept;
    ~Process();

    pid_t pid() const { return pid_; }
    bool running();
    // Waits up to timeout_ms; returns the exit status (as from waitpid) or -1 on time-out.
    int wait(int timeout_ms);
    void stop(int sig = 15);
    std::string log() const;
    // Waits until the log holds the text; false on time-out.
    bool wait_for_log(const std::string &text, int timeout_ms) const;

private:
    pid_t pid_ = -1;
    int status_ = -1;
    std::string log_path_;
};

// Runs a command to its end; returns its exit status and fills output (stdout+stderr).
int run(const std::vector<std::string> &argv, std::string *output = nullptr, int timeout_ms = 30000);

// TCP helpers on the test's private network.
bool port_accepts(const std::string &host, int port);
bool wait_for_port(const std::string &host, int port, bool open, int timeout_ms);
int free_port();

struct HttpReply {
    long status = 0;  // 0 when the request failed at the transport
    std::string body;
    std::map<std::string, std::string> headers;  // names in lower case
    std::string error;
};

struct HttpRequest {
    std::string method = "GET";
    std::string url;  // sent as is, without normalisation
    std::string body;
    std::vector<std::string> headers;
    // multipart upload: field name, file path, file name, content type
    std::string upload_field, upload_path, upload_name, upload_type;
    std::string body_file;  // body streamed from this file
    long timeout_ms = 20000;
};

HttpReply http(const HttpRequest &req);
HttpReply http_get(const std::string &url);
HttpReply http_post(const std::string &url, const std::string &body);

// Sends raw bytes on a new connection and returns everything received until the peer
// closes or timeout_ms passes.
std::string raw_http(int port, const std::string &request, int timeout_ms = 5000);

// Milliseconds of the monotonic clock.
long long now_ms();

} // namespace ts
