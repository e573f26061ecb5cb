// Plain log lines on standard output (and messages on standard error), each written with a single
// write so that lines from different threads never interleave and a reader of the pipe sees every
// line whole.
#pragma once

#include <string_view>

namespace kovritdev {

// Writes all of `data` to `fd`, retrying short writes and EINTR. False on any other error (for
// example a reader that went away: SIGPIPE is ignored by the backend).
bool writeAll(int fd, std::string_view data);

// One line on standard output: `line` followed by a newline, in one write.
void logLine(std::string_view line);
// One line on standard error.
void errorLine(std::string_view line);
// `text` on standard output exactly as given, in one write (the public-key block).
void logRaw(std::string_view text);

} // namespace kovritdev
