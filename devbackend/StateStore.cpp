#include "StateStore.h"

#include "Log.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QSaveFile>
#include <QString>

#include <nlohmann/json.hpp>

#include <filesystem>
#include <sys/stat.h>

namespace kovritdev {

namespace {

using Json = nlohmann::ordered_json;

constexpr int kStateVersion = 1;

QString qs(const std::string &text) {
    return QString::fromStdString(text);
}

template <class T> void putOptional(Json &object, const char *key, const std::optional<T> &value) {
    if (value) {
        object[key] = *value;
    }
}

std::optional<std::int64_t> optionalInteger(const Json &object, const char *key) {
    const auto it = object.find(key);
    if (it == object.end() || it->is_null()) {
        return std::nullopt;
    }
    if (!it->is_number_integer()) {
        throw std::runtime_error(std::string("\"") + key + "\" is not an integer");
    }
    return it->get<std::int64_t>();
}

const Json &member(const Json &object, const char *key) {
    const auto it = object.find(key);
    if (it == object.end()) {
        throw std::runtime_error(std::string("missing \"") + key + "\"");
    }
    return *it;
}

std::string stringMember(const Json &object, const char *key) {
    const Json &value = member(object, key);
    if (!value.is_string()) {
        throw std::runtime_error(std::string("\"") + key + "\" is not a string");
    }
    return value.get<std::string>();
}

std::int64_t integerMember(const Json &object, const char *key) {
    const Json &value = member(object, key);
    if (!value.is_number_integer()) {
        throw std::runtime_error(std::string("\"") + key + "\" is not an integer");
    }
    return value.get<std::int64_t>();
}

const Json &arrayMember(const Json &object, const char *key) {
    const Json &value = member(object, key);
    if (!value.is_array()) {
        throw std::runtime_error(std::string("\"") + key + "\" is not an array");
    }
    return value;
}

} // namespace

GroupState *State::groupByID(std::int64_t id) {
    for (auto &group : groups) {
        if (group.id == id) {
            return &group;
        }
    }
    return nullptr;
}

GroupState *State::groupByName(std::string_view name) {
    for (auto &group : groups) {
        if (group.name == name) {
            return &group;
        }
    }
    return nullptr;
}

StateStore::StateStore(std::string dir) : state_(defaultState()) {
    std::error_code ec;
    const auto absolute = std::filesystem::absolute(dir, ec).lexically_normal().string();
    dir_ = ec ? dir : absolute;
    while (dir_.size() > 1 && dir_.back() == '/') {
        dir_.pop_back();
    }
}

bool StateStore::prepare(std::string &error) {
    for (const auto &path : {dir_, outboxDir(), vaultDir()}) {
        if (!QDir().mkpath(qs(path))) {
            error = "cannot create " + path;
            return false;
        }
    }
    ::chmod(dir_.c_str(), 0700);
    return true;
}

State StateStore::defaultState() {
    State state;
    state.groups.push_back(GroupState{1, "Personal", {}, {}});
    state.groups.push_back(GroupState{2, "Family", {}, {}});
    state.nextGroupID = 3;
    return state;
}

std::string StateStore::encode(const State &state) {
    Json root = Json::object();
    root["version"] = kStateVersion;
    root["account"] = state.account;
    Json codes = Json::array();
    for (const auto &code : state.codes) {
        codes.push_back(
            Json{{"address", code.address}, {"code", code.code}, {"expires_ms", code.expiresMs}});
    }
    root["codes"] = codes;
    root["next_group_id"] = state.nextGroupID;
    Json groups = Json::array();
    for (const auto &group : state.groups) {
        Json retention = Json::object();
        putOptional(retention, "days", group.retention.days);
        putOptional(retention, "last_time", group.retention.lastTime);
        putOptional(retention, "last_file_count", group.retention.lastFileCount);
        putOptional(retention, "last_byte_count", group.retention.lastByteCount);
        groups.push_back(Json{{"id", group.id},
                              {"name", group.name},
                              {"walk_paths", group.walkPaths},
                              {"retention", retention}});
    }
    root["groups"] = groups;
    // Text that cannot be written as UTF-8 is replaced rather than failing the whole save.
    return root.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::optional<State> StateStore::decode(std::string_view text, std::string &error) {
    try {
        const Json root = Json::parse(text);
        if (!root.is_object()) {
            error = "not a JSON object";
            return std::nullopt;
        }
        if (integerMember(root, "version") != kStateVersion) {
            error = "unknown state version";
            return std::nullopt;
        }
        State state;
        state.account = stringMember(root, "account");
        for (const auto &code : arrayMember(root, "codes")) {
            state.codes.push_back(PendingCode{stringMember(code, "address"),
                                              stringMember(code, "code"),
                                              integerMember(code, "expires_ms")});
        }
        state.nextGroupID = integerMember(root, "next_group_id");
        for (const auto &group : arrayMember(root, "groups")) {
            GroupState item;
            item.id = integerMember(group, "id");
            item.name = stringMember(group, "name");
            for (const auto &path : arrayMember(group, "walk_paths")) {
                if (!path.is_string()) {
                    throw std::runtime_error("a walk path is not a string");
                }
                item.walkPaths.push_back(path.get<std::string>());
            }
            const Json &retention = member(group, "retention");
            if (!retention.is_object()) {
                throw std::runtime_error("\"retention\" is not an object");
            }
            item.retention.days = optionalInteger(retention, "days");
            item.retention.lastTime = optionalInteger(retention, "last_time");
            item.retention.lastFileCount = optionalInteger(retention, "last_file_count");
            item.retention.lastByteCount = optionalInteger(retention, "last_byte_count");
            if (state.groupByID(item.id) != nullptr) {
                throw std::runtime_error("two groups with one id");
            }
            state.groups.push_back(std::move(item));
        }
        return state;
    } catch (const std::exception &e) {
        error = e.what();
        return std::nullopt;
    }
}

void StateStore::load() {
    QFile file(qs(stateFile()));
    if (!file.exists()) {
        state_ = defaultState();
        return;
    }
    std::string error;
    if (file.open(QIODevice::ReadOnly)) {
        const QByteArray bytes = file.read(64 * 1024 * 1024);
        file.close();
        if (auto state = decode(std::string_view(bytes.constData(), bytes.size()), error)) {
            state_ = std::move(*state);
            return;
        }
    } else {
        error = file.errorString().toStdString();
    }
    const std::string aside =
        stateFile() + ".corrupt-" + std::to_string(QDateTime::currentMSecsSinceEpoch());
    QFile::rename(qs(stateFile()), qs(aside));
    logLine("warning: state file " + stateFile() + " unusable (" + error + "), moved to " + aside +
            "; starting afresh");
    state_ = defaultState();
}

bool StateStore::save() {
    std::string error;
    if (!writeFileAtomically(stateFile(), encode(state_), error)) {
        logLine("warning: cannot save state: " + error);
        return false;
    }
    return true;
}

bool StateStore::writeOutbox(const std::string &address, const std::string &text) {
    std::string error;
    if (!writeFileAtomically(outboxDir() + "/" + address, text, error)) {
        logLine("warning: cannot write outbox: " + error);
        return false;
    }
    return true;
}

bool writeFileAtomically(const std::string &path, std::string_view data, std::string &error) {
    QSaveFile file(qs(path));
    if (!file.open(QIODevice::WriteOnly)) {
        error = path + ": " + file.errorString().toStdString();
        return false;
    }
    if (file.write(data.data(), static_cast<qint64>(data.size())) !=
        static_cast<qint64>(data.size())) {
        error = path + ": " + file.errorString().toStdString();
        file.cancelWriting();
        return false;
    }
    // commit() flushes the temporary file to disk before it renames it over the target.
    if (!file.commit()) {
        error = path + ": " + file.errorString().toStdString();
        return false;
    }
    return true;
}

} // namespace kovritdev
