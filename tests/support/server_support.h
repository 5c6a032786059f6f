// The device tree of the demo and the real webserver binary running on it, for tests that
// drive the server from outside.
#pragma once

#include "testsupport.h"

#include <string>
#include <vector>

namespace ts {

constexpr char kWebRoot[] = "/mnt/app/web_root";
constexpr char kPortFile[] = "/mnt/usr/config/app_parameters/WebServerParameter.json";

// Stores the web port in the port settings, as the device keeps it.
void store_port(int port);

// Empties the device tree and lays out the demo's: document root with its route and
// authentication files, the settings directory, the sample recordings.
void lay_out_demo_tree();

// build/bin/webserver with the given arguments, its output in a log file.
class ServerProcess {
public:
    explicit ServerProcess(const std::vector<std::string> &args);
    // Waits until host:port accepts connections; false when the server never got there.
    bool wait_ready(int port, const std::string &host = "127.0.0.1", int timeout_ms = 5000);
    std::string log() const { return process_.log(); }
    Process &process() { return process_; }

private:
    Process process_;
};

// "http://127.0.0.1:PORT" followed by path.
std::string local_url(int port, const std::string &path);

// Temporary files of the web layer in /tmp, counted once the requests in flight have ended
// (a request ends just after its reply has left).
int layer_temp_files();

// Peak resident memory of a process in KiB (VmHWM), -1 when unknown.
long peak_memory_kib(pid_t pid);

} // namespace ts
