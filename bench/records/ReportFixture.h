// The benchmark report: 10,000 generated folders (about 1.5 MB of JSON: realistic paths, names
// and status lines, some non-ASCII, some errors) and an On Demand decoder with the same
// strictness as the library's. Shared by bench_records and bench_records_avx2.
#pragma once

#include "Models.h"

#include <benchmark/benchmark.h>
#include <simdjson.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

namespace records_bench {

using tarnwick::DecodingError;
using tarnwick::DirItem;

// -- The report -----------------------------------------------------------------------------

inline std::vector<DirItem> makeFolders(std::size_t count) {
    static const char *users[] = {"ana", "jürgen", "mei", "olusegun", "zoë"};
    static const char *tops[] = {"Documents", "Pictures", "Projects",        "Music", "Desktop",
                                 "Документы", "写真",     "Téléchargements", "Arbeit"};
    static const char *subs[] = {"2023",    "2024",          "Clients",       "Archive",
                                 "Raw",     "Exports",       "Steuer",        "src",
                                 "Backups", "Vacation Rome", "Überweisungen", "家族"};
    static const char *leaves[] = {"Invoices",      "Contracts",  "Scans",   "Holiday",
                                   "Drafts",        "Final",      "Résumés", "Kinderfotos",
                                   "Design Assets", "Recordings", "Notes",   "Reports Q3"};
    static const char *steps[] = {
        "1 of 6 - Scanning folder tree",  "2 of 6 - Hashing changed files",
        "3 of 6 - Comparing with server", "4 of 6 - Uploading",
        "5 of 6 - Downloading",           "6 of 6 - Cleaning up deleted files"};
    std::mt19937_64 rng(42);
    const auto pick = [&](const auto &list) {
        return list[rng() % (sizeof list / sizeof list[0])];
    };
    std::vector<DirItem> folders;
    folders.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        DirItem item;
        item.name = std::string(pick(leaves)) + " " + std::to_string(i);
        item.path = std::string("/home/") + pick(users) + "/" + pick(tops) + "/" + pick(subs) +
                    "/" + item.name;
        item.groupID = static_cast<std::int64_t>(rng() % 40 + 1);
        item.enabled = rng() % 10 != 0;
        switch (rng() % 4) {
        case 0:
            item.status = "Up to date";
            break;
        case 1:
            item.status = "Server status check ...";
            break;
        default: {
            const auto files = rng() % 20000, done = rng() % (files + 1);
            item.status = std::string(pick(steps)) + ": " + std::to_string(done) + " of " +
                          std::to_string(files) + " files, " + std::to_string(rng() % 900) + "." +
                          std::to_string(rng() % 10) + " MB/s";
        }
        }
        if (rng() % 20 == 0) {
            item.error = "open " + item.path + "/.lock: permission denied";
        }
        folders.push_back(std::move(item));
    }
    return folders;
}

inline const std::vector<DirItem> &folders() {
    static const std::vector<DirItem> list = makeFolders(10000);
    return list;
}

inline const std::string &report() {
    static const std::string text = tarnwick::encodeDirItems(folders());
    return text;
}

[[noreturn]] inline void fail(const char *what) {
    throw DecodingError(what);
}

// -- Decoders over the other libraries, with the same strictness as the library's own ----------

inline std::int64_t integerFrom(double number) {
    constexpr double limit = 9223372036854775808.0;
    if (!std::isfinite(number) || std::trunc(number) != number || number < -limit ||
        number >= limit) {
        fail("not a 64-bit integer");
    }
    return static_cast<std::int64_t>(number);
}

// A status report through simdjson On Demand. On Demand runs the one kernel chosen when this
// header is compiled (simdjson::builtin_implementation(): "fallback" for baseline x86-64,
// "haswell" with -mavx2 and friends); the DOM parser picks its kernel at run time.
inline std::vector<DirItem> decodeOnDemand(simdjson::ondemand::parser &parser,
                                           const std::string &json) {
    using namespace simdjson;
    const padded_string padded(json);
    ondemand::document doc;
    if (parser.iterate(padded).get(doc)) {
        fail("invalid JSON");
    }
    ondemand::array array;
    if (doc.get_array().get(array)) {
        fail("not an array");
    }
    std::vector<DirItem> items;
    for (auto element : array) {
        ondemand::object object;
        if (element.get_object().get(object)) {
            fail("not an object");
        }
        DirItem item;
        unsigned seen = 0;
        for (auto field : object) {
            std::string_view key;
            if (field.unescaped_key().get(key)) {
                fail("bad key");
            }
            ondemand::value value = field.value();
            std::string_view text;
            if (key == "Path") {
                if (value.get_string().get(text)) {
                    fail("Path");
                }
                item.path = text;
                seen |= 1;
            } else if (key == "Error") {
                if (value.is_null()) {
                    item.error.reset();
                } else if (value.get_string().get(text)) {
                    fail("Error");
                } else {
                    item.error = std::string(text);
                }
            } else if (key == "Enabled") {
                if (value.get_bool().get(item.enabled)) {
                    fail("Enabled");
                }
                seen |= 2;
            } else if (key == "GroupID") {
                ondemand::number number;
                if (value.get_number().get(number)) {
                    fail("GroupID");
                }
                if (number.is_int64()) {
                    item.groupID = number.get_int64();
                } else if (number.is_uint64()) {
                    fail("GroupID");
                } else {
                    item.groupID = integerFrom(number.get_double());
                }
                seen |= 4;
            } else if (key == "Name") {
                if (value.get_string().get(text)) {
                    fail("Name");
                }
                item.name = text;
                seen |= 8;
            } else if (key == "Status") {
                if (value.get_string().get(text)) {
                    fail("Status");
                }
                item.status = text;
                seen |= 16;
            }
        }
        if (seen != 31) {
            fail("missing key");
        }
        items.push_back(std::move(item));
    }
    // Nothing may follow the array.
    const char *rest = nullptr;
    if (doc.current_location().get(rest) == simdjson::SUCCESS) {
        fail("trailing content");
    }
    return items;
}

inline bool sameItems(const std::vector<DirItem> &a, const std::vector<DirItem> &b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (a[i].toJSON() != b[i].toJSON()) {
            return false;
        }
    }
    return true;
}

// Every decoder must read the report back to the folders it was made from, and every
// order-keeping encoder must write the same text, or its figures mean nothing.
inline bool checked(benchmark::State &state, const std::vector<DirItem> &decoded) {
    if (!sameItems(decoded, folders())) {
        state.SkipWithError("decoded list differs from the encoded folders");
        return false;
    }
    return true;
}

inline void setCounters(benchmark::State &state) {
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                            static_cast<std::int64_t>(report().size()));
    state.counters["items"] = static_cast<double>(folders().size());
    state.counters["bytes"] = static_cast<double>(report().size());
}

// On Demand finds the structure with the kernel chosen at run time (as the DOM parser does) and
// walks it with the kernel this file was compiled for.
inline std::string onDemandKernels() {
#define RECORDS_BENCH_NAME_OF(x) #x
#define RECORDS_BENCH_NAME(x) RECORDS_BENCH_NAME_OF(x)
    return std::string("stage1=") + simdjson::get_active_implementation()->name() +
           " walk=" + RECORDS_BENCH_NAME(SIMDJSON_BUILTIN_IMPLEMENTATION);
#undef RECORDS_BENCH_NAME
#undef RECORDS_BENCH_NAME_OF
}

} // namespace records_bench
