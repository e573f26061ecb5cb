#pragma once

// Building the backend's records for tests.

#include "Models.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tarnwick::test {

// A watched folder named after its last path component.
inline DirItem folder(const std::string &path, const std::string &status,
                      std::int64_t groupID = 1) {
    DirItem item;
    item.path = path;
    item.name = path.substr(path.rfind('/') + 1);
    item.status = status;
    item.groupID = groupID;
    item.enabled = true;
    return item;
}

// A group, with retention settings when days are given.
inline GroupItem group(std::int64_t id, const std::string &name,
                       std::vector<std::string> paths = {},
                       std::optional<std::int64_t> days = std::nullopt) {
    GroupItem g;
    g.groupID = id;
    g.name = name;
    g.walkPaths = std::move(paths);
    if (days) {
        RetentionSettings settings;
        settings.retentionDays = days;
        g.retentionSettings = settings;
    }
    return g;
}

} // namespace tarnwick::test
