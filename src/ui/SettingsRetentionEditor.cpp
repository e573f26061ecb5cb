#include "SettingsRetentionEditor.h"

#include <QRegularExpression>

#include <array>
#include <cmath>

namespace tarnwick::ui {
namespace {

std::optional<qint64> number(const QVariantMap &map, const QString &key) {
    const QVariant value = map.value(key);
    if (!value.isValid() || value.isNull()) {
        return std::nullopt;
    }
    bool ok = false;
    const qint64 result = value.toLongLong(&ok);
    return ok ? std::optional<qint64>(result) : std::nullopt;
}

std::optional<QDateTime> date(const QVariantMap &map, const QString &key) {
    const QDateTime value = map.value(key).toDateTime();
    return value.isValid() ? std::optional<QDateTime>(value) : std::nullopt;
}

QLocale plain(QLocale locale) {
    locale.setNumberOptions(QLocale::OmitGroupSeparator | QLocale::RejectGroupSeparator);
    return locale;
}

// The locale's long date without the weekday and with the month's short
// name: the medium date ("May 1, 2024", "1. Mai 2024", "1 mai 2024").
QString mediumDateFormat(const QLocale &locale) {
    QString format = locale.dateFormat(QLocale::LongFormat);
    static const QRegularExpression weekday(QStringLiteral("\\s*d{3,4}[,،.]?\\s*"));
    format.replace(weekday, QStringLiteral(" "));
    format.replace(QStringLiteral("MMMM"), QStringLiteral("MMM"));
    static const QRegularExpression ends(QStringLiteral("^[\\s,]+|[\\s,]+$"));
    format.remove(ends);
    return format;
}

// Fraction digits kept per unit: none for kilobytes, one for megabytes, two
// beyond; trailing zeros are dropped.
QString decimal(double value, int digits, const QLocale &locale) {
    QString text = locale.toString(value, 'f', digits);
    const QString point = locale.decimalPoint();
    if (digits > 0 && text.contains(point)) {
        while (text.endsWith(locale.zeroDigit())) {
            text.chop(locale.zeroDigit().size());
        }
        if (text.endsWith(point)) {
            text.chop(point.size());
        }
    }
    return text;
}

} // namespace

RetentionEditor::RetentionEditor(QObject *parent) : QObject(parent) {}

void RetentionEditor::setGroup(const QVariantMap &group) {
    group_ = group;
    retentionDays_ = number(group_, QStringLiteral("retentionDays"));
    emit groupChanged();
    emit retentionDaysChanged();
}

QVariant RetentionEditor::retentionDaysValue() const {
    return retentionDays_ ? QVariant(static_cast<qlonglong>(*retentionDays_)) : QVariant();
}

QString RetentionEditor::fieldText() const {
    const auto days = number(group_, QStringLiteral("retentionDays"));
    return days ? plain(QLocale()).toString(static_cast<qlonglong>(*days)) : QString();
}

bool RetentionEditor::isActive() const {
    return retentionDays_.value_or(0) >= 1;
}

QString RetentionEditor::statusIcon() const {
    return isActive() ? QStringLiteral("info.circle") : QStringLiteral("checkmark.circle");
}

QString RetentionEditor::statusTitle() const {
    return isActive() ? tr("Retention Active") : tr("Full Retention");
}

QString RetentionEditor::statusMessage() const {
    if (!isActive()) {
        return tr("All deleted files are kept forever (0 = disabled)");
    }
    return tr("Deleted files older than %1 days will be permanently removed").arg(*retentionDays_);
}

bool RetentionEditor::hasLastRun() const {
    return date(group_, QStringLiteral("lastRetentionTime")).has_value();
}

QString RetentionEditor::lastRunText() const {
    const auto when = date(group_, QStringLiteral("lastRetentionTime"));
    return when ? formatDate(*when) : QString();
}

QString RetentionEditor::filesRemovedText() const {
    const auto files = number(group_, QStringLiteral("lastRetentionFileCount"));
    return files ? QLocale().toString(static_cast<qlonglong>(*files)) : QString();
}

QString RetentionEditor::spaceFreedText() const {
    const auto bytes = number(group_, QStringLiteral("lastRetentionByteCount"));
    return bytes ? formatBytes(*bytes) : QString();
}

bool RetentionEditor::hasOrphanScan() const {
    return date(group_, QStringLiteral("lastOrphanScanTime")).has_value();
}

QString RetentionEditor::orphanScanTimeText() const {
    const auto when = date(group_, QStringLiteral("lastOrphanScanTime"));
    return when ? formatDate(*when) : QString();
}

QString RetentionEditor::orphansRemovedText() const {
    const auto count = number(group_, QStringLiteral("lastOrphanScanCount"));
    return count ? QLocale().toString(static_cast<qlonglong>(*count)) : QString();
}

void RetentionEditor::setTypedText(const QString &text) {
    const auto days = parseDays(text);
    if (!days || days == retentionDays_) {
        return;
    }
    retentionDays_ = days;
    emit retentionDaysChanged();
}

std::optional<qint64> RetentionEditor::parseDays(const QString &text, const QLocale &locale) {
    const QString trimmed = text.trimmed();
    if (trimmed.isEmpty()) {
        return std::nullopt;
    }
    bool ok = false;
    qint64 value = plain(locale).toLongLong(trimmed, &ok);
    if (!ok && locale.language() != QLocale::C) {
        // Plain ASCII digits are understood in every locale.
        value = plain(QLocale::c()).toLongLong(trimmed, &ok);
    }
    return ok ? std::optional<qint64>(value) : std::nullopt;
}

QString RetentionEditor::formatDate(const QDateTime &date, const QLocale &locale) {
    const QDateTime local = date.toLocalTime();
    return locale.toString(local.date(), mediumDateFormat(locale)) + QLatin1Char(' ') +
           locale.toString(local.time(), locale.timeFormat(QLocale::ShortFormat));
}

QString RetentionEditor::formatBytes(qint64 count, const QLocale &locale) {
    if (count == 0) {
        return tr("Zero KB");
    }
    const double magnitude = std::fabs(static_cast<double>(count));
    if (magnitude < 1000.0) {
        const QString number = locale.toString(static_cast<qlonglong>(count));
        return magnitude == 1.0 ? tr("%1 byte").arg(number) : tr("%1 bytes").arg(number);
    }
    static constexpr std::array<const char *, 6> units{"KB", "MB", "GB", "TB", "PB", "EB"};
    static constexpr std::array<int, 6> digits{0, 1, 2, 2, 2, 2};
    double value = static_cast<double>(count) / 1000.0;
    std::size_t unit = 0;
    for (;;) {
        // Rounding may carry into the next unit (999.5 KB is 1 MB).
        const double scale = std::pow(10.0, digits[unit]);
        const double rounded = std::round(std::fabs(value) * scale) / scale;
        if (rounded < 1000.0 || unit + 1 == units.size()) {
            break;
        }
        value /= 1000.0;
        ++unit;
    }
    return decimal(value, digits[unit], locale) + QLatin1Char(' ') + QLatin1String(units[unit]);
}

} // namespace tarnwick::ui
