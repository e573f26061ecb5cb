#include "MainThreadQueue.h"

namespace kovritdev {

void MainThreadQueue::post(std::function<void()> task) {
    bool wake = false;
    {
        const std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(task));
        wake = !wakeupPending_;
        wakeupPending_ = true;
    }
    if (wake) {
        QMetaObject::invokeMethod(this, "drain", Qt::QueuedConnection);
    }
}

void MainThreadQueue::drain() {
    std::deque<std::function<void()>> batch;
    {
        const std::lock_guard lock(mutex_);
        batch.swap(tasks_);
        wakeupPending_ = false;
    }
    for (auto &task : batch) {
        task();
    }
}

} // namespace kovritdev
