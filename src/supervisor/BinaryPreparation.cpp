#include "BinaryPreparation.h"

#include <runwarden/Resources.h>

#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <future>
#include <memory>
#include <system_error>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace tarnwick::supervisor {
namespace {

constexpr std::uint64_t kMinimumSize = 1024;

// First four bytes read in host (little-endian) order. The five Mach-O values
// keep their order; a universal Mach-O (ca fe ba be on disk) stays rejected.
// On Linux the ELF magic 7f 45 4c 46 is accepted as well.
constexpr std::array<std::uint32_t, 6> kAcceptedMagic = {
    0xfeedface, 0xfeedfacf, 0xcafebabe, 0xcffaedfe, 0xcefaedfe, 0x464c457f,
};

// Closes a descriptor on every path out of a scope.
class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    FileDescriptor(const FileDescriptor &) = delete;
    FileDescriptor &operator=(const FileDescriptor &) = delete;
    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }

private:
    int fd_;
};

std::string errnoText(int error) {
    return std::error_code(error, std::generic_category()).message();
}

fs::path toPath(const QString &path) {
    return fs::path(path.toStdString());
}

// Like the file manager's existence test, but a dangling link counts as a file
// in the way, so it is removed before a copy instead of making the copy fail.
bool somethingAt(const fs::path &path) {
    std::error_code error;
    return fs::exists(fs::symlink_status(path, error));
}

bool fileExists(const QString &path) {
    return QFileInfo::exists(path);
}

// Reads up to `size` bytes, retrying short reads and interruptions.
ssize_t readFully(int fd, void *buffer, std::size_t size) {
    std::size_t total = 0;
    auto *bytes = static_cast<unsigned char *>(buffer);
    while (total < size) {
        const ssize_t n = ::read(fd, bytes + total, size - total);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return -1;
        }
        if (n == 0) {
            break;
        }
        total += static_cast<std::size_t>(n);
    }
    return static_cast<ssize_t>(total);
}

[[noreturn]] void throwCopyError(const char *what, const fs::path &source,
                                 const fs::path &destination, int error) {
    throw fs::filesystem_error(what, source, destination,
                               std::error_code(error, std::generic_category()));
}

// The bytes themselves, with the system's own reason on failure: the library's copy reports
// a full disk as a generic input/output error, which tells the user nothing.
void copyBytes(const fs::path &source, const fs::path &destination) {
    const FileDescriptor in(::open(source.c_str(), O_RDONLY | O_CLOEXEC));
    if (!in.valid()) {
        throwCopyError("cannot open the shipped backend", source, destination, errno);
    }
    const FileDescriptor out(
        ::open(destination.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!out.valid()) {
        throwCopyError("cannot create the copy", source, destination, errno);
    }
    constexpr std::size_t kBlock = 1 << 20;
    const auto buffer = std::make_unique<unsigned char[]>(kBlock);
    for (;;) {
        const ssize_t got = readFully(in.get(), buffer.get(), kBlock);
        if (got < 0) {
            throwCopyError("cannot read the shipped backend", source, destination, errno);
        }
        if (got == 0) {
            break;
        }
        std::size_t written = 0;
        while (written < static_cast<std::size_t>(got)) {
            const ssize_t n =
                ::write(out.get(), buffer.get() + written, static_cast<std::size_t>(got) - written);
            if (n < 0) {
                if (errno == EINTR) {
                    continue;
                }
                throwCopyError("cannot write the copy", source, destination, errno);
            }
            written += static_cast<std::size_t>(n);
        }
    }
    // Some file systems only report a full disk when the data reaches it.
    if (::fsync(out.get()) != 0 && errno != EINVAL) {
        throwCopyError("cannot write the copy", source, destination, errno);
    }
}

// Copies the shipped file over the destination and makes it executable. The
// bytes go to a temporary file beside the destination first, which is renamed
// into place only when complete: a failed copy (a full disk, say) leaves
// nothing behind that could later be taken for the backend.
// Throws std::filesystem::filesystem_error on the first failure.
void copyExecutable(const fs::path &source, const fs::path &destination) {
    fs::path partial = destination;
    partial += ".partial";
    std::error_code ignored;
    fs::remove(partial, ignored);
    try {
        copyBytes(source, partial);
        fs::permissions(partial, static_cast<fs::perms>(0755), fs::perm_options::replace);
        fs::rename(partial, destination);
    } catch (...) {
        fs::remove(partial, ignored);
        throw;
    }
}

// What went wrong with a copy, in words a user can act on.
QString copyFailureText(const std::error_code &error) {
    const QString system = QString::fromStdString(error.message());
    if (error == std::errc::no_space_on_device) {
        return BinaryPreparation::tr("the disk is full (%1)").arg(system);
    }
#ifdef EDQUOT
    if (error.value() == EDQUOT && error.category() == std::generic_category()) {
        return BinaryPreparation::tr("the disk quota is used up (%1)").arg(system);
    }
#endif
    if (error == std::errc::directory_not_empty || error == std::errc::is_a_directory) {
        return BinaryPreparation::tr("a folder is in the way (%1)").arg(system);
    }
    if (error == std::errc::permission_denied || error == std::errc::operation_not_permitted ||
        error == std::errc::read_only_file_system) {
        return BinaryPreparation::tr("it may not be written there (%1)").arg(system);
    }
    return system;
}

QString copyFailureReason(const QString &destination, const std::error_code &error) {
    return BinaryPreparation::tr("The backend could not be copied to %1: %2.")
        .arg(destination, copyFailureText(error));
}

} // namespace

