#include "CommandLine.h"

#include "ControlServer.h"
#include "Diagnose.h"
#include "ItemsProvider.h"
#include "PollManager.h"
#include "SettingsActions.h"

#include <runwarden/ExitAppIfAlreadyOpen.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocale>
#include <QRegularExpression>
#include <QSocketNotifier>
#include <QTextStream>

#include <csignal>
#include <cstdio>
#include <iostream>
#include <string>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#ifndef TARNWICK_VERSION
#define TARNWICK_VERSION "0.0.0"
#endif

namespace tarnwick::cli {
namespace {

constexpr int kQuickTimeoutMs = 10'000;
// Commands that wait for the backend: a request may be tried six times, and each attempt may
// first wait for the request on the wire; either takes at most 30 s. The wait covers that worst
// case, and a command line that stops waiting anyway ends the client's further attempts.
constexpr int kBackendTimeoutMs = 6 * 2 * 30'000 + 20'000;

const char *const kCommands = R"(Commands (talk to the running client):
  status [--json]             sign-in state and every synced folder with its progress
  login EMAIL [--code CODE]   sign in: mails a 6-digit code, then asks for it
  groups [--json]             the sync groups and their folders
  add GROUP PATH [--force]    sync a folder (or a Photos library) in a group
  remove PATH                 stop syncing a folder
  retention GROUP_ID DAYS     keep deleted files DAYS days (0: forever)
  open PATH                   open a synced folder in the file manager
  logout                      sign out; the client then ends
  quit                        end the client
  restart-backend             start the sync engine again after it failed
  diagnose                    print what a bug report needs (addresses masked)

Without a command, tarnwick starts the client.)";

void print(const QString &text) {
    const QByteArray bytes = text.toUtf8();
    std::fwrite(bytes.constData(), 1, static_cast<std::size_t>(bytes.size()), stdout);
    std::fflush(stdout);
}

void printError(const QString &text) {
    const QByteArray bytes = text.toUtf8();
    std::fwrite(bytes.constData(), 1, static_cast<std::size_t>(bytes.size()), stderr);
    std::fflush(stderr);
}

Invocation exitWith(int code, const QString &text, bool toStandardError) {
    Invocation invocation;
    invocation.kind = Invocation::Kind::exit;
    invocation.exitCode = code;
    invocation.output = text;
    invocation.toStandardError = toStandardError;
    return invocation;
}

Invocation usageError(const QString &message) {
    return exitWith(2,
                    QStringLiteral("tarnwick: %1\nUsage: tarnwick [--headless] | tarnwick "
                                   "<command> [options]\nTry 'tarnwick --help'.\n")
                        .arg(message),
                    true);
}

// How many positional arguments each command takes, and its options.
struct CommandShape {
    const char *name;
    int positional;
    QStringList flags;  // boolean options
    QStringList valued; // options with a value
};

const CommandShape kShapes[] = {
    {"status", 0, {QStringLiteral("json")}, {}},
    {"login", 1, {}, {QStringLiteral("code")}},
    {"groups", 0, {QStringLiteral("json")}, {}},
    {"add", 2, {QStringLiteral("force")}, {}},
    {"remove", 1, {}, {}},
    {"retention", 2, {}, {}},
    {"open", 1, {}, {}},
    {"logout", 0, {}, {}},
    {"quit", 0, {}, {}},
    {"restart-backend", 0, {}, {}},
    {"diagnose", 0, {}, {}},
};

const CommandShape *shapeOf(const QString &command) {
    for (const auto &shape : kShapes) {
        if (command == QLatin1String(shape.name)) {
            return &shape;
        }
    }
    return nullptr;
}

// --- Output of the control commands

QString progressBar(double progress) {
    constexpr int width = 20;
    const int filled = std::clamp(static_cast<int>(progress * width + 0.5), 0, width);
    return QStringLiteral("[%1%2]").arg(QString(filled, u'#'), QString(width - filled, u'-'));
}

QString badgeWord(double progress) {
    if (progress >= 1.0) {
        return QStringLiteral("Synced");
    }
    if (progress > 0.0) {
        return QStringLiteral("Syncing");
    }
    return QStringLiteral("Pending");
}

QString formatBytes(qint64 bytes) {
    return QLocale().formattedDataSize(bytes);
}

} // namespace

