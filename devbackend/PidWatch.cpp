#include "PidWatch.h"

#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <sys/syscall.h>
#include <unistd.h>

namespace kovritdev {

namespace {
bool processExists(pid_t pid) {
    return ::kill(pid, 0) == 0 || errno == EPERM;
}
} // namespace

PidWatch::PidWatch(pid_t pid, std::function<void()> gone, Method method, QObject *parent)
    : QObject(parent), pid_(pid), gone_(std::move(gone)) {
    errno = 0;
#ifdef SYS_pidfd_open
    if (method == Method::automatic) {
        pidfd_ = static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0));
    }
#endif
    if (pidfd_ >= 0) {
        notifier_ = std::make_unique<QSocketNotifier>(pidfd_, QSocketNotifier::Read);
        connect(notifier_.get(), &QSocketNotifier::activated, this, [this] { fire(); });
    } else if (errno == ESRCH) {
        QTimer::singleShot(0, this, [this] { fire(); });
    } else {
        poll_.setInterval(250);
        connect(&poll_, &QTimer::timeout, this, [this] {
            if (!processExists(pid_)) {
                fire();
            }
        });
        poll_.start();
        if (!processExists(pid_)) {
            QTimer::singleShot(0, this, [this] { fire(); });
        }
    }
}

PidWatch::~PidWatch() {
    notifier_.reset();
    if (pidfd_ >= 0) {
        ::close(pidfd_);
    }
}

void PidWatch::fire() {
    if (fired_) {
        return;
    }
    fired_ = true;
    poll_.stop();
    if (notifier_) {
        notifier_->setEnabled(false);
    }
    gone_();
}

} // namespace kovritdev
