#include "lumacrypt/Message.h"

namespace lumacrypt {

bool isValidUTF8(std::string_view text) noexcept {
    const auto *p = reinterpret_cast<const unsigned char *>(text.data());
    const std::size_t n = text.size();
    std::size_t i = 0;
    while (i < n) {
        const unsigned char c = p[i];
        if (c < 0x80) {
            ++i;
            continue;
        }
        std::size_t length = 0;
        std::uint32_t codePoint = 0;
        if (c >= 0xC2 && c <= 0xDF) {
            length = 2;
            codePoint = c & 0x1F;
        } else if (c >= 0xE0 && c <= 0xEF) {
            length = 3;
            codePoint = c & 0x0F;
        } else if (c >= 0xF0 && c <= 0xF4) {
            length = 4;
            codePoint = c & 0x07;
        } else {
            return false; // continuation byte, overlong lead (C0, C1) or beyond F4
        }
        if (n - i < length) {
            return false;
        }
        for (std::size_t k = 1; k < length; ++k) {
            const unsigned char cc = p[i + k];
            if ((cc & 0xC0) != 0x80) {
                return false;
            }
            codePoint = (codePoint << 6) | (cc & 0x3F);
        }
        if ((length == 3 && codePoint < 0x800) || (length == 4 && codePoint < 0x10000) ||
            codePoint > 0x10FFFF || (codePoint >= 0xD800 && codePoint <= 0xDFFF)) {
            return false; // overlong, out of range, or a surrogate
        }
        i += length;
    }
    return true;
}

} // namespace lumacrypt
