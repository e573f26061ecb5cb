// A client stand-in: runs the executable given as its first argument through the runner and
// prints "child <pid>" once it has started. The test kills this program with SIGKILL and checks
// that the child does not stay behind.
#include <runwarden/ProcessManager.h>

#include <QCoreApplication>

#include <cstdio>

int main(int argc, char **argv) {
    QCoreApplication app(argc, argv);
    if (argc < 2) {
        std::fputs("usage: runwarden_helper_parent <executable>\n", stderr);
        return 2;
    }
    runwarden::ProcessManager runner;
    QObject::connect(&runner, &runwarden::ProcessManager::taskStarted, [](qint64 pid) {
        std::printf("child %lld\n", static_cast<long long>(pid));
        std::fflush(stdout);
    });
    QObject::connect(&runner, &runwarden::ProcessManager::loopFinished, &app,
                     &QCoreApplication::quit);
    if (!runner.RunProces(std::optional<QString>(QString::fromLocal8Bit(argv[1]))))
        return 1;
    return app.exec();
}
