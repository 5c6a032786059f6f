// One event loop per web server thread: everything that waits (a client's bytes, a device
// application's reply, a time-out, the end of a piece of blocking work) is a callback run by
// this loop, so no request ever waits for another one.
//
// Threads: a loop is driven by one thread at a time (the one inside run_once or an open
// Scope); watches, timers and parts are made and dropped on that thread. post() is the one
// call that any thread may make.
#pragma once

#include "common/owners.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

class EventLoop;

// Something that lives as long as a loop and goes before it (queues, a worker thread).
class LoopPart {
public:
    virtual ~LoopPart() = default;
};

class EventLoop {
    void drop_watch(uint64_t id);
    void drop_timer(uint64_t id);

public:
    using Clock = std::chrono::steady_clock;
    using WatchFn = std::function<void(uint32_t events)>;

    EventLoop();
    ~EventLoop();
    EventLoop(const EventLoop &) = delete;
    EventLoop &operator=(const EventLoop &) = delete;

    // False when the kernel refused the loop's epoll or eventfd.
    bool ok() const { return epoll_ && wake_; }

    // The loop driven by the calling thread, or nullptr.
    static EventLoop *current();
    bool on_loop_thread() const { return owner_.load(std::memory_order_acquire) == std::this_thread::get_id(); }

    // Marks the calling thread as the loop's driver for its lifetime (code outside run_once,
    // such as libmicrohttpd's callbacks, then finds the loop through current()).
    class Scope {
    public:
        explicit Scope(EventLoop &loop);
        ~Scope();
        Scope(const Scope &) = delete;
        Scope &operator=(const Scope &) = delete;

    private:
        EventLoop *previous_;
        EventLoop &loop_;
        std::thread::id previous_owner_;
    };

    // What a watch or a timer hands out: dropping it ends the watch or cancels the timer.
    template <void (EventLoop::*drop)(uint64_t)>
    class Handle {
    public:
        Handle() = default;
        Handle(Handle &&other) noexcept : loop_(std::exchange(other.loop_, nullptr)), id_(other.id_) {}
        Handle &operator=(Handle &&other) noexcept
        {
            if (this != &other) {
                reset();
                loop_ = std::exchange(other.loop_, nullptr);
                id_ = other.id_;
            }
            return *this;
        }
        ~Handle() { reset(); }
        void reset()
        {
            if (loop_)
                (std::exchange(loop_, nullptr)->*drop)(id_);
        }
        explicit operator bool() const { return loop_ != nullptr; }

    private:
        friend class EventLoop;
        Handle(EventLoop *loop, uint64_t id) : loop_(loop), id_(id) {}
        EventLoop *loop_ = nullptr;
        uint64_t id_ = 0;
    };

    // A watched descriptor: fn(events) runs on the loop while the watch lives (level-triggered).
    // An empty watch when the kernel refuses the descriptor. Drop a watch before its
    // descriptor is closed: the number may be reused at once for a descriptor watched anew.
    using Watch = Handle<&EventLoop::drop_watch>;
    Watch watch(int fd, uint32_t events, WatchFn fn);

    // A one-shot timer: fn runs on the loop once the delay has passed, unless the timer is
    // dropped first.
    using Timer = Handle<&EventLoop::drop_timer>;
    Timer after(std::chrono::milliseconds delay, std::function<void()> fn);

    // Runs fn on the loop at its next turn; any thread may call it.
    void post(std::function<void()> fn);

    // One turn: waits up to max_wait_ms for an event (less when a timer falls due sooner, not at
    // all when work was posted), then runs the callbacks of what became ready, the timers that
    // fell due and the posted work.
    void run_once(int max_wait_ms);

    // The part of type T, made on first use with T(EventLoop &).
    template <class T>
    T &part()
    {
        for (auto &[key, part] : parts_)
            if (key == &part_key<T>)
                return static_cast<T &>(*part);
        auto made = std::make_unique<T>(*this);
        T &ref = *made;
        parts_.emplace_back(&part_key<T>, std::move(made));
        return ref;
    }
    // Destroys the parts, newest first, then runs what their going posted.
    void close_parts();

private:
    template <class T>
    static inline const char part_key = 0;

    struct WatchEntry {
        int fd;
        WatchFn fn;
    };
    struct TimerEntry {
        Clock::time_point due;
        std::function<void()> fn;
    };

    int wait_ms(int max_wait_ms) const;
    void run_timers();
    void run_posted();

    UniqueFd epoll_;
    UniqueFd wake_;  // eventfd written by post() from other threads
    std::atomic<std::thread::id> owner_{};
    uint64_t next_id_ = 1;
    std::map<uint64_t, std::shared_ptr<WatchEntry>> watches_;
    std::map<uint64_t, TimerEntry> timers_;
    std::multimap<Clock::time_point, uint64_t> due_;
    mutable std::mutex posted_mutex_;
    std::vector<std::function<void()>> posted_;
    std::atomic<bool> wake_pending_{false};
    std::vector<std::pair<const void *, std::unique_ptr<LoopPart>>> parts_;
};
