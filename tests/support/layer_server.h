// The web layer in the test's own process: documents from /mnt/www, routes from the given
// text, listening on a free port of 127.0.0.1, its event loop on a thread of its own.
#pragma once

#include <atomic>
#include <string>
#include <thread>

namespace ts {

class LayerServer {
public:
    ~LayerServer() { stop(); }
    // Writes the routes to /mnt/routes.txt, opens the layer and listens; false on failure.
    // The test defines its actions after this, then calls run().
    bool open(const std::string &routes);
    void run();
    // Ends the event loop and closes the layer; once only.
    void stop();
    int port() const { return port_; }

private:
    int port_ = 0;
    bool open_ = false;
    std::atomic<int> finished_{1};
    std::thread loop_;
};

} // namespace ts
