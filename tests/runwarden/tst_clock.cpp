// The system clock's delayed calls: each runs once, in the order of its due time, on its
// context's thread, and never after its context is gone.

#include <runwarden/Clock.h>

#include <QCoreApplication>
#include <QObject>
#include <QTest>
#include <QThread>

#include <chrono>
#include <memory>
#include <vector>

using namespace runwarden;
using namespace std::chrono_literals;

class ClockTest : public QObject {
    Q_OBJECT

private slots:
    void callsRunOnceInTheOrderTheyFallDue() {
        QObject context;
        std::vector<int> order;
        Clock &clock = Clock::system();
        clock.singleShot(500ms, &context, [&] { order.push_back(500); });
        clock.singleShot(0ms, &context, [&] { order.push_back(0); });
        clock.singleShot(10ms, &context, [&] { order.push_back(10); });
        clock.singleShot(-5ms, &context, [&] { order.push_back(-5); });
        QTRY_COMPARE_WITH_TIMEOUT(order.size(), std::size_t(4), 10000);
        QCOMPARE(order, (std::vector<int>{0, -5, 10, 500}));
        // Nothing runs a second time.
        QTest::qWait(60);
        QCOMPARE(order.size(), std::size_t(4));
    }

    void callsSetFromACallRun() {
        // The ping sets its next call from the call itself.
        QObject context;
        int runs = 0;
        std::function<void()> again = [&] {
            if (++runs < 5) {
                Clock::system().singleShot(1ms, &context, again);
            }
        };
        Clock::system().singleShot(1ms, &context, again);
        QTRY_COMPARE_WITH_TIMEOUT(runs, 5, 10000);
    }

    void aCallWhoseContextIsGoneNeverRuns() {
        auto doomed = std::make_unique<QObject>();
        QObject kept;
        bool doomedRan = false;
        bool keptRan = false;
        Clock::system().singleShot(20ms, doomed.get(), [&] { doomedRan = true; });
        Clock::system().singleShot(40ms, &kept, [&] { keptRan = true; });
        doomed.reset();
        QTRY_VERIFY_WITH_TIMEOUT(keptRan, 10000);
        QVERIFY(!doomedRan);
    }

    void aCallRunsOnItsContextsThread() {
        QThread worker;
        worker.start();
        QObject onWorker;
        onWorker.moveToThread(&worker);
        std::atomic<QThread *> ranOn{nullptr};
        // Set from this thread for an object of the worker.
        Clock::system().singleShot(1ms, &onWorker, [&] { ranOn = QThread::currentThread(); });
        QTRY_VERIFY_WITH_TIMEOUT(ranOn.load() != nullptr, 10000);
        QCOMPARE(ranOn.load(), &worker);
        // Set on the worker for an object of its own.
        ranOn = nullptr;
        QMetaObject::invokeMethod(&onWorker, [&] {
            Clock::system().singleShot(1ms, &onWorker, [&] { ranOn = QThread::currentThread(); });
        });
        QTRY_VERIFY_WITH_TIMEOUT(ranOn.load() != nullptr, 10000);
        QCOMPARE(ranOn.load(), &worker);
        worker.quit();
        worker.wait();
    }
};

QTEST_GUILESS_MAIN(ClockTest)
#include "tst_clock.moc"
