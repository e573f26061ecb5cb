// The backend's persistent state: the signed-in account, pending sign-in codes, the groups with
// their folders and retention settings. It lives in one JSON file in the state folder, which also
// holds the outbox of "mailed" sign-in codes and the vault of synced files. Every write replaces
// the file atomically (temporary file, flush to disk, rename), so a killed backend never leaves
// half a state file behind.
//
// Main thread only.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kovritdev {

struct RetentionState {
    std::optional<std::int64_t> days;          // absent or 0: deleted files are kept forever
    std::optional<std::int64_t> lastTime;      // seconds since the epoch of the last pass
    std::optional<std::int64_t> lastFileCount; // files removed by the last pass
    std::optional<std::int64_t> lastByteCount; // bytes removed by the last pass
};

struct GroupState {
    std::int64_t id = 0;
    std::string name;
    std::vector<std::string> walkPaths;
    RetentionState retention;
};

struct PendingCode {
    std::string address;
    std::string code;
    std::int64_t expiresMs = 0;
};

struct State {
    std::string account; // the signed-in address; empty while signed out
    std::vector<PendingCode> codes;
    std::vector<GroupState> groups;
    std::int64_t nextGroupID = 1;

    GroupState *groupByID(std::int64_t id);
    GroupState *groupByName(std::string_view name);
};

class StateStore {
public:
    explicit StateStore(std::string dir);

    // Creates the state folder (mode 0700) and its outbox and vault folders.
    bool prepare(std::string &error);
    // Reads the state file. A missing file gives the state of a new installation; an unreadable
    // or malformed one is moved aside (its name gets ".corrupt-<ms>") and a new state begins.
    void load();
    // Writes the state file atomically. Logs and returns false on failure.
    bool save();

    State &state() { return state_; }
    const State &state() const { return state_; }

    const std::string &dir() const { return dir_; }
    std::string stateFile() const { return dir_ + "/state.json"; }
    std::string outboxDir() const { return dir_ + "/outbox"; }
    std::string vaultDir() const { return dir_ + "/vault"; }

    // Writes `text` to <outbox>/<address> atomically.
    bool writeOutbox(const std::string &address, const std::string &text);

    // The state of a new installation: signed out, groups 1 "Personal" and 2 "Family".
    static State defaultState();
    static std::string encode(const State &state);
    // nullopt (and `error`) when the text is not a state file of this backend.
    static std::optional<State> decode(std::string_view text, std::string &error);

private:
    std::string dir_;
    State state_;
};

// Writes `data` to `path` through a temporary file in the same folder that is flushed to disk
// and renamed over the target.
bool writeFileAtomically(const std::string &path, std::string_view data, std::string &error);

} // namespace kovritdev
