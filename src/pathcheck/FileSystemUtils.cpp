#include "FileSystemUtils.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <filesystem>
#include <system_error>

#include <unistd.h>

namespace fs = std::filesystem;

namespace tarnwick::pathcheck {
namespace {

FileSystemUtils::UbiquityProvider &ubiquityProvider() {
    static FileSystemUtils::UbiquityProvider provider;
    return provider;
}

std::optional<UbiquityValues> ubiquityValues(const QString &path) {
    const auto &provider = ubiquityProvider();
    if (!provider) {
        return std::nullopt;
    }
    return provider(path);
}

fs::path toPath(const QString &path) {
    return fs::path(QFile::encodeName(path).toStdString());
}

bool existsAt(const QString &path) {
    return QFileInfo::exists(path);
}

bool readableAt(const QString &path) {
    return ::access(QFile::encodeName(path).constData(), R_OK) == 0;
}

// The path without trailing separators, so that "the last component" of
// "/a/b/" is "b", as it is for a file URL.
QString withoutTrailingSlash(QString path) {
    while (path.size() > 1 && path.endsWith(QLatin1Char('/'))) {
        path.chop(1);
    }
    return path;
}

QString parentOf(const QString &path) {
    const QString trimmed = withoutTrailingSlash(path);
    const qsizetype slash = trimmed.lastIndexOf(QLatin1Char('/'));
    if (slash < 0) {
        return QStringLiteral(".");
    }
    if (slash == 0) {
        return QStringLiteral("/");
    }
    return trimmed.left(slash);
}

bool isPlaceholderName(const std::string &name) {
    return name.size() >= 1 && name.front() == '.' && name.ends_with(".icloud");
}

} // namespace

void FileSystemUtils::setUbiquityProvider(UbiquityProvider provider) {
    ubiquityProvider() = std::move(provider);
}

bool FileSystemUtils::isICloudSyncedPath(const QString &path) {
    if (path.contains(QLatin1String("/Mobile Documents/")) ||
        path.contains(QLatin1String("Library/Mobile Documents/")) ||
        path.contains(QLatin1String("/Documents/iCloud"))) {
        return true;
    }
    if (const auto values = ubiquityValues(path); values && values->anyPresent()) {
        return true;
    }
    // A placeholder among the item's siblings (".name.icloud") means the
    // containing folder is managed by iCloud. The item's own contents are not
    // looked at.
    std::error_code error;
    for (fs::directory_iterator entry(toPath(parentOf(path)), error), end; !error && entry != end;
         entry.increment(error)) {
        if (isPlaceholderName(entry->path().filename().string())) {
            return true;
        }
    }
    return false;
}

std::optional<QString> FileSystemUtils::getICloudStatusMessage(const QString &path) {
    if (!isICloudSyncedPath(path)) {
        return std::nullopt;
    }
    if (path.contains(QLatin1String("/Mobile Documents/"))) {
        return tr("This folder is in iCloud Drive and may cause sync conflicts.");
    }
    const auto values = ubiquityValues(path);
    if (values && values->downloadingStatus) {
        if (*values->downloadingStatus == UbiquityValues::DownloadingStatus::notDownloaded) {
            return tr("This iCloud folder has items not downloaded locally.");
        }
        return tr("This folder is synced with iCloud Drive.");
    }
    return tr("This folder appears to be synced with iCloud.");
}

SyncPathCheck FileSystemUtils::validatePathForSync(const QString &path) {
    if (!existsAt(path)) {
        return {false, tr("The selected path does not exist.")};
    }
    if (isICloudSyncedPath(path)) {
        return {true,
                getICloudStatusMessage(path).value_or(tr("This folder is synced with iCloud."))};
    }
    if (!readableAt(path)) {
        return {false, tr("The selected path is not readable. Check permissions.")};
    }
    return {true, std::nullopt};
}

bool FileSystemUtils::isPhotosLibrary(const QString &path) {
    const QString name = withoutTrailingSlash(path).section(QLatin1Char('/'), -1);
    const qsizetype dot = name.lastIndexOf(QLatin1Char('.'));
    // A leading dot starts a hidden name, not an extension.
    if (dot <= 0) {
        return false;
    }
    return name.mid(dot + 1).toLower() == QLatin1String("photoslibrary");
}

PhotosLibraryCheck FileSystemUtils::validatePhotosLibrary(const QString &path) {
    if (!isPhotosLibrary(path)) {
        return {false, tr("The selected path is not a Photos library.")};
    }
    const QString originals = withoutTrailingSlash(path) + QStringLiteral("/originals");
    if (!existsAt(originals)) {
        return {false, tr("The originals folder does not exist in this Photos library.")};
    }
    if (!readableAt(originals)) {
        return {false, tr("Cannot read the originals folder. Check permissions.")};
    }
    // Only the top level counts, hidden entries skipped.
    std::error_code error;
    bool empty = true;
    for (fs::directory_iterator entry(toPath(originals), error), end; !error && entry != end;
         entry.increment(error)) {
        if (!entry->path().filename().string().starts_with('.')) {
            empty = false;
            break;
        }
    }
    if (error) {
        return {true, tr("Warning: Could not verify originals folder contents.")};
    }
    if (empty) {
        return {true, tr("Warning: The originals folder appears to be empty. Make sure "
                         "'Download Originals to this Mac' is enabled in Photos "
                         "settings.")};
    }
    return {true, std::nullopt};
}

} // namespace tarnwick::pathcheck