QString describeStatus(const QJsonObject &status, bool loginMessage) {
    const bool backendFailed = status.value(QStringLiteral("backendFailed")).toBool();
    const bool signedIn = status.value(QStringLiteral("isLoggedIn")).toBool();
    QString text;
    QTextStream stream(&text);
    const QString user = status.value(QStringLiteral("userName")).toString();
    // Until the backend has answered, the sign-in state is only the one the client starts with.
    const bool answered = status.value(QStringLiteral("backendAnswered")).toBool(true);
    if (!answered) {
        stream << (backendFailed ? "Not connected to the backend\n"
                                 : "Connecting to the backend ...\n");
    } else if (status.value(QStringLiteral("isLoggedIn")).toBool()) {
        stream << (user.isEmpty() ? QStringLiteral("Signed in")
                                  : QStringLiteral("Signed in as %1").arg(user))
               << '\n';
    } else {
        stream << "Not signed in (sign in with: tarnwick login EMAIL)\n";
    }
    const QString error = status.value(QStringLiteral("error")).toString();
    if (backendFailed) {
        stream << "Backend stopped: " << error << " (try: tarnwick restart-backend)\n";
    } else if (!error.isEmpty() && !(signedIn && loginMessage)) {
        stream << error << '\n';
    }
    QHash<qint64, QString> groupNames;
    for (const auto &value : status.value(QStringLiteral("groups")).toArray()) {
        const QJsonObject group = value.toObject();
        groupNames.insert(group.value(QStringLiteral("GroupID")).toInteger(),
                          group.value(QStringLiteral("Name")).toString());
    }
    const QJsonArray folders = status.value(QStringLiteral("dirItems")).toArray();
    if (folders.isEmpty()) {
        stream << (status.value(QStringLiteral("isLoading")).toBool()
                       ? "No folders reported yet\n"
                       : "No folders syncing (add one with: tarnwick add GROUP PATH)\n");
        return text;
    }
    stream << folders.size() << (folders.size() == 1 ? " folder" : " folders") << '\n';
    for (const auto &value : folders) {
        const QJsonObject folder = value.toObject();
        DirItem item;
        item.status = folder.value(QStringLiteral("Status")).toString().toStdString();
        const double progress = item.progress();
        const qint64 groupID = folder.value(QStringLiteral("GroupID")).toInteger();
        const QString group = groupNames.value(groupID, QStringLiteral("group %1").arg(groupID));
        const QString folderError = folder.value(QStringLiteral("Error")).toString();
        stream << "  " << progressBar(progress) << ' '
               << QStringLiteral("%1%").arg(qRound(progress * 100), 3) << "  "
               << badgeWord(progress).leftJustified(7) << "  "
               << folder.value(QStringLiteral("Path")).toString() << "  (" << group << ")  "
               << QString::fromStdString(item.status).replace(u'\n', QStringLiteral(" / "))
               << (folderError.isEmpty() ? QString() : QStringLiteral("  Error: ") + folderError)
               << '\n';
    }
    return text;
}

QString describeGroups(const QJsonArray &groups) {
    QString text;
    QTextStream stream(&text);
    if (groups.isEmpty()) {
        stream << "No groups\n";
    }
    for (const auto &value : groups) {
        const QJsonObject group = value.toObject();
        stream << '#' << group.value(QStringLiteral("GroupID")).toInteger() << ' '
               << group.value(QStringLiteral("Name")).toString();
        const QJsonObject retention = group.value(QStringLiteral("RetentionSettings")).toObject();
        const qint64 days = retention.value(QStringLiteral("retention_days")).toInteger();
        stream << (days > 0 ? QStringLiteral("  (deleted files kept %1 days)").arg(days)
                            : QStringLiteral("  (deleted files kept forever)"));
        if (retention.contains(QStringLiteral("last_retention_time"))) {
            stream
                << QStringLiteral("  last clean-up %1: %2 files, %3")
                       .arg(retention.value(QStringLiteral("last_retention_time")).toString())
                       .arg(
                           retention.value(QStringLiteral("last_retention_file_count")).toInteger())
                       .arg(formatBytes(retention.value(QStringLiteral("last_retention_byte_count"))
                                            .toInteger()));
        }
        stream << '\n';
        const QJsonArray paths = group.value(QStringLiteral("WalkPaths")).toArray();
        if (paths.isEmpty()) {
            stream << "    (no folders)\n";
        }
        QStringList sorted;
        for (const auto &path : paths) {
            sorted << path.toString();
        }
        sorted.sort();
        for (const QString &path : sorted) {
            stream << "    " << path << '\n';
        }
    }
    return text;
}

