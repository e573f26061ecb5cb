#include "lumacrypt/PEM.h"

#include <string_view>

namespace lumacrypt {

namespace {
constexpr std::string_view kBeginMarker = "-----BEGIN PUBLIC KEY-----";
constexpr std::string_view kBeginLine = "-----BEGIN PUBLIC KEY-----\n";
constexpr std::string_view kEndLine = "\n-----END PUBLIC KEY-----";
} // namespace

std::string PEMFromString(const std::string &text) {
    const std::string_view s(text);
    if (s.find(kBeginMarker) == std::string_view::npos) {
        throw PEMException(PEMError::doesNotExist);
    }
    // The piece after the first begin line, up to the next begin line if there is one. A begin
    // marker that is never followed by a newline is no key.
    const std::size_t begin = s.find(kBeginLine);
    if (begin == std::string_view::npos) {
        throw PEMException(PEMError::doesNotExist);
    }
    std::string_view piece = s.substr(begin + kBeginLine.size());
    if (const std::size_t next = piece.find(kBeginLine); next != std::string_view::npos) {
        piece = piece.substr(0, next);
    }
    // Up to the first end line (the whole piece when there is none).
    if (const std::size_t end = piece.find(kEndLine); end != std::string_view::npos) {
        piece = piece.substr(0, end);
    }
    if (piece.empty()) {
        throw PEMException(PEMError::doesNotExist);
    }
    return std::string(piece);
}

std::optional<std::string> PEMSearchString(const std::string &text) {
    try {
        return PEMFromString(text);
    } catch (const PEMException &) {
        return std::nullopt;
    }
}

} // namespace lumacrypt
