#include "Log.h"

#include <cerrno>
#include <mutex>
#include <string>
#include <unistd.h>

namespace kovritdev {

namespace {
std::mutex &outputMutex() {
    static std::mutex mutex;
    return mutex;
}

void writeLine(int fd, std::string_view line) {
    std::string text;
    text.reserve(line.size() + 1);
    text.append(line);
    text.push_back('\n');
    const std::lock_guard lock(outputMutex());
    writeAll(fd, text);
}
} // namespace

bool writeAll(int fd, std::string_view data) {
    while (!data.empty()) {
        const ssize_t n = ::write(fd, data.data(), data.size());
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        data.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

void logLine(std::string_view line) {
    writeLine(STDOUT_FILENO, line);
}

void errorLine(std::string_view line) {
    writeLine(STDERR_FILENO, line);
}

void logRaw(std::string_view text) {
    const std::lock_guard lock(outputMutex());
    writeAll(STDOUT_FILENO, text);
}

} // namespace kovritdev
