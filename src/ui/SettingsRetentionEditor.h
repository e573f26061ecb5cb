#pragma once

#include <QDateTime>
#include <QLocale>
#include <QObject>
#include <QString>
#include <QVariant>
#include <QtQml/qqmlregistration.h>

#include <optional>

namespace tarnwick::ui {

// The retention screen's copy of one group's retention settings while the
// user edits it, and the texts the screen shows for it. Nothing here touches
// the model: the screen hands retentionDays to the settings screen on "Save".
class RetentionEditor : public QObject {
    Q_OBJECT
    QML_ELEMENT

    // The group being edited, as SettingsController.selectedGroup gives it.
    // Setting it takes a fresh copy of its retention settings.
    Q_PROPERTY(QVariantMap group READ group WRITE setGroup NOTIFY groupChanged)
    // The edited number of days; null while the group has none and the user
    // has typed no number.
    Q_PROPERTY(QVariant retentionDays READ retentionDaysValue NOTIFY retentionDaysChanged)
    // The number as the field shows it when the screen opens.
    Q_PROPERTY(QString fieldText READ fieldText NOTIFY groupChanged)
    Q_PROPERTY(bool isActive READ isActive NOTIFY retentionDaysChanged)
    Q_PROPERTY(QString statusIcon READ statusIcon NOTIFY retentionDaysChanged)
    Q_PROPERTY(QString statusTitle READ statusTitle NOTIFY retentionDaysChanged)
    Q_PROPERTY(QString statusMessage READ statusMessage NOTIFY retentionDaysChanged)

    // The last run; each text is empty when its value is absent.
    Q_PROPERTY(bool hasLastRun READ hasLastRun NOTIFY groupChanged)
    Q_PROPERTY(QString lastRunText READ lastRunText NOTIFY groupChanged)
    Q_PROPERTY(QString filesRemovedText READ filesRemovedText NOTIFY groupChanged)
    Q_PROPERTY(QString spaceFreedText READ spaceFreedText NOTIFY groupChanged)
    Q_PROPERTY(bool hasOrphanScan READ hasOrphanScan NOTIFY groupChanged)
    Q_PROPERTY(QString orphanScanTimeText READ orphanScanTimeText NOTIFY groupChanged)
    Q_PROPERTY(QString orphansRemovedText READ orphansRemovedText NOTIFY groupChanged)

public:
    explicit RetentionEditor(QObject *parent = nullptr);

    QVariantMap group() const { return group_; }
    void setGroup(const QVariantMap &group);

    std::optional<qint64> retentionDays() const { return retentionDays_; }
    QVariant retentionDaysValue() const;
    QString fieldText() const;
    bool isActive() const;
    QString statusIcon() const;
    QString statusTitle() const;
    QString statusMessage() const;

    bool hasLastRun() const;
    QString lastRunText() const;
    QString filesRemovedText() const;
    QString spaceFreedText() const;
    bool hasOrphanScan() const;
    QString orphanScanTimeText() const;
    QString orphansRemovedText() const;

    // The field's text as the user types it: a number replaces the edited
    // days at once; a text that is no number leaves them as they were.
    Q_INVOKABLE void setTypedText(const QString &text);

    // A whole number in the user's locale (plain: no grouping, no
    // fractions), or nothing.
    static std::optional<qint64> parseDays(const QString &text, const QLocale &locale = QLocale());
    // The date in the user's locale and time zone, medium date and short
    // time ("May 1, 2024 10:00 AM" in American English).
    static QString formatDate(const QDateTime &date, const QLocale &locale = QLocale());
    // A byte count in decimal units as a file manager shows it: "Zero KB",
    // "1 byte", "999 bytes", "12 KB", "1.2 MB", "1.23 GB".
    static QString formatBytes(qint64 count, const QLocale &locale = QLocale());

signals:
    void groupChanged();
    void retentionDaysChanged();

private:
    QVariantMap group_;
    std::optional<qint64> retentionDays_;
};

} // namespace tarnwick::ui
