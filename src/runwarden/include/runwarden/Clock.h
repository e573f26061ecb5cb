#pragma once

// The one source of time and timers for the client's logic: the model, the backend launcher,
// the request client's freshness check and the updater ask it for the time and for delayed
// calls. The product uses the system clock; tests use a ManualClock and move time forward
// themselves, so that nothing they check depends on how fast the machine is.

#include <QObject>
#include <QPointer>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

class QDateTime;

namespace runwarden {

class Clock {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    virtual ~Clock() = default;

    /// Monotonic time, for durations (how long a backend ran).
    virtual TimePoint steadyNow() const = 0;
    /// Wall time in milliseconds since the Unix epoch (reply timestamps).
    virtual std::int64_t epochMilliseconds() const = 0;
    /// The wall time as a UTC date.
    QDateTime currentDateTimeUtc() const;
    /// Calls action once, on context's thread, delay from now; never after context is gone.
    virtual void singleShot(std::chrono::milliseconds delay, QObject *context,
                            std::function<void()> action) = 0;

    /// The system's clock and Qt's timers.
    static Clock &system();
};

/// A clock that moves only when told to. Timers fall due as advance() passes their time, in
/// the order of their due times (ties in the order they were set).
class ManualClock final : public Clock {
public:
    /// Starts at the given wall time (a fixed day by default) and an arbitrary steady time; the
    /// wall time moves with advance().
    explicit ManualClock(std::int64_t epochMilliseconds = 1'767'225'600'000);

    TimePoint steadyNow() const override { return steady_; }
    /// May be read from any thread (a test backend stamps its replies with it).
    std::int64_t epochMilliseconds() const override;
    void singleShot(std::chrono::milliseconds delay, QObject *context,
                    std::function<void()> action) override;

    /// Moves time forward by `by`, calling every timer that falls due on the way (timers set by
    /// those calls included, when they fall due within the same span).
    void advance(std::chrono::milliseconds by);
    /// Moves the wall time alone (no timers fall due); may be called from any thread. A test
    /// backend moves it by a millisecond for each reply it stamps, so that its replies are
    /// fresh and strictly newer however slowly the machine runs.
    void advanceWallTime(std::chrono::milliseconds by);
    /// Timers not yet due whose context still lives.
    std::size_t pendingTimers() const;

private:
    struct Timer {
        std::chrono::milliseconds due;
        std::uint64_t order;
        QPointer<QObject> context;
        std::function<void()> action;
    };

    TimePoint steady_;
    std::atomic<std::int64_t> epoch_;
    std::chrono::milliseconds elapsed_{0};
    std::uint64_t nextOrder_ = 0;
    std::vector<Timer> timers_;
};

} // namespace runwarden
