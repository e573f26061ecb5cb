// A stand-in backend for the request client's tests. It prints a start line, then (with
// --key=<text>) a public-key block in one write, and waits until it is terminated or its time
// is up. Options:
//   --key=<text>           the body of the key block ("" prints no block)
//   --starts=<file>        appends one line per start to <file> (to count launches)
//   --later-line=<text>    prints one more line, after the key block, in a write of its own
//   --split-key            writes the key block in three pieces 100 ms apart, cut inside the
//                          begin line and inside the key
//   --exit-after-ms=<n>    exits with status 0 after n ms (default 30000, so it is never orphaned)
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <string_view>
#include <thread>

namespace {

void writeAll(const std::string &text) {
    const char *p = text.data();
    std::size_t left = text.size();
    while (left > 0) {
        const ssize_t n = ::write(STDOUT_FILENO, p, left);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        p += n;
        left -= std::size_t(n);
    }
}

} // namespace

int main(int argc, char **argv) {
    std::string key;
    bool haveKey = false;
    std::string starts;
    std::string laterLine;
    long exitAfterMs = 30000;
    bool splitKey = false;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg(argv[i]);
        if (arg.starts_with("--key=")) {
            key = std::string(arg.substr(6));
            haveKey = !key.empty();
        } else if (arg.starts_with("--starts=")) {
            starts = std::string(arg.substr(9));
        } else if (arg.starts_with("--later-line=")) {
            laterLine = std::string(arg.substr(13));
        } else if (arg == "--split-key") {
            splitKey = true;
        } else if (arg.starts_with("--exit-after-ms=")) {
            exitAfterMs = std::strtol(std::string(arg.substr(16)).c_str(), nullptr, 10);
        }
    }
    if (!starts.empty()) {
        if (std::FILE *f = std::fopen(starts.c_str(), "a")) {
            std::fprintf(f, "%ld\n", long(::getpid()));
            std::fclose(f);
        }
    }
    writeAll("test backend " + std::to_string(::getpid()) + " starting\n");
    if (haveKey && splitKey) {
        const std::string block =
            "-----BEGIN PUBLIC KEY-----\n" + key + "\n-----END PUBLIC KEY-----\n";
        const std::size_t cuts[] = {0, 14, 27 + key.size() / 2, block.size()};
        for (std::size_t i = 0; i + 1 < std::size(cuts); ++i) {
            if (i > 0) {
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
            }
            writeAll(block.substr(cuts[i], cuts[i + 1] - cuts[i]));
        }
    } else if (haveKey) {
        writeAll("-----BEGIN PUBLIC KEY-----\n" + key + "\n-----END PUBLIC KEY-----\n");
    }
    if (!laterLine.empty()) {
        // Apart from the key block, as a line a backend logs later would be.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        writeAll(laterLine + "\n");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(exitAfterMs));
    writeAll("test backend done\n");
    return 0;
}
