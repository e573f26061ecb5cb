#include "Options.h"

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <pwd.h>
#include <unistd.h>

namespace kovritdev {

namespace {

std::string_view trim(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) {
        text.remove_prefix(1);
    }
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) {
        text.remove_suffix(1);
    }
    return text;
}

std::optional<std::string> environment(const char *name) {
    const char *value = std::getenv(name);
    if (value == nullptr) {
        return std::nullopt;
    }
    return std::string(value);
}

std::string homeDirectory() {
    if (auto home = environment("HOME"); home && !home->empty()) {
        return *home;
    }
    if (const passwd *entry = ::getpwuid(::getuid()); entry && entry->pw_dir) {
        return entry->pw_dir;
    }
    return "/";
}

bool setOption(CommandLine &line, std::string_view name, std::string_view value,
               std::string &error) {
    if (name == "pid") {
        const auto pid = parseInteger(value);
        if (!pid || *pid <= 0 || *pid > std::numeric_limits<int>::max()) {
            error = "invalid value \"" + std::string(value) + "\" for -pid: not a process id";
            return false;
        }
        line.pid = *pid;
        return true;
    }
    if (name == "port") {
        const auto port = parseInteger(value);
        if (!port || *port < 1 || *port > 65535) {
            error = "invalid value \"" + std::string(value) + "\" for -port: not a port number";
            return false;
        }
        line.port = static_cast<int>(*port);
        return true;
    }
    if (name == "token") {
        if (value.empty()) {
            error = "invalid value \"\" for -token: empty";
            return false;
        }
        line.token = std::string(value);
        return true;
    }
    error = "flag provided but not defined: -" + std::string(name);
    return false;
}

} // namespace

std::optional<std::int64_t> parseInteger(std::string_view text) {
    if (text.empty()) {
        return std::nullopt;
    }
    std::int64_t value = 0;
    const char *begin = text.data();
    const char *end = text.data() + text.size();
    if (*begin == '+') {
        return std::nullopt;
    }
    const auto [ptr, ec] = std::from_chars(begin, end, value);
    if (ec != std::errc() || ptr != end) {
        return std::nullopt;
    }
    return value;
}

std::optional<double> parseNonNegativeNumber(std::string_view text) {
    if (text.empty()) {
        return std::nullopt;
    }
    for (const char c : text) {
        if (!((c >= '0' && c <= '9') || c == '.')) {
            return std::nullopt;
        }
    }
    double value = 0;
    const auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || ptr != text.data() + text.size() || !std::isfinite(value)) {
        return std::nullopt;
    }
    return value;
}

CommandLineResult parseCommandLine(const std::vector<std::string> &args) {
    CommandLineResult result;
    CommandLine line;
    bool haveToken = false;
    bool havePort = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        std::string_view arg = args[i];
        if (arg.size() < 2 || arg.front() != '-') {
            result.error = "unexpected argument \"" + std::string(arg) + "\"";
            return result;
        }
        arg.remove_prefix(arg.starts_with("--") ? 2 : 1);
        if (arg.empty() || arg.front() == '-' || arg.front() == '=') {
            result.error = "bad flag syntax: " + args[i];
            return result;
        }
        if (arg == "h" || arg == "help") {
            result.helpRequested = true;
            return result;
        }
        std::string_view name = arg;
        std::string_view value;
        if (const auto eq = arg.find('='); eq != std::string_view::npos) {
            name = arg.substr(0, eq);
            value = arg.substr(eq + 1);
        } else if (name == "pid" || name == "port" || name == "token") {
            if (i + 1 >= args.size()) {
                result.error = "flag needs an argument: -" + std::string(name);
                return result;
            }
            value = args[++i];
        }
        if (!setOption(line, name, value, result.error)) {
            return result;
        }
        haveToken = haveToken || name == "token";
        havePort = havePort || name == "port";
    }
    if (!haveToken) {
        result.error = "missing required flag -token";
        return result;
    }
    if (!havePort) {
        result.error = "missing required flag -port";
        return result;
    }
    result.commandLine = line;
    return result;
}

