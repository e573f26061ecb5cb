#pragma once

// Small pieces shared by the plain helper programs the runner tests start.

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string_view>
#include <thread>

#include <unistd.h>

namespace helper {

// Writes all of `text` to standard output in one piece (no stdio buffering in between).
inline void put(std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = ::write(STDOUT_FILENO, text.data(), text.size());
        if (written < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        text.remove_prefix(static_cast<std::size_t>(written));
    }
}

inline void pause(int milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

} // namespace helper
