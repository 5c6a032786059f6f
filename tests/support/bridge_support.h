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

inline bool has(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

// Writes the routing file at its device path and reads it; the reader's result.
int load_routes(const std::string &text);

// A reply message {"Command", "Response"} with its terminating zero, as applications send it.
std::string msg(const std::string &command, const std::string &response);

// A device application bound at url (NN_REP or NN_PAIR): the i-th request is answered with
// the messages of answers[i] as they stand; later requests get no answer.
class Peer {
public:
    Peer(const std::string &url, int protocol, std::vector<std::vector<std::string>> answers);
    ~Peer();
    std::vector<std::string> requests();  // as received, terminating zero included

private:
    int sock_;
    std::atomic<bool> stop_{false};
    std::mutex mutex_;
    std::vector<std::string> requests_;
    std::vector<std::vector<std::string>> answers_;
    std::thread thread_;
};

// Relays command as the dispatcher does (route lookup, exchange, close): the exchange's
// result, or -1 when there is no route.
int relay(const std::string &command, const char *payload, std::string *reply, std::string *reason = nullptr);

// Starts devicesim on the routing file (and a scenario when given) and waits until it serves.
ts::Process start_sim(const std::string &scenario_json = "");

} // namespace bs
