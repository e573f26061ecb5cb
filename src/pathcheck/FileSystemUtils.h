#pragma once

#include <QCoreApplication>
#include <QString>

#include <functional>
#include <optional>

namespace tarnwick::pathcheck {

// What the file system says about an item that a cloud drive manages. Every
// value is optional: a value's mere presence means the item is managed.
struct UbiquityValues {
    enum class DownloadingStatus { notDownloaded, downloaded, current, other };
    std::optional<bool> isUploading;
    std::optional<bool> isDownloading;
    std::optional<DownloadingStatus> downloadingStatus;
    std::optional<bool> isShared;

    bool anyPresent() const {
        return isUploading || isDownloading || downloadingStatus || isShared;
    }
};

struct SyncPathCheck {
    bool isValid = false;
    std::optional<QString> warning;
};

struct PhotosLibraryCheck {
    bool isValid = false;
    std::optional<QString> message;
};

// Checks on a folder or Photos library before it is handed to the backend.
// Stateless: every call reads the file system afresh. Nothing here throws,
// logs or changes the disk; failures become a boolean or a message.
class FileSystemUtils {
    Q_DECLARE_TR_FUNCTIONS(tarnwick::pathcheck::FileSystemUtils)

public:
    // True for a path inside iCloud Drive or next to an iCloud placeholder.
    static bool isICloudSyncedPath(const QString &path);
    // The sentence that tells the user how iCloud is involved, if it is.
    static std::optional<QString> getICloudStatusMessage(const QString &path);
    static SyncPathCheck validatePathForSync(const QString &path);
    static bool isPhotosLibrary(const QString &path);
    static PhotosLibraryCheck validatePhotosLibrary(const QString &path);

    // Where the cloud attributes of an item come from. Linux has no such
    // attributes, so the default provider answers "no values" (empty); tests
    // and other platforms install their own.
    using UbiquityProvider = std::function<std::optional<UbiquityValues>(const QString &path)>;
    static void setUbiquityProvider(UbiquityProvider provider);
};

} // namespace tarnwick::pathcheck
