// Small helpers shared by the lumacrypt tests.
#pragma once

#include <lumacrypt/lumacrypt.h>

#include <nlohmann/json.hpp>

#include <QByteArray>
#include <QFile>
#include <QString>
#include <QtTest>

#include <functional>
#include <optional>
#include <string>

namespace lumatest {

using lumacrypt::Bytes;

inline Bytes fromHex(const std::string &hex) {
    const QByteArray raw = QByteArray::fromHex(QByteArray::fromStdString(hex));
    return Bytes(raw.begin(), raw.end());
}

inline std::string toHex(std::span<const std::uint8_t> bytes) {
    return QByteArray(reinterpret_cast<const char *>(bytes.data()),
                      static_cast<qsizetype>(bytes.size()))
        .toHex()
        .toStdString();
}

inline Bytes bytesOf(const std::string &text) {
    return Bytes(text.begin(), text.end());
}

inline std::string textOf(const Bytes &bytes) {
    return std::string(bytes.begin(), bytes.end());
}

// The path of a file under $TARNWICK_SHARED_DIR/testvectors, or an empty string when the
// variable is unset or the file is missing (callers must QFAIL then).
inline QString vectorPath(const QString &relative) {
    const QByteArray dir = qgetenv("TARNWICK_SHARED_DIR");
    if (dir.isEmpty()) {
        return {};
    }
    const QString path = QString::fromLocal8Bit(dir) + QStringLiteral("/testvectors/") + relative;
    return QFile::exists(path) ? path : QString();
}

inline std::optional<nlohmann::json> loadJSON(const QString &path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return std::nullopt;
    }
    const QByteArray data = file.readAll();
    nlohmann::json json = nlohmann::json::parse(data.constBegin(), data.constEnd(), nullptr, false);
    if (json.is_discarded()) {
        return std::nullopt;
    }
    return json;
}

// Runs `body` and reports whether it threw a CryptoError of `kind`.
inline bool throwsCrypto(const std::function<void()> &body, lumacrypt::CryptoError::Kind kind) {
    try {
        body();
    } catch (const lumacrypt::CryptoError &error) {
        return error.kind() == kind;
    } catch (...) {
        return false;
    }
    return false;
}

inline bool throwsKeyExchange(const std::function<void()> &body,
                              lumacrypt::KeyExchangeError error) {
    try {
        body();
    } catch (const lumacrypt::KeyExchangeException &e) {
        return e.error() == error;
    } catch (...) {
        return false;
    }
    return false;
}

inline bool throwsPEM(const std::function<void()> &body) {
    try {
        body();
    } catch (const lumacrypt::PEMException &e) {
        return e.error() == lumacrypt::PEMError::doesNotExist;
    } catch (...) {
        return false;
    }
    return false;
}

inline bool throwsDecoding(const std::function<void()> &body) {
    try {
        body();
    } catch (const lumacrypt::DecodingError &) {
        return true;
    } catch (...) {
        return false;
    }
    return false;
}

} // namespace lumatest
