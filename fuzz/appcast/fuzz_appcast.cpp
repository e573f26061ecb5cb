// The update feed is XML from the network. parseAppcast must read any document without a crash,
// a hang or a sanitizer report, and every item it keeps must be usable: a dotted numeric
// version, a secure download URL, a 64-byte signature and no negative length. newestUpdate must
// pick an item that is newer than the running version and not older than any other.
//
// The version comparison is checked against plain 64-bit arithmetic for versions whose parts
// fit, and for being an order (reflexive, antisymmetric, trailing ".0" changes nothing).
#include <AppcastFeed.h>

#include <QByteArray>
#include <QCoreApplication>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>

using namespace tarnwick::updater;

namespace {

[[noreturn]] void fail(const char *what, const QString &first, const QString &second = {}) {
    std::fprintf(stderr, "%s\n  first:  %s\n  second: %s\n", what, qPrintable(first),
                 qPrintable(second));
    std::abort();
}

int sign(int value) {
    return value < 0 ? -1 : (value > 0 ? 1 : 0);
}

// The comparison done with numbers, when every part has at most 18 digits after its leading
// zeros; nothing otherwise.
std::optional<int> numericComparison(const QString &a, const QString &b) {
    const QStringList left = a.split(u'.');
    const QStringList right = b.split(u'.');
    const qsizetype count = std::max(left.size(), right.size());
    for (qsizetype i = 0; i < count; ++i) {
        QString l = i < left.size() ? left[i] : QStringLiteral("0");
        QString r = i < right.size() ? right[i] : QStringLiteral("0");
        while (l.size() > 1 && l.startsWith(u'0')) {
            l.remove(0, 1);
        }
        while (r.size() > 1 && r.startsWith(u'0')) {
            r.remove(0, 1);
        }
        if (l.size() > 18 || r.size() > 18) {
            return std::nullopt;
        }
        const qulonglong x = l.toULongLong();
        const qulonglong y = r.toULongLong();
        if (x != y) {
            return x < y ? -1 : 1;
        }
    }
    return 0;
}

void checkVersions(const QString &a, const QString &b) {
    const bool aOk = isDottedNumericVersion(a);
    const bool bOk = isDottedNumericVersion(b);
    if (!aOk || !bOk) {
        return;
    }
    const int ab = sign(compareVersions(a, b));
    const int ba = sign(compareVersions(b, a));
    if (ab != -ba) {
        fail("compareVersions is not antisymmetric", a, b);
    }
    if (compareVersions(a, a) != 0) {
        fail("compareVersions(a, a) is not 0", a);
    }
    if (a.size() < 60 && compareVersions(a, a + QStringLiteral(".0")) != 0) {
        fail("a trailing .0 changes a version", a);
    }
    if (const std::optional<int> expected = numericComparison(a, b); expected && *expected != ab) {
        fail("compareVersions disagrees with the numbers", a, b);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv) {
    static QCoreApplication app(*argc, *argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const QByteArray xml(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size));
    static const QUrl feed(QStringLiteral("https://updates.tarnwick.app/linux/appcast.xml"));

    const AppcastParseResult result = parseAppcast(xml, feed);
    if (!result.error.isEmpty() && !result.items.isEmpty()) {
        fail("a feed with an error still has items", result.error);
    }
    for (const AppcastItem &item : result.items) {
        if (!isDottedNumericVersion(item.version)) {
            fail("an item without a dotted numeric version", item.version);
        }
        if (!isSecureUpdateURL(item.url)) {
            fail("an item with an insecure URL", item.url.toString());
        }
        if (item.edSignature.size() != 64) {
            fail("an item with a signature that is not 64 bytes", item.version);
        }
        if (item.length < 0 || item.displayVersion.isEmpty()) {
            fail("an item with a negative length or no version to show", item.version);
        }
    }
    for (const QString &current : {QStringLiteral("0.1.0"), QStringLiteral("1")}) {
        if (const std::optional<AppcastItem> newest = newestUpdate(result.items, current)) {
            if (compareVersions(newest->version, current) <= 0) {
                fail("newestUpdate picked an item that is not newer", newest->version, current);
            }
            for (const AppcastItem &item : result.items) {
                if (compareVersions(item.version, newest->version) > 0) {
                    fail("newestUpdate passed over a newer item", newest->version, item.version);
                }
            }
        } else {
            for (const AppcastItem &item : result.items) {
                if (compareVersions(item.version, current) > 0) {
                    fail("newestUpdate found nothing although an item is newer", item.version);
                }
            }
        }
    }

    // The input as two versions, split at the first newline (or at the middle).
    const QString text = QString::fromUtf8(xml);
    const qsizetype newline = text.indexOf(u'\n');
    const qsizetype at = newline >= 0 ? newline : text.size() / 2;
    checkVersions(text.left(at), text.mid(at + (newline >= 0 ? 1 : 0)));
    return 0;
}
