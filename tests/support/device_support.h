// The whole device for system tests: the demo tree, the device simulator on its routing
// file, and the real webserver on 127.0.0.1, driven over HTTP.
#pragma once

#include "server_support.h"

#include <memory>
#include <string>

namespace ts {

class Device {
public:
    // Lays out the demo tree (plus routing and scenario files when given), starts the
    // simulator and the server on port, and waits until both serve.
    explicit Device(int port = 8080, const std::string &scenario = "", const std::string &command_para = "");
    ~Device();

    // POST body to /action/device/ACTION?QUERY (query without "?").
    HttpReply call(const std::string &action, const std::string &query = "", const std::string &body = "");
    // Logs in as admin with the default password's digest; the session id ("" on failure).
    std::string login(int timeout = 600);
    std::string server_log() const;
    std::string sim_log() const;
    int port() const { return port_; }
    ServerProcess &server() { return *server_; }
    Process &sim() { return *sim_; }

private:
    int port_;
    std::unique_ptr<Process> sim_;
    std::unique_ptr<ServerProcess> server_;
};

// How often part occurs in text (a log, say).
size_t occurrences(const std::string &text, const std::string &part);


// The envelope forms, printed as the server prints them.
std::string coded_failure(int code, const std::string &reason);
std::string failure_text(const std::string &reason);
std::string success_text(const std::string &reason);
std::string plain_ok();
// The success form with a payload inserted raw under "Parameters".
std::string params_success(const std::string &reason, const std::string &raw);

} // namespace ts