BinaryPreparation::BinaryPreparation(LogFunction log, ResourceLookup resources,
                                     DataDirectoryLookup dataDirectory)
    : log_(std::move(log)), resources_(std::move(resources)),
      dataDirectory_(std::move(dataDirectory)) {}

BinaryPreparation::ResourceLookup BinaryPreparation::defaultResourceLookup() {
    return [](const QString &name) { return runwarden::bundleResourcePath(name); };
}

BinaryPreparation::DataDirectoryLookup BinaryPreparation::defaultDataDirectoryLookup() {
    return []() -> std::optional<QString> {
        const QStringList locations =
            QStandardPaths::standardLocations(QStandardPaths::GenericDataLocation);
        if (locations.isEmpty() || locations.first().isEmpty()) {
            return std::nullopt;
        }
        return locations.first();
    };
}

QString BinaryPreparation::binDirectory(const QString &dataDirectory) {
    return QDir::cleanPath(dataDirectory + QStringLiteral("/tarnwick/bin"));
}

bool BinaryPreparation::validateBinary(const QString &path) const {
    const QByteArray native = QFile::encodeName(path);

    if (!fileExists(path)) {
        log_(QStringLiteral("Binary validation failed: file does not exist at %1").arg(path));
        return false;
    }
    if (::access(native.constData(), R_OK) != 0) {
        log_(QStringLiteral("Binary validation failed: file is not readable at %1").arg(path));
        return false;
    }
    struct stat attributes {};
    if (::stat(native.constData(), &attributes) != 0) {
        log_(QStringLiteral("Binary validation failed: could not read file attributes - %1")
                 .arg(QString::fromStdString(errnoText(errno))));
        return false;
    }
    if (attributes.st_size >= 0) {
        const auto size = static_cast<std::uint64_t>(attributes.st_size);
        if (size < kMinimumSize) {
            log_(QStringLiteral("Binary validation failed: file size too small (%1 bytes) at %2")
                     .arg(size)
                     .arg(path));
            return false;
        }
    }
    if (::access(native.constData(), X_OK) != 0) {
        log_(QStringLiteral("Binary validation failed: file is not executable at %1").arg(path));
        return false;
    }
    const FileDescriptor file(::open(native.constData(), O_RDONLY | O_CLOEXEC));
    if (!file.valid()) {
        log_(QStringLiteral("Binary validation failed: could not open file for reading at %1")
                 .arg(path));
        return false;
    }
    std::array<unsigned char, 4> head{};
    if (readFully(file.get(), head.data(), head.size()) != static_cast<ssize_t>(head.size())) {
        log_(
            QStringLiteral("Binary validation failed: could not read magic bytes at %1").arg(path));
        return false;
    }
    std::uint32_t magic = 0;
    std::memcpy(&magic, head.data(), sizeof magic);
    if (std::find(kAcceptedMagic.begin(), kAcceptedMagic.end(), magic) == kAcceptedMagic.end()) {
        log_(QStringLiteral("Binary validation failed: invalid magic number 0x%1 at %2")
                 .arg(QString::number(magic, 16), path));
        return false;
    }
    log_(QStringLiteral("Binary validation passed for %1").arg(path));
    return true;
}

