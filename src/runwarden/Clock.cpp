#include "runwarden/Clock.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QThread>
#include <QTimer>
#include <QTimerEvent>

#include <algorithm>
#include <utility>

namespace runwarden {

namespace {

// Runs delayed calls from one Qt timer each on an object of the calling thread. QTimer's own
// single shots make, connect and later delete an object per call, which for the 100 ms ping
// cost more than the rest of arming it.
class TimerHost final : public QObject {
public:
    void add(std::chrono::milliseconds delay, QObject *context, std::function<void()> action) {
        // The kind of timer QTimer's single shots choose: precise under two seconds.
        const auto due = std::max(delay, std::chrono::milliseconds(0));
        const int id =
            startTimer(due, due < std::chrono::seconds(2) ? Qt::PreciseTimer : Qt::CoarseTimer);
        if (id == 0) {
            QTimer::singleShot(delay, context, std::move(action));
            return;
        }
        // A call left over from an event dispatcher that is gone (an application made again)
        // may carry the same number: only the new timer's call may answer to it.
        std::erase_if(calls_, [id](const Call &call) { return call.id == id; });
        calls_.push_back({id, context, std::move(action)});
    }

protected:
    void timerEvent(QTimerEvent *event) override {
        const int id = event->timerId();
        killTimer(id);
        const auto found = std::find_if(calls_.begin(), calls_.end(),
                                        [id](const Call &call) { return call.id == id; });
        if (found == calls_.end()) {
            return;
        }
        Call call = std::move(*found);
        calls_.erase(found);
        if (call.context) {
            call.action();
        }
    }

private:
    struct Call {
        int id;
        QPointer<QObject> context;
        std::function<void()> action;
    };
    // Few at a time (the ping, a relaunch, an update check): a list is the cheapest to search.
    std::vector<Call> calls_;
};

class SystemClock final : public Clock {
public:
    TimePoint steadyNow() const override { return std::chrono::steady_clock::now(); }
    std::int64_t epochMilliseconds() const override {
        return std::chrono::duration_cast<std::chrono::milliseconds>(
                   std::chrono::system_clock::now().time_since_epoch())
            .count();
    }
    void singleShot(std::chrono::milliseconds delay, QObject *context,
                    std::function<void()> action) override {
        // The host serves calls made on the application's thread for objects that live there
        // (all of the client's logic); anything else is left to QTimer, which moves the call
        // to the context's thread.
        const QCoreApplication *app = QCoreApplication::instance();
        if (context == nullptr || app == nullptr || app->thread() != QThread::currentThread() ||
            context->thread() != QThread::currentThread()) {
            QTimer::singleShot(delay, context, std::move(action));
            return;
        }
        // One host for the process's life, like the clock itself.
        static TimerHost *const host = new TimerHost;
        host->add(delay, context, std::move(action));
    }
};

} // namespace

QDateTime Clock::currentDateTimeUtc() const {
    return QDateTime::fromMSecsSinceEpoch(epochMilliseconds(), Qt::UTC);
}

Clock &Clock::system() {
    static SystemClock clock;
    return clock;
}

ManualClock::ManualClock(std::int64_t epochMilliseconds)
    : steady_(std::chrono::steady_clock::time_point(std::chrono::hours(1))),
      epoch_(epochMilliseconds) {}

std::int64_t ManualClock::epochMilliseconds() const {
    return epoch_.load();
}

void ManualClock::advanceWallTime(std::chrono::milliseconds by) {
    epoch_.fetch_add(std::max(by, std::chrono::milliseconds(0)).count());
}

void ManualClock::singleShot(std::chrono::milliseconds delay, QObject *context,
                             std::function<void()> action) {
    timers_.push_back({elapsed_ + std::max(delay, std::chrono::milliseconds(0)), nextOrder_++,
                       QPointer<QObject>(context), std::move(action)});
}

void ManualClock::advance(std::chrono::milliseconds by) {
    const std::chrono::milliseconds end = elapsed_ + std::max(by, std::chrono::milliseconds(0));
    for (;;) {
        const auto next =
            std::min_element(timers_.begin(), timers_.end(), [](const Timer &a, const Timer &b) {
                return a.due != b.due ? a.due < b.due : a.order < b.order;
            });
        if (next == timers_.end() || next->due > end) {
            break;
        }
        Timer timer = std::move(*next);
        timers_.erase(next);
        const std::chrono::milliseconds step = timer.due - elapsed_;
        steady_ += step;
        epoch_ += step.count();
        elapsed_ = timer.due;
        if (timer.context) {
            timer.action();
        }
    }
    const std::chrono::milliseconds rest = end - elapsed_;
    steady_ += rest;
    epoch_ += rest.count();
    elapsed_ = end;
}

std::size_t ManualClock::pendingTimers() const {
    return static_cast<std::size_t>(
        std::count_if(timers_.begin(), timers_.end(),
                      [](const Timer &timer) { return !timer.context.isNull(); }));
}

} // namespace runwarden
