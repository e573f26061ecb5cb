// The tarnwick executable: the desktop client, the client without a window
// (--headless, or no display), or a command for the client that is already
// running. Only the desktop client needs Qt's GUI libraries: it is loaded from its own module
// when it is about to be shown, so the other two run on QtCore and QtNetwork alone.
#include "ClientLog.h"
#include "CommandLine.h"
#include "DesktopModule.h"

#include <QCoreApplication>
#include <QProcessEnvironment>
#include <QStringList>

#include <cstdio>

int main(int argc, char *argv[]) {
    QStringList arguments;
    for (int i = 0; i < argc; ++i) {
        arguments << QString::fromLocal8Bit(argv[i]);
    }
    const tarnwick::cli::Invocation invocation = tarnwick::cli::parse(arguments);
    switch (invocation.kind) {
    case tarnwick::cli::Invocation::Kind::exit: {
        const QByteArray text = invocation.output.toUtf8();
        std::fwrite(text.constData(), 1, static_cast<std::size_t>(text.size()),
                    invocation.toStandardError ? stderr : stdout);
        return invocation.exitCode;
    }
    case tarnwick::cli::Invocation::Kind::control: {
        QCoreApplication app(argc, argv);
        tarnwick::cli::setApplicationIdentity();
        return tarnwick::cli::runControl(invocation);
    }
    case tarnwick::cli::Invocation::Kind::runClient:
        break;
    }
    // The client's lines go to its log file too; a command for a running
    // client only prints.
    tarnwick::ClientLog::install();
    tarnwick::ClientLog::fileOnly(QString(),
                                  QStringLiteral("tarnwick %1 started: %2")
                                      .arg(QStringLiteral(TARNWICK_VERSION), arguments.join(u' ')));
    if (tarnwick::cli::shouldRunHeadless(invocation, QProcessEnvironment::systemEnvironment())) {
        return tarnwick::cli::runHeadless(argc, argv);
    }
    return tarnwick::desktop::run(argc, argv);
}
