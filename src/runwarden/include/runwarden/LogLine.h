#pragma once

#include <string>

namespace runwarden {

// The library's own log lines ("warning: ...", "Application already opened.
// Exiting ...") go to standard output, one line each, unless the program
// hands them to a writer of its own (which then owns where they go).
using LineWriter = void (*)(const std::string &line);
void setLineWriter(LineWriter writer);
void writeLine(const std::string &line);

} // namespace runwarden
