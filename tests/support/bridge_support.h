// Helpers of the device message bridge tests: routing files, device applications inside the
// test, the relay as the dispatcher runs it, and the device simulator.
#pragma once

#include "testsupport.h"

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace bs {

// Writes the routing file at its device path and reads it; the reader's result.
int load_routes(const std::string &text);

// A reply message {"Command", "Response"} with its terminating zero, as applications send it.
std::string msg(const std::string &command, const std::string &response);

// A device application inside the test, bound at url with protocol (NN_REP or NN_PAIR). The
// i-th request is answered with answers[i], sent as they stand (several replies only make
// sense on a pair socket); later requests get no answer.
class Peer {
public:
    Peer(const std::string &url, int protocol, std::vector<std::vector<std::string>> answers);
    ~Peer();
    std::vector<std::string> requests();  // as received, terminating zero included

private:
    void run();
    int sock_;
    std::atomic<bool> stop_{false};
    std::mutex mutex_;
    std::vector<std::string> requests_;
    std::vector<std::vector<std::string>> answers_;
    std::thread thread_;
};

// Relays command as the dispatcher does: route lookup, exchange, close. The exchange's
// result, or -1 when there is no route.
int relay(const std::string &command, const char *payload, std::string *reply, std::string *reason = nullptr);

// Starts the simulator on the routing file (and a scenario file when given) and waits
// until it serves; its output goes to /tmp/devicesim.log.
ts::Process start_sim(const std::string &scenario_json = "");

} // namespace bs