std::string usageText(std::string_view programName) {
    std::string text = "Usage: ";
    text += programName;
    text += " [-pid=<client pid>] -token=<client public key> -port=<port>\n"
            "  -pid    exit soon after this process has ended\n"
            "  -token  the client's X25519 public key (base64 of 32 bytes); also its bearer token\n"
            "  -port   the port to listen on, on 127.0.0.1\n";
    return text;
}

bool Faults::any() const {
    return exitAfterSeconds || noPem || badPem || hang || garbage || slowMs || staleTimestamp ||
           status || !unreadableNames.empty() || !refusedTypes.empty();
}

std::string Faults::describe() const {
    std::string text;
    const auto add = [&text](const std::string &item) {
        if (!text.empty()) {
            text += ",";
        }
        text += item;
    };
    if (exitAfterSeconds) {
        std::string seconds = std::to_string(*exitAfterSeconds);
        while (seconds.find('.') != std::string::npos &&
               (seconds.back() == '0' || seconds.back() == '.')) {
            seconds.pop_back();
        }
        add("exit-after=" + seconds);
    }
    if (noPem) {
        add("no-pem");
    }
    if (badPem) {
        add("bad-pem");
    }
    if (hang) {
        add("hang");
    }
    if (garbage) {
        add("garbage");
    }
    if (slowMs) {
        add("slow=" + std::to_string(*slowMs));
    }
    if (staleTimestamp) {
        add("stale-timestamp");
    }
    if (status) {
        add("status=" + std::to_string(*status));
    }
    for (const auto &name : unreadableNames) {
        add("unreadable=" + name);
    }
    for (const auto &type : refusedTypes) {
        add("refuse=" + type);
    }
    return text;
}

FaultsResult parseFaults(std::string_view text) {
    FaultsResult result;
    Faults faults;
    while (!text.empty()) {
        const auto comma = text.find(',');
        std::string_view item = trim(text.substr(0, comma));
        text = comma == std::string_view::npos ? std::string_view() : text.substr(comma + 1);
        if (item.empty()) {
            continue;
        }
        std::string_view name = item;
        std::optional<std::string_view> value;
        if (const auto eq = item.find('='); eq != std::string_view::npos) {
            name = item.substr(0, eq);
            value = item.substr(eq + 1);
        }
        const auto bad = [&result, item](const char *why) {
            result.error = "KOVRIT_DEV_FAULT: bad switch \"" + std::string(item) + "\": " + why;
            return result;
        };
        const auto flag = [&](bool &target) -> bool {
            if (value) {
                return false;
            }
            target = true;
            return true;
        };
        if (name == "no-pem") {
            if (!flag(faults.noPem)) {
                return bad("takes no value");
            }
        } else if (name == "bad-pem") {
            if (!flag(faults.badPem)) {
                return bad("takes no value");
            }
        } else if (name == "hang") {
            if (!flag(faults.hang)) {
                return bad("takes no value");
            }
        } else if (name == "garbage") {
            if (!flag(faults.garbage)) {
                return bad("takes no value");
            }
        } else if (name == "stale-timestamp") {
            if (!flag(faults.staleTimestamp)) {
                return bad("takes no value");
            }
        } else if (name == "exit-after") {
            const auto seconds = value ? parseNonNegativeNumber(*value) : std::nullopt;
            if (!seconds || *seconds > 1e6) {
                return bad("needs a number of seconds");
            }
            faults.exitAfterSeconds = *seconds;
        } else if (name == "slow") {
            const auto ms = value ? parseInteger(*value) : std::nullopt;
            if (!ms || *ms < 0 || *ms > 600000) {
                return bad("needs a number of milliseconds (0 to 600000)");
            }
            faults.slowMs = static_cast<int>(*ms);
        } else if (name == "status") {
            const auto code = value ? parseInteger(*value) : std::nullopt;
            if (!code || *code < 200 || *code > 599) {
                return bad("needs an HTTP status code (200 to 599)");
            }
            faults.status = static_cast<int>(*code);
        } else if (name == "unreadable") {
            if (!value || value->empty() || value->find('/') != std::string_view::npos) {
                return bad("needs a file name");
            }
            faults.unreadableNames.emplace_back(*value);
        } else if (name == "refuse") {
            if (!value || value->empty()) {
                return bad("needs a command type");
            }
            faults.refusedTypes.emplace_back(*value);
        } else {
            return bad("unknown switch");
        }
    }
    result.faults = faults;
    return result;
}

