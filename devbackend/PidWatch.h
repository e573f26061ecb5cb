// Notices when another process (the client that started the backend) has ended, so that the
// backend never outlives it: a pidfd that becomes readable when the process exits, or, where
// pidfds are not available, a liveness check every 250 ms.
#pragma once

#include <QObject>
#include <QTimer>

#include <functional>
#include <memory>
#include <sys/types.h>

class QSocketNotifier;

namespace kovritdev {

class PidWatch : public QObject {
    Q_OBJECT
public:
    enum class Method { automatic, polling };

    // `gone` is called once, on the main thread, when the process has ended (at once when it
    // does not exist). `automatic` uses a pidfd where the system has them.
    PidWatch(pid_t pid, std::function<void()> gone, Method method = Method::automatic,
             QObject *parent = nullptr);
    ~PidWatch() override;

    bool usesPidfd() const { return pidfd_ >= 0; }

private:
    void fire();

    pid_t pid_;
    int pidfd_ = -1;
    std::function<void()> gone_;
    std::unique_ptr<QSocketNotifier> notifier_;
    QTimer poll_;
    bool fired_ = false;
};

} // namespace kovritdev