std::optional<QString> BinaryPreparation::fail(const QString &reason) const {
    failureReason_ = reason;
    return std::nullopt;
}

bool BinaryPreparation::ensurePrivateDirectory(const QString &directory) const {
    const QByteArray native = QFile::encodeName(directory);
    struct stat attributes {};
    if (::lstat(native.constData(), &attributes) != 0) {
        const int error = errno;
        log_(QStringLiteral("Error: Could not inspect the bin folder %1: %2")
                 .arg(directory, QString::fromStdString(errnoText(error))));
        fail(tr("The backend's folder %1 cannot be used: %2.")
                 .arg(directory, QString::fromStdString(errnoText(error))));
        return false;
    }
    // The problem in the log's words and in the user's language.
    QString problem;
    QString problemShown;
    if (!S_ISDIR(attributes.st_mode)) {
        problem = QStringLiteral("it is not a real folder");
        problemShown = tr("it is not a real folder");
    } else if (attributes.st_uid != ::geteuid()) {
        problem = QStringLiteral("it belongs to user %1").arg(attributes.st_uid);
        problemShown = tr("it belongs to user %1").arg(attributes.st_uid);
    } else if ((attributes.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        const QString mode =
            QStringLiteral("%1").arg(attributes.st_mode & 07777, 4, 8, QLatin1Char('0'));
        problem = QStringLiteral("others may write to it (mode %1)").arg(mode);
        problemShown = tr("others may write to it (mode %1)").arg(mode);
    }
    if (problem.isEmpty()) {
        return true;
    }
    log_(QStringLiteral("The bin folder %1 is not private (%2); making it again")
             .arg(directory, problem));
    std::error_code error;
    // A link is removed itself, never what it points to.
    fs::remove_all(toPath(directory), error);
    if (!error && ::mkdir(native.constData(), 0700) != 0) {
        error = std::error_code(errno, std::generic_category());
    }
    if (error) {
        log_(QStringLiteral("Error: Could not make the bin folder %1 again: %2")
                 .arg(directory, QString::fromStdString(error.message())));
        fail(tr("The backend's folder %1 is not private (%2) and could not be made again: %3.")
                 .arg(directory, problemShown, QString::fromStdString(error.message())));
        return false;
    }
    return true;
}

bool BinaryPreparation::isPrivateCopy(const QString &path) const {
    struct stat attributes {};
    if (::lstat(QFile::encodeName(path).constData(), &attributes) != 0) {
        return false;
    }
    return S_ISREG(attributes.st_mode) && attributes.st_uid == ::geteuid() &&
           (attributes.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

std::optional<std::string> BinaryPreparation::sha256OfFile(const QString &path) {
    const FileDescriptor file(::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC));
    if (!file.valid()) {
        return std::nullopt;
    }
    struct stat attributes {};
    if (::fstat(file.get(), &attributes) != 0) {
        return std::nullopt;
    }
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                          &EVP_MD_CTX_free);
    if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) {
        return std::nullopt;
    }
    bool hashed = false;
    if (S_ISREG(attributes.st_mode) && attributes.st_size > 0) {
        // Hashed straight from the page cache: a backend of tens of megabytes
        // is neither copied nor held in memory of our own.
        const auto size = static_cast<std::size_t>(attributes.st_size);
        void *mapped = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, file.get(), 0);
        if (mapped != MAP_FAILED) {
            ::madvise(mapped, size, MADV_SEQUENTIAL);
            const bool ok = EVP_DigestUpdate(context.get(), mapped, size) == 1;
            ::munmap(mapped, size);
            if (!ok) {
                return std::nullopt;
            }
            hashed = true;
        }
    }
    if (!hashed) {
        // Not mappable (empty, special or on an odd file system): read it.
        constexpr std::size_t kBlock = 1 << 20;
        const auto buffer = std::make_unique<unsigned char[]>(kBlock);
        for (;;) {
            const ssize_t n = readFully(file.get(), buffer.get(), kBlock);
            if (n < 0) {
                return std::nullopt;
            }
            if (n == 0) {
                break;
            }
            if (EVP_DigestUpdate(context.get(), buffer.get(), static_cast<std::size_t>(n)) != 1) {
                return std::nullopt;
            }
        }
    }
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(context.get(), digest.data(), &length) != 1) {
        return std::nullopt;
    }
    static constexpr char kHex[] = "0123456789abcdef";
    std::string text;
    text.reserve(length * 2);
    for (unsigned int i = 0; i < length; ++i) {
        text.push_back(kHex[digest[i] >> 4]);
        text.push_back(kHex[digest[i] & 0x0f]);
    }
    return text;
}