SettingsResult settingsFromEnvironment() {
    SettingsResult result;
    Settings settings;

    if (auto dir = environment("KOVRIT_DEV_STATE"); dir && !dir->empty()) {
        settings.stateDir = *dir;
    } else if (auto xdg = environment("XDG_STATE_HOME"); xdg && xdg->starts_with("/")) {
        settings.stateDir = *xdg + "/kovrit-dev";
    } else {
        settings.stateDir = homeDirectory() + "/.local/state/kovrit-dev";
    }

    if (auto code = environment("KOVRIT_DEV_CODE"); code && !code->empty()) {
        if (code->size() > 64) {
            result.error = "KOVRIT_DEV_CODE: longer than 64 characters";
            return result;
        }
        for (const unsigned char c : *code) {
            if (c < 0x21 || c == 0x7f) {
                result.error = "KOVRIT_DEV_CODE: must be printable text without spaces";
                return result;
            }
        }
        settings.fixedCode = *code;
    }

    // On a desktop, folders and pages open with the desktop's opener and the
    // sign-in code also shows as a notification; "0" turns either off (the
    // tests do), "1" forces it.
    const auto nonEmpty = [](const char *name) {
        const auto value = environment(name);
        return value && !value->empty();
    };
    const bool display = nonEmpty("DISPLAY") || nonEmpty("WAYLAND_DISPLAY");
    const auto runtime = environment("XDG_RUNTIME_DIR");
    const bool sessionBus = nonEmpty("DBUS_SESSION_BUS_ADDRESS") ||
                            (runtime && !runtime->empty() &&
                             std::filesystem::exists(std::filesystem::path(*runtime) / "bus"));
    const auto switchOf = [&](const char *name, bool byDefault) {
        const auto value = environment(name);
        if (!value || value->empty()) {
            return byDefault;
        }
        return *value == "1";
    };
    settings.openEnabled = switchOf("KOVRIT_DEV_OPEN", display);
    settings.notifyEnabled = switchOf("KOVRIT_DEV_NOTIFY", display && sessionBus);

    struct NumberSetting {
        const char *name;
        double *target;
        double minimum;
        double maximum;
    };
    const NumberSetting numbers[] = {
        {"KOVRIT_DEV_RETENTION_DAY_SECONDS", &settings.retentionDaySeconds, 0.001, 1e9},
        {"KOVRIT_DEV_RETENTION_INTERVAL_SECONDS", &settings.retentionIntervalSeconds, 0.05, 1e9},
        {"KOVRIT_DEV_RESCAN_SECONDS", &settings.rescanSeconds, 0.05, 1e6},
    };
    for (const auto &number : numbers) {
        if (auto text = environment(number.name); text && !text->empty()) {
            const auto value = parseNonNegativeNumber(*text);
            if (!value || *value < number.minimum || *value > number.maximum) {
                result.error = std::string(number.name) + ": \"" + *text +
                               "\" is not a number of seconds in range";
                return result;
            }
            *number.target = *value;
        }
    }
    if (auto text = environment("KOVRIT_DEV_STEP_MS"); text && !text->empty()) {
        const auto value = parseInteger(*text);
        if (!value || *value < 0 || *value > 60000) {
            result.error = "KOVRIT_DEV_STEP_MS: \"" + *text + "\" is not 0 to 60000";
            return result;
        }
        settings.stepMs = static_cast<int>(*value);
    }

    if (auto text = environment("KOVRIT_DEV_FAULT")) {
        auto faults = parseFaults(*text);
        if (!faults.faults) {
            result.error = faults.error;
            return result;
        }
        settings.faults = *faults.faults;
    }

    result.settings = settings;
    return result;
}

} // namespace kovritdev
