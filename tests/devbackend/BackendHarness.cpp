#include "BackendHarness.h"

#include <algorithm>
#include <cctype>

#include <httplib.h>
#include <lumacrypt/PEM.h>
#include <lumacrypt/Timestamp.h>

#include <QDeadlineTimer>
#include <QFile>
#include <QHostAddress>
#include <QTcpServer>
#include <QThread>

#include <chrono>

namespace devbackendtest {

QString backendBinary() {
    return QStringLiteral(KOVRIT_DEV_BINARY);
}

int freePort() {
    QTcpServer server;
    if (!server.listen(QHostAddress::LocalHost, 0)) {
        return 0;
    }
    return server.serverPort();
}

std::int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::string errorJSON(const std::string &error) {
    return tarnwick::ServerResponse{"error", error}.toJSON();
}

HttpReply httpExchange(int port, const std::string &method, const std::string &path,
                       const std::map<std::string, std::string> &headers, const std::string &body,
                       int timeoutSeconds) {
    httplib::Client client("127.0.0.1", port);
    client.set_connection_timeout(5);
    client.set_read_timeout(timeoutSeconds);
    client.set_write_timeout(timeoutSeconds);
    client.set_keep_alive(false);
    httplib::Request request;
    request.method = method;
    request.path = path;
    for (const auto &[key, value] : headers) {
        request.headers.emplace(key, value);
    }
    request.body = body;
    if (!body.empty() && !request.has_header("Content-Type")) {
        request.headers.emplace("Content-Type", "application/json");
    }
    HttpReply reply;
    auto result = client.send(request);
    if (!result) {
        reply.transportError = httplib::to_string(result.error());
        return reply;
    }
    reply.transportOk = true;
    reply.status = result->status;
    reply.body = result->body;
    reply.headers.insert(result->headers.begin(), result->headers.end());
    return reply;
}

bool HttpReply::hasHeader(const std::string &name) const {
    return std::any_of(headers.begin(), headers.end(), [&name](const auto &entry) {
        return entry.first.size() == name.size() &&
               std::equal(name.begin(), name.end(), entry.first.begin(), [](char a, char b) {
                   return std::tolower(static_cast<unsigned char>(a)) ==
                          std::tolower(static_cast<unsigned char>(b));
               });
    });
}

Backend::Backend()
    : store_(lumacrypt::KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store(std::string())),
      token_(store_.LocalPublicKey()) {}

Backend::~Backend() {
    terminate();
}

bool Backend::start(const Options &options, QString *error) {
    const auto fail = [error](const QString &why) {
        if (error) {
            *error = why;
        }
        return false;
    };
    if (!QFile::exists(backendBinary())) {
        return fail(QStringLiteral("backend not built: ") + backendBinary());
    }
    if (options.stateDir.isEmpty()) {
        tempState_ = std::make_unique<QTemporaryDir>();
        if (!tempState_->isValid()) {
            return fail(QStringLiteral("no temporary folder"));
        }
        stateDir_ = tempState_->path() + QStringLiteral("/state");
    } else {
        stateDir_ = options.stateDir;
    }
    port_ = freePort();
    if (port_ == 0) {
        return fail(QStringLiteral("no free port"));
    }

    QStringList arguments = options.arguments;
    if (arguments.isEmpty()) {
        arguments << QStringLiteral("-token=") + QString::fromStdString(token_)
                  << QStringLiteral("-port=") + QString::number(port_);
    }
    if (options.pid) {
        arguments.prepend(QStringLiteral("-pid=") + QString::number(*options.pid));
    }
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove(QStringLiteral("KOVRIT_DEV_FAULT"));
    environment.remove(QStringLiteral("KOVRIT_DEV_CODE"));
    // No desktop opener and no notifications unless a test asks for them.
    environment.insert(QStringLiteral("KOVRIT_DEV_OPEN"), QStringLiteral("0"));
    environment.insert(QStringLiteral("KOVRIT_DEV_NOTIFY"), QStringLiteral("0"));
    environment.insert(QStringLiteral("KOVRIT_DEV_STATE"), stateDir_);
    for (const auto &[key, value] : options.environment) {
        environment.insert(key, value);
    }

    process_ = std::make_unique<QProcess>();
    process_->setProcessEnvironment(environment);
    process_->setProcessChannelMode(QProcess::SeparateChannels);
    process_->start(backendBinary(), arguments);
    if (!process_->waitForStarted(10000)) {
        return fail(QStringLiteral("backend did not start: ") + process_->errorString());
    }
    if (!options.expectKey) {
        return true;
    }
    QDeadlineTimer deadline(15000);
    while (!deadline.hasExpired()) {
        pump(100);
        if (const auto key = lumacrypt::PEMSearchString(output_.toStdString())) {
            try {
                store_.setExternalPublicKey(*key);
            } catch (const std::exception &e) {
                return fail(QStringLiteral("backend key rejected: ") + QString::fromUtf8(e.what()));
            }
            peerKey_ = *key;
            return true;
        }
        if (process_->state() == QProcess::NotRunning) {
            pump(0);
            return fail(QStringLiteral("backend ended before printing its key: ") +
                        QString::fromUtf8(output_) +
                        QString::fromUtf8(process_->readAllStandardError()));
        }
    }
    return fail(QStringLiteral("no key within 15 s; output: ") + QString::fromUtf8(output_));
}

void Backend::pump(int ms) {
    if (!process_) {
        return;
    }
    if (ms > 0 && process_->state() != QProcess::NotRunning) {
        process_->waitForReadyRead(ms);
    }
    output_ += process_->readAllStandardOutput();
}

bool Backend::waitForOutput(const QByteArray &text, int ms) {
    QDeadlineTimer deadline(ms);
    pump(0);
    while (!output_.contains(text) && !deadline.hasExpired()) {
        if (!running()) {
            pump(0);
            break;
        }
        pump(50);
    }
    return output_.contains(text);
}

bool Backend::waitForExit(int ms) {
    if (!process_) {
        return true;
    }
    QDeadlineTimer deadline(ms);
    while (process_->state() != QProcess::NotRunning && !deadline.hasExpired()) {
        process_->waitForFinished(20);
        output_ += process_->readAllStandardOutput();
    }
    output_ += process_->readAllStandardOutput();
    return process_->state() == QProcess::NotRunning;
}

bool Backend::running() const {
    return process_ && process_->state() != QProcess::NotRunning;
}

void Backend::terminate() {
    if (!running()) {
        return;
    }
    process_->terminate();
    if (!process_->waitForFinished(5000)) {
        process_->kill();
        process_->waitForFinished(5000);
    }
}

std::map<std::string, std::string> Backend::goodHeaders() const {
    return {{"Authorization", "Bearer " + token_}, {"Content-Type", "application/json"}};
}

std::string Backend::seal(const std::string &type, const std::string &id, const std::string &data,
                          std::int64_t timestampMs) const {
    const std::string additionalData = std::to_string(timestampMs);
    return store_
        .encodeJSONAndEncrypt(type, id, data,
                              std::span<const std::uint8_t>(
                                  reinterpret_cast<const std::uint8_t *>(additionalData.data()),
                                  additionalData.size()))
        .toJSON();
}

bool Backend::open(const std::string &body, std::string &plaintext, std::int64_t &timestamp,
                   std::string &problem) const {
    try {
        const auto record = lumacrypt::KeyExchangeAEADStore::fromJSON(body);
        const auto bytes = store_.decryptAEADStore(record);
        plaintext.assign(reinterpret_cast<const char *>(bytes.data()), bytes.size());
        const auto carried = lumacrypt::KeyExchangeTimestamp(record.additionalData);
        if (!carried) {
            problem = "answer carries no timestamp";
            return false;
        }
        timestamp = *carried;
        return true;
    } catch (const std::exception &e) {
        problem = std::string("answer does not open: ") + e.what();
        return false;
    }
}

Backend::Answer Backend::send(const std::string &type, const std::string &id,
                              const std::string &data, std::optional<std::int64_t> timestampMs) {
    Answer answer;
    pump(0);
    answer.http = httpExchange(port_, "POST", "/request", goodHeaders(),
                               seal(type, id, data, timestampMs ? *timestampMs : nowMs()));
    pump(0);
    if (!answer.http.transportOk) {
        answer.problem = "no HTTP answer: " + answer.http.transportError;
        return answer;
    }
    if (answer.http.status != 200) {
        answer.problem = "HTTP status " + std::to_string(answer.http.status);
        return answer;
    }
    answer.opened = open(answer.http.body, answer.plaintext, answer.timestamp, answer.problem);
    if (answer.opened) {
        timestamps_.push_back(answer.timestamp);
    }
    return answer;
}

bool Backend::signIn(const std::string &address, std::string *error) {
    const auto fail = [error](const std::string &why) {
        if (error) {
            *error = why;
        }
        return false;
    };
    auto answer = send("requestCode", address);
    if (!answer.opened || answer.plaintext != kSuccess) {
        return fail("requestCode: " + answer.problem + answer.plaintext);
    }
    QFile outbox(stateDir_ + QStringLiteral("/outbox/") + QString::fromStdString(address));
    if (!outbox.open(QIODevice::ReadOnly)) {
        return fail("no outbox file for " + address);
    }
    const std::string code = outbox.readAll().trimmed().toStdString();
    answer = send("auth", address, code);
    if (!answer.opened || answer.plaintext != kSuccess) {
        return fail("auth: " + answer.problem + answer.plaintext);
    }
    return true;
}

} // namespace devbackendtest
