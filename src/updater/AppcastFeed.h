#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <optional>

namespace tarnwick::updater {

// One downloadable release announced by an appcast feed.
struct AppcastItem {
    QString title;
    // The version compared against the running one (dotted numbers).
    QString version;
    // The version as shown to people: the short version string when the item
    // has one, else the version.
    QString displayVersion;
    // Where the release is downloaded from (absolute, http or https).
    QUrl url;
    // Announced size in bytes; 0 when the feed does not say.
    qint64 length = 0;
    // The Ed25519 signature over the downloaded file: 64 raw bytes.
    QByteArray edSignature;
};

struct AppcastParseResult {
    // Empty when the feed was read; otherwise why it could not be.
    QString error;
    // Every item that is complete and usable on this system, in feed order.
    QList<AppcastItem> items;
    // One line per item that was passed over, saying why.
    QStringList skipped;
};

// The XML namespace of the enclosure attributes and item elements.
inline constexpr auto kSparkleNamespace = "http://www.andymatuschak.org/xml-namespaces/sparkle";

// Reads an RSS 2.0 appcast. Relative enclosure URLs are resolved against
// feedURL. Items whose enclosure is for another operating system, that belong
// to a named channel, or that miss a usable URL, version or signature are
// skipped. Never throws; any malformed input ends in `error`.
AppcastParseResult parseAppcast(const QByteArray &xml, const QUrl &feedURL);

// Where updates may come from: https, or plain http to this computer itself (a
// feed served locally, as in tests). Anything sent in the clear over a network
// could be replaced on its way.
bool isSecureUpdateURL(const QUrl &url);

// Dotted numeric versions ("1", "1.2", "10.0.3"): true when `text` is one.
bool isDottedNumericVersion(const QString &text);

// Compares two dotted numeric versions numerically, part by part; missing
// parts count as 0, so "1.2" equals "1.2.0". Returns <0, 0 or >0. Only
// meaningful for texts isDottedNumericVersion() accepts.
int compareVersions(const QString &a, const QString &b);

// The newest item strictly newer than currentVersion, if any. Items of equal
// version keep the first one in the feed.
std::optional<AppcastItem> newestUpdate(const QList<AppcastItem> &items,
                                        const QString &currentVersion);

} // namespace tarnwick::updater
