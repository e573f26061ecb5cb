// The tarnwick executable: the desktop client, the client without a window
// (--headless, or no display), or a command for the client that is already
// running.
#include "ClientLog.h"
#include "CommandLine.h"
#include "DesktopClient.h"

#include <QCoreApplication>
#include <QProcessEnvironment>
#include <QStringList>
#include <QtQml/qqmlextensionplugin.h>

#include <cstdio>

// The screens: the statically linked QML module "Tarnwick".
Q_IMPORT_QML_PLUGIN(TarnwickPlugin)

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
    if (tarnwick::ui::shouldRunHeadless(invocation, QProcessEnvironment::systemEnvironment())) {
        return tarnwick::cli::runHeadless(argc, argv);
    }
    return tarnwick::ui::runDesktop(argc, argv);
}