namespace {

// Sends one request; prints the error and returns false when there is no
// answer. `reply` gets the first reply line.
bool request(const QJsonObject &message, int timeoutMs, QJsonObject *reply) {
    const runwarden::InstanceReply answer =
        runwarden::sendInstanceRequest(message, timeoutMs, {}, QStringLiteral("tarnwick"));
    if (!answer.connected) {
        printError(QStringLiteral("tarnwick: the client is not running (start it with: tarnwick "
                                  "--headless)\n"));
        return false;
    }
    if (!answer.finished || answer.lines.isEmpty()) {
        printError(QStringLiteral("tarnwick: no answer from the running client%1\n")
                       .arg(answer.error.isEmpty() ? QString()
                                                   : QStringLiteral(" (%1)").arg(answer.error)));
        return false;
    }
    *reply = answer.lines.first();
    return true;
}

int failWith(const QJsonObject &reply) {
    printError(
        QStringLiteral("tarnwick: %1\n").arg(reply.value(QStringLiteral("error")).toString()));
    return 1;
}

QString readCode() {
    print(QStringLiteral("6-digit code: "));
    std::string line;
    if (!std::getline(std::cin, line)) {
        return {};
    }
    return QString::fromStdString(line).trimmed();
}

} // namespace

void setApplicationIdentity() {
    QCoreApplication::setOrganizationName(QStringLiteral("tarnwick"));
    QCoreApplication::setApplicationName(QStringLiteral("tarnwick"));
    QCoreApplication::setApplicationVersion(QStringLiteral(TARNWICK_VERSION));
}

Invocation parse(const QStringList &arguments) {
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Tarnwick: secure file synchronisation.\n\n") +
                                     QLatin1String(kCommands));
    parser.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsPositionalArguments);
    const QCommandLineOption help({QStringLiteral("h"), QStringLiteral("help")},
                                  QStringLiteral("Show this help."));
    const QCommandLineOption version({QStringLiteral("v"), QStringLiteral("version")},
                                     QStringLiteral("Show the version."));
    const QCommandLineOption headless(QStringLiteral("headless"),
                                      QStringLiteral("Run the client without any window."));
    parser.addOption(help);
    parser.addOption(version);
    parser.addOption(headless);
    parser.addPositionalArgument(QStringLiteral("command"),
                                 QStringLiteral("A command for the running client (see above)."),
                                 QStringLiteral("[command [arguments]]"));
    if (!parser.parse(arguments)) {
        return usageError(parser.errorText());
    }
    if (parser.isSet(help)) {
        // The help is asked for before any application object exists, so Qt
        // cannot know the program's name and writes a placeholder for it.
        QString text = parser.helpText();
        text.replace(QStringLiteral("<executable_name>"), QStringLiteral("tarnwick"));
        return exitWith(0, text, false);
    }
    if (parser.isSet(version)) {
        return exitWith(0, QStringLiteral("tarnwick %1\n").arg(QStringLiteral(TARNWICK_VERSION)),
                        false);
    }
    const QStringList positional = parser.positionalArguments();
    if (positional.isEmpty()) {
        Invocation invocation;
        invocation.kind = Invocation::Kind::runClient;
        invocation.headless = parser.isSet(headless);
        return invocation;
    }
    if (parser.isSet(headless)) {
        return usageError(QStringLiteral("--headless does not go with a command"));
    }
    const QString command = positional.first();
    const CommandShape *shape = shapeOf(command);
    if (!shape) {
        return usageError(QStringLiteral("unknown command '%1'").arg(command));
    }

    // The command's own options.
    QCommandLineParser commandParser;
    QList<QCommandLineOption> options;
    for (const QString &flag : shape->flags) {
        options << QCommandLineOption(flag);
    }
    for (const QString &name : shape->valued) {
        options << QCommandLineOption(name, QString(), name.toUpper());
    }
    commandParser.addOptions(options);
    if (command == QLatin1String("retention")) {
        // "-5" would otherwise read as an unknown option "5".
        static const QRegularExpression negative(QStringLiteral("^-[0-9]+$"));
        for (const QString &argument : positional.mid(1)) {
            if (negative.match(argument).hasMatch()) {
                return usageError(QStringLiteral("retention takes a group ID and a number of days "
                                                 "(0 or more), not a negative number: %1")
                                      .arg(argument));
            }
        }
    }
    const QStringList commandArguments = QStringList{QStringLiteral("tarnwick")} + positional;
    if (!commandParser.parse(commandArguments)) {
        return usageError(commandParser.errorText());
    }
    QStringList rest = commandParser.positionalArguments();
    rest.removeFirst(); // the command itself
    if (rest.size() != shape->positional) {
        return usageError(QStringLiteral("'%1' takes %2 argument%3")
                              .arg(command)
                              .arg(shape->positional)
                              .arg(shape->positional == 1 ? QString() : QStringLiteral("s")));
    }
    Invocation invocation;
    invocation.kind = Invocation::Kind::control;
    invocation.command = command;
    invocation.arguments = rest;
    for (const QString &flag : shape->flags) {
        if (commandParser.isSet(flag)) {
            invocation.arguments << QStringLiteral("--") + flag;
        }
    }
    for (const QString &name : shape->valued) {
        if (commandParser.isSet(name)) {
            invocation.arguments << QStringLiteral("--") + name << commandParser.value(name);
        }
    }
    if (command == QLatin1String("retention")) {
        bool idOk = false;
        bool daysOk = false;
        rest[0].toLongLong(&idOk);
        const qlonglong days = rest[1].toLongLong(&daysOk);
        if (!idOk || !daysOk || days < 0) {
            return usageError(QStringLiteral("retention takes a group ID and a number of days (0 "
                                             "or more)"));
        }
    }
    return invocation;
}

