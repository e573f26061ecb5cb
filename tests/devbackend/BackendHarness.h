// Runs the built development backend as a child process for the tests and talks to it as the
// client does: a fresh X25519 key pair whose public key is the token, a free port, a temporary
// state folder, the public key read from the backend's output, and sealed requests posted over
// HTTP with the bearer token.
#pragma once

#include <Models.h>
#include <lumacrypt/KeyExchangeStore.h>

#include <QByteArray>
#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace devbackendtest {

// The built backend (fails loudly in the test when it is missing).
QString backendBinary();

// A port on 127.0.0.1 that was free a moment ago.
int freePort();

std::int64_t nowMs();

struct HttpReply {
    bool transportOk = false; // a complete HTTP answer arrived
    std::string transportError;
    int status = 0;
    std::string body;
    std::multimap<std::string, std::string> headers; // as received (names as the peer wrote them)

    bool hasHeader(const std::string &name) const;
};

// One HTTP exchange with full control over method, path and headers (a "Host" header given here
// replaces the default one).
HttpReply httpExchange(int port, const std::string &method, const std::string &path,
                       const std::map<std::string, std::string> &headers, const std::string &body,
                       int timeoutSeconds = 20);

class Backend {
public:
    struct Options {
        std::map<QString, QString> environment; // added to the test's environment
        QStringList arguments;                  // replaces -token/-port when not empty
        std::optional<qint64> pid;              // adds -pid=<pid>
        QString stateDir;                       // a fresh temporary folder when empty
        bool expectKey = true;                  // wait for the public key block
    };

    Backend();
    ~Backend();
    Backend(const Backend &) = delete;
    Backend &operator=(const Backend &) = delete;

    // Starts the backend; with expectKey, waits up to 15 s for its key and sets it as the peer.
    bool start(const Options &options, QString *error = nullptr);

    // Reads what the backend printed so far (waiting up to `ms` for more).
    void pump(int ms = 0);
    bool waitForOutput(const QByteArray &text, int ms);
    bool waitForExit(int ms);
    bool running() const;
    void terminate();

    QProcess &process() { return *process_; }
    const QByteArray &output() const { return output_; }
    QString stateDir() const { return stateDir_; }
    int port() const { return port_; }
    const std::string &token() const { return token_; }
    lumacrypt::KeyExchangeStore &store() { return store_; }
    std::optional<std::string> peerKey() const { return peerKey_; }

    std::map<std::string, std::string> goodHeaders() const;

    // A sealed envelope as the client makes it, with the given timestamp as additional data.
    std::string seal(const std::string &type, const std::string &id, const std::string &data,
                     std::int64_t timestampMs) const;

    struct Answer {
        HttpReply http;
        bool opened = false;
        std::string plaintext;
        std::int64_t timestamp = 0;
        std::string problem; // why it did not open, when it did not
    };
    // Seals and posts one command (timestamp: now, unless given) and opens the answer. Every
    // opened answer's timestamp is recorded.
    Answer send(const std::string &type, const std::string &id = std::string(),
                const std::string &data = std::string(),
                std::optional<std::int64_t> timestampMs = std::nullopt);
    // Opens an answer body.
    bool open(const std::string &body, std::string &plaintext, std::int64_t &timestamp,
              std::string &problem) const;

    // requestCode, the code from the outbox, auth. False (and `error`) on any failure.
    bool signIn(const std::string &address, std::string *error = nullptr);

    const std::vector<std::int64_t> &answerTimestamps() const { return timestamps_; }

private:
    std::unique_ptr<QTemporaryDir> tempState_;
    std::unique_ptr<QProcess> process_;
    QByteArray output_;
    QString stateDir_;
    int port_ = 0;
    lumacrypt::KeyExchangeStore store_;
    std::string token_;
    std::optional<std::string> peerKey_;
    std::vector<std::int64_t> timestamps_;
};

// The exact JSON texts of the backend's small answers.
inline const std::string kSuccess = R"({"status":"success"})";
inline const std::string kAuthRequest = R"({"Type":"auth request","ID":"","Data":""})";
inline const std::string kPingMessage = R"({"Type":"ping","ID":"","Data":""})";
std::string errorJSON(const std::string &error);

} // namespace devbackendtest
