// The control socket carries one JSON request line from the command line to the running client
// and JSON reply lines back; another local program can write either side. The request reader
// must accept exactly objects with a text "command"; the reply reader exactly objects; and what
// the command line prints for a status or a group list must come out of any reply without a
// crash or a sanitizer report. The command line's own arguments are parsed the same way.
#include <CommandLine.h>

#include <runwarden/ExitAppIfAlreadyOpen.h>

#include <QByteArray>
#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <QStringList>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>

namespace {

[[noreturn]] void fail(const char *what, const QByteArray &input) {
    std::fprintf(stderr, "%s\n  input: %s\n", what, input.toPercentEncoding().constData());
    std::abort();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv) {
    static QCoreApplication app(*argc, *argv);
    tarnwick::cli::setApplicationIdentity();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const QByteArray line(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size));

    // Independent judgement of what each reader must accept.
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(line, &error);
    const bool isObject = error.error == QJsonParseError::NoError && document.isObject();
    const bool isRequest = isObject && document.object().value(QLatin1String("command")).isString();

    const std::optional<QJsonObject> request = runwarden::parseRequestLine(line);
    if (request.has_value() != isRequest) {
        fail("the request reader accepts the wrong lines", line);
    }
    if (request && request->value(QLatin1String("command")).toString() !=
                       document.object().value(QLatin1String("command")).toString()) {
        fail("the request reader changed the command", line);
    }
    const std::optional<QJsonObject> reply = runwarden::parseReplyLine(line);
    if (reply.has_value() != isObject) {
        fail("the reply reader accepts the wrong lines", line);
    }

    if (reply) {
        // What "status" and "groups" print for this reply, and for the reply as the document.
        const QJsonObject status = reply->value(QLatin1String("status")).toObject();
        (void)tarnwick::cli::describeStatus(
            status, reply->value(QLatin1String("errorIsLoginMessage")).toBool());
        (void)tarnwick::cli::describeStatus(*reply, false);
        (void)tarnwick::cli::describeGroups(reply->value(QLatin1String("groups")).toArray());
    } else if (error.error == QJsonParseError::NoError && document.isArray()) {
        (void)tarnwick::cli::describeGroups(document.array());
    }

    // The same bytes as a command line: one argument per line.
    QStringList arguments{QStringLiteral("tarnwick")};
    for (const QByteArray &argument : line.split('\n')) {
        arguments << QString::fromUtf8(argument);
    }
    const tarnwick::cli::Invocation invocation = tarnwick::cli::parse(arguments);
    if (invocation.kind == tarnwick::cli::Invocation::Kind::control &&
        invocation.command.isEmpty()) {
        fail("a control invocation without a command", line);
    }
    return 0;
}