std::optional<QString> BinaryPreparation::shippedFile(const QString &name) const {
    // Only a regular file with a plain name is a shipped backend: never a
    // directory, and never something outside the resources directory.
    if (name.isEmpty() || name.contains(QLatin1Char('/')) || name == QLatin1String(".") ||
        name == QLatin1String("..")) {
        return std::nullopt;
    }
    std::optional<QString> path = resources_(name);
    if (path && !QFileInfo(*path).isFile()) {
        return std::nullopt;
    }
    return path;
}

std::optional<BinaryPreparation::Locations> BinaryPreparation::locate(const QString &name) const {
    const std::optional<QString> shipped = shippedFile(name);
    if (!shipped) {
        log_(QStringLiteral("Error: Bundled binary not found: %1").arg(name));
        failureReason_ = tr("The backend %1 is missing from this installation.").arg(name);
        return std::nullopt;
    }
    const std::optional<QString> dataDirectory = dataDirectory_();
    if (!dataDirectory) {
        log_(QStringLiteral("Error: Could not access Application Support directory"));
        failureReason_ = tr("There is no data folder to keep the backend in.");
        return std::nullopt;
    }
    return Locations{*shipped, binDirectory(*dataDirectory)};
}

std::optional<QString> BinaryPreparation::getWritableBinaryURL(const QString &name) const {
    failureReason_.clear();
    const std::optional<Locations> locations = locate(name);
    if (!locations) {
        return std::nullopt;
    }
    const QString &shipped = locations->shipped;
    const QString directory = locations->binDirectory;
    const QString destination = directory + QLatin1Char('/') + name;

    std::error_code error;
    if (!somethingAt(toPath(directory))) {
        // Made private from the start: only we may put a backend there.
        fs::create_directories(toPath(directory).parent_path(), error);
        if (!error && ::mkdir(QFile::encodeName(directory).constData(), 0700) != 0 &&
            errno != EEXIST) {
            error = std::error_code(errno, std::generic_category());
        }
    }
    if (error) {
        log_(QStringLiteral("Error creating bin directory: %1")
                 .arg(QString::fromStdString(error.message())));
        return fail(tr("The backend's folder %1 could not be made: %2.")
                        .arg(directory, QString::fromStdString(error.message())));
    }
    if (!ensurePrivateDirectory(directory)) {
        return std::nullopt;
    }

    bool copyNeeded = false;
    if (!fileExists(destination)) {
        log_(QStringLiteral("Binary not found at writable location, will copy from bundle"));
        copyNeeded = true;
    } else if (!validateBinary(destination)) {
        log_(QStringLiteral(
            "Existing binary is malformed or corrupted, will replace with bundle version"));
        copyNeeded = true;
    } else if (!isPrivateCopy(destination)) {
        log_(QStringLiteral("Existing binary is not a private file of ours, will replace with "
                            "bundle version"));
        copyNeeded = true;
    } else {
        // Both digests, always; side by side, since each is a pass over tens
        // of megabytes.
        auto shippedHash =
            std::async(std::launch::async, [&shipped] { return sha256OfFile(shipped); });
        const std::optional<std::string> copyDigest = sha256OfFile(destination);
        const std::optional<std::string> shippedDigest = shippedHash.get();
        if (shippedDigest && copyDigest && *shippedDigest == *copyDigest) {
            log_(QStringLiteral("On-disk kovrit matches bundle (%1\u2026), keeping")
                     .arg(QString::fromStdString(shippedDigest->substr(0, 12))));
        } else {
            log_(QStringLiteral(
                "On-disk kovrit differs from bundle (or unreadable), copying from bundle"));
            copyNeeded = true;
        }
    }

    if (!copyNeeded) {
        log_(QStringLiteral("Using existing binary at: %1").arg(destination));
        return destination;
    }

    try {
        if (somethingAt(toPath(destination))) {
            fs::remove(toPath(destination));
            log_(QStringLiteral("Removed old/malformed binary at %1").arg(destination));
        }
        copyExecutable(toPath(shipped), toPath(destination));
        log_(QStringLiteral("Binary copied to writable location: %1").arg(destination));
    } catch (const fs::filesystem_error &failure) {
        log_(
            QStringLiteral("Error copying binary: %1").arg(QString::fromLocal8Bit(failure.what())));
        return fail(copyFailureReason(destination, failure.code()));
    }

    if (!validateBinary(destination)) {
        log_(QStringLiteral("Error: Newly copied binary failed validation"));
        std::error_code ignored;
        fs::remove(toPath(destination), ignored);
        return fail(tr("The backend shipped with this installation (%1) failed its checks "
                       "after copying.")
                        .arg(shipped));
    }
    return destination;
}

