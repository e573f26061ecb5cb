// The backend's command line, its environment settings and the fault switches used by the
// client's tests.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kovritdev {

// "-pid=<client pid>" (optional), "-token=<client public key>", "-port=<port>". Each may also be
// written "--name=value" or "-name value".
struct CommandLine {
    std::optional<std::int64_t> pid;
    std::string token;
    int port = 0;
};

struct CommandLineResult {
    std::optional<CommandLine> commandLine; // set when the arguments were good
    bool helpRequested = false;             // "-h", "-help" or "--help"
    std::string error;                      // what was wrong, when neither of the above
};

// `args` excludes the program name.
CommandLineResult parseCommandLine(const std::vector<std::string> &args);
std::string usageText(std::string_view programName);

// KOVRIT_DEV_FAULT: a comma-separated list of switches that make the backend misbehave on
// purpose, so that the client's handling of a broken backend can be tested.
struct Faults {
    std::optional<double> exitAfterSeconds; // exit-after=<seconds>: exit 1 after that long
    bool noPem = false;                     // no-pem: never print the public key
    bool badPem = false;                    // bad-pem: print a block whose body is not a key
    bool hang = false;                      // hang: accept requests and never answer
    bool garbage = false;                   // garbage: answer 200 with a body that is no record
    std::optional<int> slowMs;              // slow=<ms>: delay every answer
    bool staleTimestamp = false;            // stale-timestamp: sign answers one second in the past
    std::optional<int> status;              // status=<code>: answer every request with that code
    // unreadable=<file name>: files with this name fail to open as if unreadable (lets tests
    // that run with privileges that read everything exercise the unreadable-file path).
    std::vector<std::string> unreadableNames;
    // refuse=<command type>: answer every such command with a status error (lets tests see a
    // refusal of a command the backend would otherwise always accept).
    std::vector<std::string> refusedTypes;

    bool any() const;
    std::string describe() const;
};

struct FaultsResult {
    std::optional<Faults> faults;
    std::string error;
};
FaultsResult parseFaults(std::string_view text);

// Everything the environment configures.
struct Settings {
    std::string stateDir;                   // KOVRIT_DEV_STATE, else the XDG state home
    std::optional<std::string> fixedCode;   // KOVRIT_DEV_CODE
    bool openEnabled = false;               // KOVRIT_DEV_OPEN, else whether a display is present
    bool notifyEnabled = false;             // KOVRIT_DEV_NOTIFY, else whether a desktop session is
    double retentionDaySeconds = 86400;     // KOVRIT_DEV_RETENTION_DAY_SECONDS
    double retentionIntervalSeconds = 3600; // KOVRIT_DEV_RETENTION_INTERVAL_SECONDS
    double rescanSeconds = 3;               // KOVRIT_DEV_RESCAN_SECONDS
    int stepMs = 150;                       // KOVRIT_DEV_STEP_MS
    Faults faults;                          // KOVRIT_DEV_FAULT
};

struct SettingsResult {
    std::optional<Settings> settings;
    std::string error;
};
// Reads the process environment.
SettingsResult settingsFromEnvironment();

// A strict decimal number: digits with an optional fraction, nothing else.
std::optional<double> parseNonNegativeNumber(std::string_view text);
std::optional<std::int64_t> parseInteger(std::string_view text);

} // namespace kovritdev
