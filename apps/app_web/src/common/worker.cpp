#include "common/worker.h"

Worker::~Worker()
{
    // The running piece ends first (a piece cannot be cut short); pieces not started are
    // dropped with the worker.
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_one();
    if (thread_.joinable())
        thread_.join();
}

void Worker::run(std::function<void()> work, std::function<void()> then)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        pieces_.push_back({std::move(work), std::move(then)});
        if (!thread_.joinable())
            thread_ = std::thread([this] { serve(); });
    }
    wake_.notify_one();
}

void Worker::serve()
{
    for (;;) {
        Piece piece;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            wake_.wait(lock, [this] { return stopping_ || !pieces_.empty(); });
            if (stopping_)
                return;
            piece = std::move(pieces_.front());
            pieces_.pop_front();
        }
        piece.work();
        loop_.post(std::move(piece.then));
    }
}
