#include "common/event_loop.h"

#include <cerrno>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {

thread_local EventLoop *current_loop = nullptr;

// Events taken from the kernel per wait; more stay ready for the next turn.
constexpr int kEventsPerWait = 64;
// Marks the wake-up eventfd among the watches' ids (which start at 1).
constexpr uint64_t kWakeId = 0;

}  // namespace

EventLoop::EventLoop()
    : epoll_(epoll_create1(EPOLL_CLOEXEC)), wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (!ok())
        return;
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = kWakeId;
    if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, wake_.get(), &ev) != 0)
        wake_.reset();
}

EventLoop::~EventLoop() { close_parts(); }

EventLoop *EventLoop::current() { return current_loop; }

EventLoop::Scope::Scope(EventLoop &loop)
    : previous_(current_loop), loop_(loop), previous_owner_(loop.owner_.load(std::memory_order_relaxed))
{
    current_loop = &loop;
    loop.owner_.store(std::this_thread::get_id(), std::memory_order_release);
}

EventLoop::Scope::~Scope()
{
    loop_.owner_.store(previous_owner_, std::memory_order_release);
    current_loop = previous_;
}

EventLoop::Watch EventLoop::watch(int fd, uint32_t events, WatchFn fn)
{
    uint64_t id = next_id_++;
    epoll_event ev{};
    ev.events = events;
    ev.data.u64 = id;
    if (!ok() || epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &ev) != 0)
        return {};
    watches_.emplace(id, std::make_shared<WatchEntry>(WatchEntry{fd, std::move(fn)}));
    return {this, id};
}

void EventLoop::drop_watch(uint64_t id)
{
    auto it = watches_.find(id);
    if (it == watches_.end())
        return;
    epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, it->second->fd, nullptr);
    watches_.erase(it);
}

EventLoop::Timer EventLoop::after(std::chrono::milliseconds delay, std::function<void()> fn)
{
    uint64_t id = next_id_++;
    Clock::time_point due = Clock::now() + delay;
    timers_.emplace(id, TimerEntry{due, std::move(fn)});
    due_.emplace(due, id);
    return {this, id};
}

void EventLoop::drop_timer(uint64_t id)
{
    auto it = timers_.find(id);
    if (it == timers_.end())
        return;
    auto [first, last] = due_.equal_range(it->second.due);
    for (auto d = first; d != last; ++d) {
        if (d->second == id) {
            due_.erase(d);
            break;
        }
    }
    timers_.erase(it);
}

void EventLoop::post(std::function<void()> fn)
{
    {
        std::lock_guard<std::mutex> lock(posted_mutex_);
        posted_.push_back(std::move(fn));
    }
    // The loop's own thread runs the work at the end of its turn without being woken; another
    // thread wakes it once until that turn takes the work.
    if (!on_loop_thread() && !wake_pending_.exchange(true)) {
        uint64_t one = 1;
        ssize_t n = write(wake_.get(), &one, sizeof one);
        (void)n;  // a saturated counter still leaves the loop woken
    }
}

int EventLoop::wait_ms(int max_wait_ms) const
{
    {
        std::lock_guard<std::mutex> lock(posted_mutex_);
        if (!posted_.empty())
            return 0;
    }
    if (due_.empty())
        return max_wait_ms;
    auto left = std::chrono::ceil<std::chrono::milliseconds>(due_.begin()->first - Clock::now()).count();
    if (left <= 0)
        return 0;
    return max_wait_ms < 0 || left < max_wait_ms ? static_cast<int>(left) : max_wait_ms;
}

void EventLoop::run_timers()
{
    Clock::time_point now = Clock::now();
    while (!due_.empty() && due_.begin()->first <= now) {
        uint64_t id = due_.begin()->second;
        due_.erase(due_.begin());
        auto it = timers_.find(id);
        std::function<void()> fn = std::move(it->second.fn);
        timers_.erase(it);
        fn();
    }
}

void EventLoop::run_posted()
{
    // Work posted while this runs waits for the next turn, so a function that posts itself
    // again cannot keep the loop from its events.
    std::vector<std::function<void()>> work;
    {
        std::lock_guard<std::mutex> lock(posted_mutex_);
        work.swap(posted_);
    }
    for (auto &fn : work)
        fn();
}

void EventLoop::run_once(int max_wait_ms)
{
    Scope scope(*this);
    epoll_event events[kEventsPerWait];
    int n = ok() ? epoll_wait(epoll_.get(), events, kEventsPerWait, wait_ms(max_wait_ms)) : 0;
    for (int i = 0; i < n; ++i) {
        // Copied out: x86-64 packs epoll_event, and a reference to its 64-bit member (map's
        // find takes one) would be misaligned.
        uint64_t id = events[i].data.u64;
        if (id == kWakeId) {
            uint64_t count = 0;
            ssize_t got = read(wake_.get(), &count, sizeof count);
            (void)got;  // nothing to read: an earlier turn took the wake-up
            // Cleared before the posted work is taken: a post after this point wakes again.
            wake_pending_ = false;
            continue;
        }
        auto it = watches_.find(id);
        if (it == watches_.end())
            continue;  // dropped by an earlier callback of this turn
        std::shared_ptr<WatchEntry> entry = it->second;  // the callback may drop its own watch
        entry->fn(events[i].events);
    }
    run_timers();
    run_posted();
}

void EventLoop::close_parts()
{
    Scope scope(*this);
    while (!parts_.empty()) {
        std::unique_ptr<LoopPart> part = std::move(parts_.back().second);
        parts_.pop_back();
        part.reset();
    }
    run_posted();
}
