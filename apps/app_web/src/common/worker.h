// One thread for work that blocks (commands, the card walk, sleeps): the event loop hands a
// piece over and goes on; what follows the piece runs on the loop again.
#pragma once

#include "common/event_loop.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

class Worker {
public:
    explicit Worker(EventLoop &loop) : loop_(loop) {}
    ~Worker();
    Worker(const Worker &) = delete;
    Worker &operator=(const Worker &) = delete;

    // Runs work on the worker thread, after the pieces handed over before it, then posts then
    // to the loop. The thread starts with the first piece.
    void run(std::function<void()> work, std::function<void()> then);

private:
    struct Piece {
        std::function<void()> work, then;
    };
    void serve();

    EventLoop &loop_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Piece> pieces_;
    bool stopping_ = false;
    std::thread thread_;
};
