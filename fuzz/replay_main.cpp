// Replays fuzz inputs without libFuzzer: every file named on the command line, and every
// regular file inside every folder named there, is given once to LLVMFuzzerTestOneInput. A
// crash, an escaped exception or a sanitizer report fails the run; so does a run that found
// no input at all, so that a missing corpus cannot pass unnoticed.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int *argc, char ***argv);

namespace {

std::vector<std::filesystem::path> inputsOf(const std::filesystem::path &path) {
    std::vector<std::filesystem::path> files;
    if (std::filesystem::is_directory(path)) {
        for (const auto &entry : std::filesystem::directory_iterator(path)) {
            if (entry.is_regular_file()) {
                files.push_back(entry.path());
            }
        }
        std::sort(files.begin(), files.end());
    } else if (std::filesystem::is_regular_file(path)) {
        files.push_back(path);
    }
    return files;
}

} // namespace

int main(int argc, char **argv) {
    if (LLVMFuzzerInitialize) {
        LLVMFuzzerInitialize(&argc, &argv);
    }
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s CORPUS_DIR_OR_FILE...\n", argv[0]);
        return 2;
    }
    std::size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::path root(argv[i]);
        if (!std::filesystem::exists(root)) {
            std::fprintf(stderr, "%s: no such corpus: %s\n", argv[0], argv[i]);
            return 2;
        }
        for (const auto &file : inputsOf(root)) {
            std::ifstream in(file, std::ios::binary);
            if (!in) {
                std::fprintf(stderr, "%s: cannot read %s\n", argv[0], file.c_str());
                return 2;
            }
            const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                          std::istreambuf_iterator<char>());
            std::fprintf(stderr, "replay %s (%zu bytes)\n", file.c_str(), bytes.size());
            LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t *>(bytes.data()),
                                   bytes.size());
            ++count;
        }
    }
    if (count == 0) {
        std::fprintf(stderr, "%s: the corpus holds no input\n", argv[0]);
        return 1;
    }
    std::fprintf(stderr, "replayed %zu inputs\n", count);
    return 0;
}
