// Internet date-times come from the backend's records. parseISO8601 must refuse anything it
// cannot read without a crash or a sanitizer report, and every date it accepts must format and
// parse back to the same second. A text in UTC ("...Z") formats back to itself. formatISO8601
// must also cope with any second count (the records carry 64-bit numbers).
#include <Models.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

using namespace tarnwick;

namespace {

[[noreturn]] void fail(const char *what, const std::string &input, const std::string &output) {
    std::fprintf(stderr, "%s\n  input:  %s\n  output: %s\n", what, input.c_str(), output.c_str());
    std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const std::string text(reinterpret_cast<const char *>(data), size);

    if (const std::optional<Date> date = parseISO8601(text)) {
        const std::string formatted = formatISO8601(*date);
        // An offset can move a date of year 0000 or 9999 out of the four-digit years, which
        // then has no text this parser reads.
        const std::optional<Date> again = parseISO8601(formatted);
        const bool fourDigitYear = formatted.size() == 20 && formatted[0] != '-';
        if (fourDigitYear && (!again || *again != *date)) {
            fail("a parsed date does not read back", text, formatted);
        }
        if (text.back() == 'Z' && formatted != text) {
            fail("a UTC date does not format to its own text", text, formatted);
        }
    }

    // Any second count, from the first eight bytes.
    if (size >= 8) {
        std::int64_t seconds = 0;
        std::memcpy(&seconds, data, sizeof seconds);
        const std::string formatted = formatISO8601(Date{std::chrono::seconds{seconds}});
        if (formatted.size() < 20 || formatted.back() != 'Z') {
            fail("a formatted date is malformed", std::to_string(seconds), formatted);
        }
        const std::optional<Date> again = parseISO8601(formatted);
        if (again && again->time_since_epoch().count() != seconds) {
            fail("a formatted date reads back as another second", std::to_string(seconds),
                 formatted);
        }
    }
    return 0;
}
