#include "runwarden/LogLine.h"

#include <atomic>
#include <cstdio>

namespace runwarden {

namespace {
std::atomic<LineWriter> lineWriter{nullptr};
} // namespace

void setLineWriter(LineWriter writer) {
    lineWriter.store(writer);
}

void writeLine(const std::string &line) {
    if (const LineWriter writer = lineWriter.load()) {
        writer(line);
        return;
    }
    std::fputs(line.c_str(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

} // namespace runwarden
