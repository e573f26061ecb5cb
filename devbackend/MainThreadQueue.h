// Hands work from other threads (the HTTP server's, the sync workers') to the thread that owns
// this object, through the event loop. The tasks travel under a plain mutex and the event that
// wakes the owner carries no data of ours, so the hand-over is visible to race checkers.
#pragma once

#include <QObject>

#include <deque>
#include <functional>
#include <mutex>

namespace kovritdev {

class MainThreadQueue : public QObject {
    Q_OBJECT
public:
    explicit MainThreadQueue(QObject *parent = nullptr) : QObject(parent) {}

    // Runs `task` on this object's thread, after the tasks posted before it. Any thread.
    void post(std::function<void()> task);

private slots:
    void drain();

private:
    std::mutex mutex_;
    std::deque<std::function<void()>> tasks_;
    bool wakeupPending_ = false;
};

} // namespace kovritdev
