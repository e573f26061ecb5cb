// A few worker threads for the sync and retention passes.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace kovritdev {

class WorkerPool {
public:
    explicit WorkerPool(int threads);
    // Drops the tasks not started yet and joins the threads (waiting for running tasks).
    ~WorkerPool();
    WorkerPool(const WorkerPool &) = delete;
    WorkerPool &operator=(const WorkerPool &) = delete;

    void start(std::function<void()> task);
    // Waits until no task is queued or running; `ms` < 0 waits as long as it takes. False when
    // the time ran out first.
    bool waitForDone(int ms);

private:
    void run();

    std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable idle_;
    std::deque<std::function<void()>> tasks_;
    int active_ = 0;
    bool stopping_ = false;
    std::vector<std::thread> threads_;
};

} // namespace kovritdev