std::optional<QString> BinaryPreparation::forceReplaceBinaryFromBundle(const QString &name) const {
    failureReason_.clear();
    const std::optional<Locations> locations = locate(name);
    if (!locations) {
        return std::nullopt;
    }
    const QString &shipped = locations->shipped;
    // The directory is not created here: when it is gone, the copy fails and
    // recovery reports it. One that is there must still be private.
    const QString destination = locations->binDirectory + QLatin1Char('/') + name;
    if (somethingAt(toPath(locations->binDirectory)) &&
        !ensurePrivateDirectory(locations->binDirectory)) {
        return std::nullopt;
    }
    try {
        if (somethingAt(toPath(destination))) {
            fs::remove(toPath(destination));
            log_(QStringLiteral("Removed corrupted binary during crash recovery"));
        }
        copyExecutable(toPath(shipped), toPath(destination));
        log_(QStringLiteral("Crash recovery: Replaced binary from bundle"));
    } catch (const fs::filesystem_error &failure) {
        log_(QStringLiteral("Error during crash recovery binary replacement: %1")
                 .arg(QString::fromLocal8Bit(failure.what())));
        return fail(copyFailureReason(destination, failure.code()));
    }
    if (!validateBinary(destination)) {
        // Unlike the normal preparation, the invalid copy stays where it is.
        log_(QStringLiteral("Error: Crash recovery binary replacement failed validation"));
        return fail(tr("The backend shipped with this installation (%1) failed its checks "
                       "after copying.")
                        .arg(shipped));
    }
    return destination;
}

} // namespace tarnwick::supervisor
