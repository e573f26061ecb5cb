#pragma once

#include <QCoreApplication>
#include <QString>

#include <functional>
#include <optional>
#include <string>

namespace tarnwick::supervisor {

// Keeps the private, writable copy of the backend identical to the one that
// ships with the client, and checks that a copy is a plausible executable.
//
// The backend is never run from the resources directory: before a launch the
// client copies it to <data home>/tarnwick/bin/<name>, keeps an existing copy
// only when its SHA-256 equals the shipped file's, and after a crash replaces
// the copy unconditionally. Every outcome is one log line; nothing throws.
class BinaryPreparation {
    Q_DECLARE_TR_FUNCTIONS(tarnwick::supervisor::BinaryPreparation)

public:
    using LogFunction = std::function<void(const QString &line)>;
    // Resolves a shipped resource by name; empty when the file is not shipped.
    using ResourceLookup = std::function<std::optional<QString>(const QString &name)>;
    // The per-user data directory ("Application Support"); empty when none.
    using DataDirectoryLookup = std::function<std::optional<QString>()>;

    BinaryPreparation(LogFunction log, ResourceLookup resources, DataDirectoryLookup dataDirectory);

    // The defaults: the client's resources directory and the XDG data home.
    static ResourceLookup defaultResourceLookup();
    static DataDirectoryLookup defaultDataDirectoryLookup();

    // Path of a validated writable copy of the shipped backend `name`, or empty.
    std::optional<QString> getWritableBinaryURL(const QString &bundledBinaryName) const;
    // Crash recovery: replace the copy from the shipped file, no digest check.
    std::optional<QString> forceReplaceBinaryFromBundle(const QString &bundledBinaryName) const;
    // Existence, readability, size >= 1024, executability and magic number.
    bool validateBinary(const QString &path) const;
    // Lower-case hex SHA-256 of the whole file, or empty when it cannot be read.
    static std::optional<std::string> sha256OfFile(const QString &path);

    const ResourceLookup &resources() const { return resources_; }

    // Why the last preparation or replacement gave no copy, in words for the
    // user (empty after a success).
    const QString &failureReason() const { return failureReason_; }

    // The copy's directory below the data directory.
    static QString binDirectory(const QString &dataDirectory);

private:
    struct Locations {
        QString shipped;      // the shipped backend
        QString binDirectory; // where its private copy lives
    };
    std::optional<QString> shippedFile(const QString &name) const;
    // Both places, or empty after logging why not.
    std::optional<Locations> locate(const QString &name) const;
    // The bin folder must be a real folder of our own that nobody else can
    // write to: a folder anyone else could change could swap the backend
    // between its check and its start. One that is not is removed and made
    // again, private. False (with the reason set) when that fails.
    bool ensurePrivateDirectory(const QString &directory) const;
    // Whether the copy is a regular file of ours that nobody else may write.
    bool isPrivateCopy(const QString &path) const;
    std::optional<QString> fail(const QString &reason) const;

    LogFunction log_;
    ResourceLookup resources_;
    DataDirectoryLookup dataDirectory_;
    mutable QString failureReason_;
};

} // namespace tarnwick::supervisor