int runControl(const Invocation &invocation) {
    const QString &command = invocation.command;
    const QStringList &args = invocation.arguments;
    const bool json = args.contains(QStringLiteral("--json"));
    QJsonObject reply;

    if (command == QLatin1String("diagnose")) {
        return runDiagnose();
    }

    if (command == QLatin1String("status")) {
        if (!request({{QStringLiteral("command"), command}}, kQuickTimeoutMs, &reply)) {
            return 1;
        }
        const QJsonObject status = reply.value(QStringLiteral("status")).toObject();
        print(json ? QString::fromUtf8(QJsonDocument(status).toJson(QJsonDocument::Compact)) + u'\n'
                   : describeStatus(status,
                                    reply.value(QStringLiteral("errorIsLoginMessage")).toBool()));
        return 0;
    }
    if (command == QLatin1String("groups")) {
        if (!request({{QStringLiteral("command"), command}}, kBackendTimeoutMs, &reply)) {
            return 1;
        }
        if (reply.contains(QStringLiteral("error"))) {
            return failWith(reply);
        }
        const QJsonArray groups = reply.value(QStringLiteral("groups")).toArray();
        print(json ? QString::fromUtf8(QJsonDocument(groups).toJson(QJsonDocument::Compact)) + u'\n'
                   : describeGroups(groups));
        return 0;
    }
    if (command == QLatin1String("login")) {
        const QString email = args.at(0);
        const qsizetype codeAt = args.indexOf(QStringLiteral("--code"));
        QString code;
        if (codeAt >= 0) {
            // A code the user already has: asking for a new one would replace it.
            code = args.value(codeAt + 1);
        } else {
            if (!request({{QStringLiteral("command"), QStringLiteral("login")},
                          {QStringLiteral("email"), email}},
                         kBackendTimeoutMs, &reply)) {
                return 1;
            }
            if (reply.contains(QStringLiteral("error"))) {
                return failWith(reply);
            }
            print(reply.value(QStringLiteral("message")).toString() + u'\n');
            code = readCode();
            if (code.isEmpty()) {
                printError(QStringLiteral("tarnwick: no code given\n"));
                return 1;
            }
        }
        if (!request({{QStringLiteral("command"), QStringLiteral("auth")},
                      {QStringLiteral("email"), email},
                      {QStringLiteral("code"), code}},
                     kBackendTimeoutMs, &reply)) {
            return 1;
        }
        if (reply.contains(QStringLiteral("error"))) {
            return failWith(reply);
        }
        print(reply.value(QStringLiteral("message")).toString() + u'\n');
        return 0;
    }

    QJsonObject message{{QStringLiteral("command"), command}};
    if (command == QLatin1String("add")) {
        message.insert(QStringLiteral("group"), args.at(0));
        message.insert(QStringLiteral("path"), QFileInfo(args.at(1)).absoluteFilePath());
        message.insert(QStringLiteral("force"), args.contains(QStringLiteral("--force")));
    } else if (command == QLatin1String("remove") || command == QLatin1String("open")) {
        message.insert(QStringLiteral("path"), QFileInfo(args.at(0)).absoluteFilePath());
    } else if (command == QLatin1String("retention")) {
        message.insert(QStringLiteral("groupID"), args.at(0).toLongLong());
        message.insert(QStringLiteral("days"), args.at(1).toLongLong());
    }
    // restart-backend answers once the backend is up or has failed again.
    const bool quick = command == QLatin1String("quit");
    if (!request(message, quick ? kQuickTimeoutMs : kBackendTimeoutMs, &reply)) {
        return 1;
    }
    if (reply.value(QStringLiteral("needsForce")).toBool()) {
        printError(QStringLiteral("iCloud Sync Detected: %1\nAdd it anyway with --force.\n")
                       .arg(reply.value(QStringLiteral("warning")).toString()));
        return 1;
    }
    if (reply.contains(QStringLiteral("error"))) {
        return failWith(reply);
    }
    if (reply.contains(QStringLiteral("warning"))) {
        print(
            QStringLiteral("Warning: %1\n").arg(reply.value(QStringLiteral("warning")).toString()));
    }
    const QString text = reply.value(QStringLiteral("message")).toString();
    if (!text.isEmpty()) {
        print(text + u'\n');
    }
    return 0;
}

