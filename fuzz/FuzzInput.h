// Splits one fuzz input into typed values, so that a target can build records from it. Reading
// past the end gives zeros and empty strings; the same input always gives the same values.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tarnwick::fuzz {

class FuzzInput {
public:
    FuzzInput(const std::uint8_t *data, std::size_t size)
        : text_(reinterpret_cast<const char *>(data), size) {}

    bool empty() const { return at_ >= text_.size(); }

    std::uint8_t byte() { return empty() ? 0 : static_cast<std::uint8_t>(text_[at_++]); }
    bool boolean() { return (byte() & 1) != 0; }
    std::uint64_t u64() {
        std::uint64_t value = 0;
        for (int i = 0; i < 8; ++i) {
            value = (value << 8) | byte();
        }
        return value;
    }
    std::int64_t i64() { return static_cast<std::int64_t>(u64()); }

    // A string of the length the next byte gives (0..255), or what is left when that is less.
    std::string string() {
        const std::size_t wanted = byte(); // read before what is left is measured
        const std::size_t length = std::min(wanted, text_.size() - at_);
        std::string out(text_.substr(at_, length));
        at_ += length;
        return out;
    }
    // Everything not read yet.
    std::string rest() {
        std::string out(text_.substr(at_));
        at_ = text_.size();
        return out;
    }

private:
    std::string_view text_;
    std::size_t at_ = 0;
};

} // namespace tarnwick::fuzz
