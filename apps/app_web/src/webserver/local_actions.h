// The actions the server answers itself run one at a time, in arrival order: a quick one at
// once on the event loop when no other runs or waits, one that blocks (commands, the card
// walk, pauses) on the worker thread while the event loop goes on. Each step holds mutex
// from its handler until its reply is written.
#pragma once

#include "common/event_loop.h"
#include "common/worker.h"
#include "webs/webs.h"

#include <deque>
#include <functional>
#include <memory>

class LocalActions : public LoopPart {
public:
    explicit LocalActions(EventLoop &loop) : worker_(loop) {}
    // The running step ends first; steps not started are dropped (their requests are
    // answered by the web layer as their holds go).
    ~LocalActions() override = default;

    // Runs step on its turn; a step of a request whose client went away is passed over.
    void run(bool blocking, WebsHold hold, std::function<void()> step);

private:
    struct Step {
        bool blocking;
        WebsHold hold;
        std::function<void()> fn;
    };
    void next();

    std::deque<Step> waiting_;
    bool busy_ = false;
    // The worker's word that a step ended reaches the loop after this part may have gone.
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
    Worker worker_;  // declared last: it goes first, after its running step
};

// The loop's local actions.
LocalActions &local_actions();
