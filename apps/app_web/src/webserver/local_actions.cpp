#include "webserver/local_actions.h"

#include "common/log.h"
#include "webserver/dispatcher.h"

#include <mutex>

void LocalActions::run(bool blocking, WebsHold hold, std::function<void()> step)
{
    waiting_.push_back({blocking, std::move(hold), std::move(step)});
    next();
}

void LocalActions::next()
{
    while (!busy_ && !waiting_.empty()) {
        Step step = std::move(waiting_.front());
        waiting_.pop_front();
        if (step.hold && websClientGone(step.hold.get()))
            continue;
        busy_ = true;
        if (!step.blocking) {
            {
                std::lock_guard<std::mutex> lock(mutex);
                step.fn();
            }
            busy_ = false;
            continue;
        }
        // The lines of this turn come before those the worker writes.
        log_flush();
        auto running = std::make_shared<Step>(std::move(step));
        std::weak_ptr<bool> alive = alive_;
        worker_.run(
            [running] {
                std::lock_guard<std::mutex> lock(mutex);
                running->fn();
            },
            [this, alive, running]() mutable {
                running.reset();
                if (alive.expired())
                    return;
                busy_ = false;
                next();
            });
    }
}

LocalActions &local_actions() { return EventLoop::current()->part<LocalActions>(); }
