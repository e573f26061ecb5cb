#include "AppcastFeed.h"

#include <QHostAddress>

#include "UpdateVerifier.h"

#include <QStringView>
#include <QXmlStreamReader>

namespace tarnwick::updater {

namespace {

// Longest version text taken seriously; anything longer is no version.
constexpr qsizetype kMaxVersionLength = 64;

struct Enclosure {
    QString url;
    QString length;
    QString version;
    QString shortVersion;
    QString signature;
    QString os;
    bool hasSignature = false;
    bool hasLength = false;
};

bool isForThisSystem(const QString &os) {
    // Without an "os" the release is for every system.
    return os.isEmpty() || os.compare(QLatin1String("linux"), Qt::CaseInsensitive) == 0;
}

// A short version string fit to be shown in a sentence: short, one line,
// printable.
bool isShowable(const QString &text) {
    if (text.isEmpty() || text.size() > kMaxVersionLength) {
        return false;
    }
    for (const QChar c : text) {
        if (!c.isPrint()) {
            return false;
        }
    }
    return true;
}

// The parts of a dotted numeric version without their leading zeros.
QList<QStringView> versionParts(QStringView text) {
    QList<QStringView> parts;
    for (QStringView part : text.split(u'.')) {
        qsizetype zeros = 0;
        while (zeros + 1 < part.size() && part[zeros] == u'0') {
            ++zeros;
        }
        parts.append(part.mid(zeros));
    }
    return parts;
}

// Reads one <item> (the reader stands on its start tag) up to its end tag.
void readItem(QXmlStreamReader &reader, const QUrl &feedURL, AppcastParseResult &result) {
    const QString sparkle = QString::fromLatin1(kSparkleNamespace);
    QString title;
    QString itemVersion;
    QString itemShortVersion;
    bool inChannel = false;
    std::optional<Enclosure> enclosure;
    bool sawEnclosureForOtherSystem = false;

    while (reader.readNextStartElement()) {
        const QStringView ns = reader.namespaceUri();
        const QStringView name = reader.name();
        if (ns.isEmpty() && name == u"title") {
            title = reader.readElementText(QXmlStreamReader::SkipChildElements).trimmed();
        } else if (ns.isEmpty() && name == u"enclosure") {
            const QXmlStreamAttributes attributes = reader.attributes();
            Enclosure e;
            e.url = attributes.value(QLatin1String("url")).toString().trimmed();
            e.hasLength = attributes.hasAttribute(QLatin1String("length"));
            e.length = attributes.value(QLatin1String("length")).toString().trimmed();
            e.version = attributes.value(sparkle, QLatin1String("version")).toString().trimmed();
            e.shortVersion =
                attributes.value(sparkle, QLatin1String("shortVersionString")).toString().trimmed();
            e.hasSignature = attributes.hasAttribute(sparkle, QLatin1String("edSignature"));
            e.signature = attributes.value(sparkle, QLatin1String("edSignature")).toString();
            e.os = attributes.value(sparkle, QLatin1String("os")).toString().trimmed();
            // The first enclosure meant for this system is the one.
            if (!isForThisSystem(e.os)) {
                sawEnclosureForOtherSystem = true;
            } else if (!enclosure) {
                enclosure = e;
            }
            reader.skipCurrentElement();
        } else if (ns == sparkle && name == u"version") {
            itemVersion = reader.readElementText(QXmlStreamReader::SkipChildElements).trimmed();
        } else if (ns == sparkle && name == u"shortVersionString") {
            itemShortVersion =
                reader.readElementText(QXmlStreamReader::SkipChildElements).trimmed();
        } else if (ns == sparkle && name == u"channel") {
            // Releases of a named channel (a beta, say) are not for everyone.
            inChannel = true;
            reader.skipCurrentElement();
        } else {
            reader.skipCurrentElement();
        }
    }
    if (reader.hasError()) {
        return;
    }

    const QString label = title.isEmpty() ? QStringLiteral("(untitled)") : title;
    auto skip = [&](const QString &why) {
        result.skipped.append(QStringLiteral("skipped update item \"%1\": %2").arg(label, why));
    };
    if (inChannel) {
        skip(QStringLiteral("it belongs to a named channel"));
        return;
    }
    if (!enclosure) {
        skip(sawEnclosureForOtherSystem ? QStringLiteral("it is for another system")
                                        : QStringLiteral("no enclosure"));
        return;
    }

    AppcastItem item;
    item.title = title;

    // The version compared is the release's version, the short version
    // string standing in when there is none; the enclosure's attributes come
    // before the item's elements.
    const QString version = !enclosure->version.isEmpty() ? enclosure->version : itemVersion;
    const QString shortVersion =
        !enclosure->shortVersion.isEmpty() ? enclosure->shortVersion : itemShortVersion;
    item.version = !version.isEmpty() ? version : shortVersion;
    if (!isDottedNumericVersion(item.version)) {
        skip(item.version.isEmpty() ? QStringLiteral("no version")
                                    : QStringLiteral("version \"%1\" is not a dotted number")
                                          .arg(item.version.left(kMaxVersionLength)));
        return;
    }
    item.displayVersion = isShowable(shortVersion) ? shortVersion : item.version;

    if (enclosure->url.isEmpty()) {
        skip(QStringLiteral("no download URL"));
        return;
    }
    const QUrl relative(enclosure->url, QUrl::StrictMode);
    const QUrl url = feedURL.resolved(relative);
    if (!relative.isValid() || !isSecureUpdateURL(url)) {
        skip(QStringLiteral("unusable download URL"));
        return;
    }
    item.url = url;

    if (enclosure->hasLength && !enclosure->length.isEmpty()) {
        bool ok = false;
        const qint64 length = enclosure->length.toLongLong(&ok);
        if (!ok || length < 0) {
            skip(QStringLiteral("malformed length"));
            return;
        }
        item.length = length;
    }

    if (!enclosure->hasSignature || enclosure->signature.trimmed().isEmpty()) {
        skip(QStringLiteral("no signature"));
        return;
    }
    const auto signature = QByteArray::fromBase64Encoding(enclosure->signature.trimmed().toLatin1(),
                                                          QByteArray::AbortOnBase64DecodingErrors);
    if (!signature || signature.decoded.size() != UpdateVerifier::kSignatureSize) {
        skip(QStringLiteral("malformed signature"));
        return;
    }
    item.edSignature = signature.decoded;
    result.items.append(item);
}

} // namespace

bool isSecureUpdateURL(const QUrl &url) {
    if (!url.isValid() || url.host().isEmpty()) {
        return false;
    }
    if (url.scheme() == QLatin1String("https")) {
        return true;
    }
    if (url.scheme() != QLatin1String("http")) {
        return false;
    }
    const QString host = url.host();
    if (host.compare(QLatin1String("localhost"), Qt::CaseInsensitive) == 0) {
        return true;
    }
    const QHostAddress address(host);
    return !address.isNull() && address.isLoopback();
}

AppcastParseResult parseAppcast(const QByteArray &xml, const QUrl &feedURL) {
    AppcastParseResult result;
    QXmlStreamReader reader(xml);
    // Internal entities of a hostile document must not blow up in memory.
    reader.setEntityExpansionLimit(1024);

    if (!reader.readNextStartElement()) {
        result.error = reader.hasError() ? reader.errorString() : QStringLiteral("empty document");
        return result;
    }
    if (!reader.namespaceUri().isEmpty() || reader.name() != u"rss") {
        result.error = QStringLiteral("not an RSS feed");
        return result;
    }
    bool sawChannel = false;
    while (reader.readNextStartElement()) {
        if (!reader.namespaceUri().isEmpty() || reader.name() != u"channel") {
            reader.skipCurrentElement();
            continue;
        }
        sawChannel = true;
        while (reader.readNextStartElement()) {
            if (reader.namespaceUri().isEmpty() && reader.name() == u"item") {
                readItem(reader, feedURL, result);
            } else {
                reader.skipCurrentElement();
            }
        }
    }
    // Whatever follows the root element must still be well-formed.
    while (!reader.atEnd() && !reader.hasError()) {
        reader.readNext();
    }
    if (reader.hasError()) {
        result.error =
            QStringLiteral("line %1: %2").arg(reader.lineNumber()).arg(reader.errorString());
        result.items.clear();
        return result;
    }
    if (!sawChannel) {
        result.error = QStringLiteral("the feed has no channel");
    }
    return result;
}

bool isDottedNumericVersion(const QString &text) {
    if (text.isEmpty() || text.size() > kMaxVersionLength) {
        return false;
    }
    bool expectDigit = true;
    for (const QChar c : text) {
        if (c >= u'0' && c <= u'9') {
            expectDigit = false;
        } else if (c == u'.' && !expectDigit) {
            expectDigit = true;
        } else {
            return false;
        }
    }
    return !expectDigit;
}

int compareVersions(const QString &a, const QString &b) {
    const QList<QStringView> left = versionParts(a);
    const QList<QStringView> right = versionParts(b);
    const qsizetype count = std::max(left.size(), right.size());
    static const QString zero = QStringLiteral("0");
    for (qsizetype i = 0; i < count; ++i) {
        const QStringView l = i < left.size() ? left[i] : QStringView(zero);
        const QStringView r = i < right.size() ? right[i] : QStringView(zero);
        // Without leading zeros a longer number is the larger one.
        if (l.size() != r.size()) {
            return l.size() < r.size() ? -1 : 1;
        }
        if (const int c = l.compare(r); c != 0) {
            return c < 0 ? -1 : 1;
        }
    }
    return 0;
}

std::optional<AppcastItem> newestUpdate(const QList<AppcastItem> &items,
                                        const QString &currentVersion) {
    if (!isDottedNumericVersion(currentVersion)) {
        return std::nullopt;
    }
    std::optional<AppcastItem> newest;
    for (const AppcastItem &item : items) {
        if (!isDottedNumericVersion(item.version) ||
            compareVersions(item.version, currentVersion) <= 0) {
            continue;
        }
        if (!newest || compareVersions(item.version, newest->version) > 0) {
            newest = item;
        }
    }
    return newest;
}

} // namespace tarnwick::updater
