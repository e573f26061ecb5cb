#include "runwarden/Clock.h"

#include <QDateTime>
#include <QTimer>

#include <algorithm>
#include <utility>

namespace runwarden {

namespace {

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
        QTimer::singleShot(delay, context, std::move(action));
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
