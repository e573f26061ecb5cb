// Whatever the backend writes to its output is read in chunks: decoded as UTF-8, escaped and
// logged, and searched for the backend's public key. Another program started in its place can
// write anything. Decoding must accept exactly the well-formed UTF-8 chunks and give back the
// same bytes; the logged form must hold no control character other than a line break or a tab;
// the key search must either find nothing or the text after a begin line, without a marker
// line in it, and never throw.
#include <BackendLauncher.h>
#include <PollManager.h>

#include <lumacrypt/Message.h>
#include <runwarden/ProcessManager.h>

#include <QByteArray>
#include <QByteArrayView>
#include <QCoreApplication>
#include <QString>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

namespace {

[[noreturn]] void fail(const char *what, const QByteArray &input) {
    std::fprintf(stderr, "%s\n  input: %s\n", what, input.toPercentEncoding().constData());
    std::abort();
}

bool isLoggable(QChar c) {
    const char16_t u = c.unicode();
    if (u == u'\n' || u == u'\t') {
        return true;
    }
    return u >= 0x20 && !(u >= 0x7f && u < 0xa0);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv) {
    static QCoreApplication app(*argc, *argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const QByteArray bytes(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size));
    const std::string_view view(bytes.constData(), size);

    const std::optional<QString> chunk = runwarden::decodeOutputChunk(QByteArrayView(bytes));
    if (chunk.has_value() != lumacrypt::isValidUTF8(view)) {
        fail("the chunk decoder and the UTF-8 check disagree", bytes);
    }
    // Without a valid chunk the runner passes nothing on; search the bytes as Latin-1 text then,
    // which still reaches every branch of the search and the escaping.
    const QString text = chunk ? *chunk : QString::fromLatin1(bytes);
    if (chunk && chunk->toUtf8() != bytes) {
        fail("a decoded chunk does not give back its bytes", bytes);
    }

    const QString logged = tarnwick::supervisor::BackendLauncher::printable(text);
    for (const QChar c : logged) {
        if (!isLoggable(c)) {
            fail("a control character reaches the log", bytes);
        }
    }

    if (const std::optional<std::string> key = tidepost::PollManager::keyInOutput(text)) {
        if (key->empty()) {
            fail("the key search found an empty key", bytes);
        }
        // The key is what follows a begin line, up to the next begin line or end line (or the
        // end of the chunk, for a block that is not closed in it).
        const std::string output = text.toStdString();
        const std::string begin = "-----BEGIN PUBLIC KEY-----\n";
        if (output.find(begin + *key) == std::string::npos) {
            fail("the key search found a key that does not follow a begin line", bytes);
        }
        if (key->find(begin) != std::string::npos ||
            key->find("\n-----END PUBLIC KEY-----") != std::string::npos) {
            fail("the key search found a key that runs over a marker line", bytes);
        }
    }
    return 0;
}
