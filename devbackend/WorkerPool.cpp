#include "WorkerPool.h"

#include <chrono>

namespace kovritdev {

WorkerPool::WorkerPool(int threads) {
    for (int i = 0; i < threads; ++i) {
        threads_.emplace_back([this] { run(); });
    }
}

WorkerPool::~WorkerPool() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
        tasks_.clear();
    }
    wake_.notify_all();
    for (auto &thread : threads_) {
        thread.join();
    }
}

void WorkerPool::start(std::function<void()> task) {
    {
        const std::lock_guard lock(mutex_);
        if (stopping_) {
            return;
        }
        tasks_.push_back(std::move(task));
    }
    wake_.notify_one();
}

bool WorkerPool::waitForDone(int ms) {
    std::unique_lock lock(mutex_);
    const auto done = [this] { return tasks_.empty() && active_ == 0; };
    if (ms < 0) {
        idle_.wait(lock, done);
        return true;
    }
    return idle_.wait_for(lock, std::chrono::milliseconds(ms), done);
}

void WorkerPool::run() {
    for (;;) {
        std::function<void()> task;
        {
            std::unique_lock lock(mutex_);
            wake_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
            if (stopping_) {
                return;
            }
            task = std::move(tasks_.front());
            tasks_.pop_front();
            ++active_;
        }
        task();
        task = nullptr; // captures go before the pool counts the task done
        {
            const std::lock_guard lock(mutex_);
            --active_;
        }
        idle_.notify_all();
    }
}

} // namespace kovritdev
