// Reads one line from standard input and prints it as "in:<line>"; writes a marker line to
// standard error.
#include "common.h"

#include <string>

int main() {
    std::string line;
    char c;
    while (::read(STDIN_FILENO, &c, 1) == 1 && c != '\n')
        line += c;
    helper::put("in:" + line + "\n");
    const std::string_view marker = "err-marker\n";
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, marker.data(), marker.size());
    return 0;
}
