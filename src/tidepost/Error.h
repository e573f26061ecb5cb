#pragma once

// The request client's errors, and one failure as the client reports it.

#include <cstdint>
#include <exception>
#include <string>
#include <system_error>

namespace tidepost {

/// The request client's own failures (payload-less).
enum class PollManagerError {
    urlError,
    publishFailure,
    timestampInvalidFormat,
    timestampExpired,
    timestampInPastError,
    timestampInFutureError,
};

/// The case name, e.g. "publishFailure".
const char *toString(PollManagerError error) noexcept;

class PollManagerException : public std::exception {
public:
    explicit PollManagerException(PollManagerError error) noexcept : error_(error) {}
    PollManagerError error() const noexcept { return error_; }
    const char *what() const noexcept override { return toString(error_); }

private:
    PollManagerError error_;
};

/// One failure as the app logs it ("warning: " + description).
///
/// domain: the error type's name ("PollManagerError", "KeyExchangeError", "PEMError",
/// "CryptoError", "DecodingError", "NetworkError", "TarnwickError", "ProcessManagerError",
/// "POSIXError", ...; "ServerError" is made by the app itself). code: the case's index for
/// enumerations, QNetworkReply::NetworkError for "NetworkError", the error number for
/// "POSIXError". description: the case name for enumerations, the readable text otherwise.
struct Error {
    std::string domain;
    int code = 0;
    std::string description;

    /// Call inside a catch block (catch (...)): maps the exception being handled. Exceptions of
    /// unknown types give domain "unknown" (with what() as the description when there is one).
    static Error fromCurrentException();
    static Error of(PollManagerError error);
    /// An error reported by the runner to an exit handler: "ProcessManagerError" for the
    /// runner's own cases, "POSIXError" (errno and the system's text) for the system's.
    static Error fromErrorCode(const std::error_code &error);

    friend bool operator==(const Error &, const Error &) = default;
};

} // namespace tidepost
