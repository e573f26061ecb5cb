// A second copy of the application in miniature: takes the single-instance guard, prints
// "ready" when it is the running instance and "show requested" whenever another start asks
// it to show its window.
#include <runwarden/ExitAppIfAlreadyOpen.h>

#include <QCoreApplication>

#include <cstdio>

int main(int argc, char **argv) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("runwarden-guard-helper"));
    runwarden::InstanceGuard guard;
    QObject::connect(&guard, &runwarden::InstanceGuard::showRequested, [] {
        std::puts("show requested");
        std::fflush(stdout);
    });
    runwarden::ExitAppIfAlreadyOpen(guard);
    std::puts("ready");
    std::fflush(stdout);
    return app.exec();
}