namespace {

// SIGINT and SIGTERM end the client cleanly (the backend is stopped too):
// the handler only writes a byte that the event loop reads.
int signalPipe[2] = {-1, -1};

void onSignal(int) {
    const char byte = 1;
    [[maybe_unused]] const ssize_t n = ::write(signalPipe[1], &byte, 1);
}

} // namespace

void quitOnSignals(QCoreApplication &app) {
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, signalPipe) != 0) {
        return;
    }
    auto *notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, &app);
    QObject::connect(notifier, &QSocketNotifier::activated, &app, [&app] {
        char byte = 0;
        [[maybe_unused]] const ssize_t n = ::read(signalPipe[0], &byte, 1);
        app.quit();
    });
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
}

bool shouldRunHeadless(const Invocation &invocation, const QProcessEnvironment &environment) {
    if (invocation.headless) {
        return true;
    }
    const bool hasDisplay = !environment.value(QStringLiteral("DISPLAY")).isEmpty() ||
                            !environment.value(QStringLiteral("WAYLAND_DISPLAY")).isEmpty();
    const bool platformChosen = !environment.value(QStringLiteral("QT_QPA_PLATFORM")).isEmpty();
    return !hasDisplay && !platformChosen;
}

int runHeadless(int &argc, char **argv) {
    // Qt's own event dispatcher rather than GLib's: the client without a window hosts no GLib
    // sources, and GLib's loop costs it more CPU on each of its ten wake-ups a second. The
    // setting is read once, here, and is not handed on to the backend.
    const bool chooseDispatcher = qEnvironmentVariableIsEmpty("QT_NO_GLIB");
    if (chooseDispatcher) {
        qputenv("QT_NO_GLIB", "1");
    }
    QCoreApplication app(argc, argv);
    if (chooseDispatcher) {
        qunsetenv("QT_NO_GLIB");
    }
    setApplicationIdentity();
    quitOnSignals(app);

    ItemsProvider model;
    SettingsActions actions(model);
    ControlServer control(model, actions, model.pm().instanceGuard());
    QObject::connect(&control, &ControlServer::quitRequested, &app, &QCoreApplication::quit);
    QObject::connect(&model.pm().instanceGuard(), &runwarden::InstanceGuard::showRequested, &model,
                     [&model] {
                         model.log(QStringLiteral("Another start asked for the window; this "
                                                  "client runs without one (tarnwick status)"));
                     });
    return app.exec();
}

} // namespace tarnwick::cli
