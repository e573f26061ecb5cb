// The tarnwick executable: the client itself, or a command for the client
// that is already running.
#include "CommandLine.h"

#include <QCoreApplication>
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
    // The window arrives with the desktop screens; until then the client
    // always runs headless.
    return tarnwick::cli::runHeadless(argc, argv);
}
