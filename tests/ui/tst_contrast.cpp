// The screens in the desktop's light and dark palettes: every text on screen
// is measured against what is painted behind it (the rectangles under its
// centre, composed in paint order over the window) and must reach the WCAG
// AA contrast: 4.5:1, or 3:1 for large text (18 pt, or 14 pt bold). Disabled
// controls are exempt, as the WCAG has them. The colour roles follow the
// palette: the window background is its Window colour, a card's its Base.
#include "RecordBuilders.h"
#include "ScreenTestSupport.h"

#include "UpdaterViewModel.h"

#include <QDir>
#include <QFile>
#include <QFont>
#include <QGuiApplication>
#include <QPalette>
#include <QTest>

#include <algorithm>
#include <cmath>

using namespace tarnwick::ui::test;
using tarnwick::test::folder;
using tarnwick::test::group;

namespace {

double channel(double v) {
    return v <= 0.03928 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
}

double luminance(const QColor &c) {
    return 0.2126 * channel(c.redF()) + 0.7152 * channel(c.greenF()) + 0.0722 * channel(c.blueF());
}

double contrast(const QColor &a, const QColor &b) {
    const double la = luminance(a);
    const double lb = luminance(b);
    return (std::max(la, lb) + 0.05) / (std::min(la, lb) + 0.05);
}

// `top` (with its alpha) over the opaque `bottom`.
QColor over(const QColor &top, const QColor &bottom) {
    const double a = top.alphaF();
    return QColor::fromRgbF(float(top.redF() * a + bottom.redF() * (1 - a)),
                            float(top.greenF() * a + bottom.greenF() * (1 - a)),
                            float(top.blueF() * a + bottom.blueF() * (1 - a)));
}

struct Painted {
    QRectF rect;
    QColor color;
};

struct Sample {
    QString text;
    QString objectName;
    QColor foreground;
    QColor background;
    bool large = false;
    double ratio = 0;
};

bool isLarge(const QFont &font) {
    const double points = font.pointSizeF() > 0 ? font.pointSizeF() : font.pixelSize() * 0.75;
    return points >= 18 || (points >= 14 && font.weight() >= QFont::Bold);
}

// Walks the scene in paint order (children by z, then in order), keeping
// the filled rectangles painted so far; each text is measured against those
// under its centre.
void walk(QQuickItem *item, double opacity, const QColor &windowColor, QList<Painted> &painted,
          QList<Sample> &samples) {
    if (item == nullptr || !item->isVisible() || item->opacity() <= 0.0) {
        return;
    }
    opacity *= item->opacity();
    const QRectF scene = item->mapRectToScene(QRectF(0, 0, item->width(), item->height()));
    if (item->inherits("QQuickRectangle")) {
        QColor color = item->property("color").value<QColor>();
        color.setAlphaF(float(color.alphaF() * opacity));
        if (color.alphaF() > 0) {
            painted.append({scene, color});
        }
    }
    const bool isText = item->inherits("QQuickText") || item->inherits("QQuickTextInput");
    const QString text = isText ? item->property("text").toString() : QString();
    if (isText && !text.trimmed().isEmpty() && item->isEnabled() && scene.width() > 0 &&
        scene.height() > 0) {
        const bool masked = item->property("echoMode").toInt() != 0;
        const QPointF centre = scene.center();
        QColor background = windowColor;
        for (const Painted &p : painted) {
            if (p.rect.contains(centre)) {
                background = over(p.color, background);
            }
        }
        QColor foreground = item->property("color").value<QColor>();
        foreground.setAlphaF(float(foreground.alphaF() * opacity));
        const QColor seen = over(foreground, background);
        Sample sample;
        sample.text = masked ? QStringLiteral("<masked>") : text.left(40);
        sample.objectName = item->objectName();
        sample.foreground = seen;
        sample.background = background;
        sample.large = isLarge(item->property("font").value<QFont>());
        sample.ratio = contrast(seen, background);
        samples.append(sample);
    }
    QList<QQuickItem *> children = item->childItems();
    std::stable_sort(children.begin(), children.end(),
                     [](QQuickItem *a, QQuickItem *b) { return a->z() < b->z(); });
    for (QQuickItem *child : children) {
        walk(child, opacity, windowColor, painted, samples);
    }
}

QList<Sample> measure(UiHarness &h) {
    h.settle();
    QList<Painted> painted;
    QList<Sample> samples;
    walk(h.window()->contentItem(), 1.0, h.window()->color(), painted, samples);
    return samples;
}

// The texts below the AA threshold, described.
QStringList failures(const QList<Sample> &samples) {
    QStringList out;
    for (const Sample &s : samples) {
        const double needed = s.large ? 3.0 : 4.5;
        if (s.ratio < needed) {
            out << QStringLiteral("\"%1\" (%2) %3 on %4: %5:1")
                       .arg(s.text, s.objectName, s.foreground.name(), s.background.name())
                       .arg(s.ratio, 0, 'f', 2);
        }
    }
    return out;
}

UiHarness::Options manualClock() {
    UiHarness::Options options;
    options.manualClock = true;
    return options;
}

#define VERIFY_CONTRAST(samples, minimumCount)                                                     \
    do {                                                                                           \
        const QList<Sample> measured = (samples);                                                  \
        QVERIFY2(measured.size() >= (minimumCount),                                                \
                 qPrintable(QStringLiteral("only %1 texts measured").arg(measured.size())));       \
        const QStringList failed = failures(measured);                                             \
        QVERIFY2(failed.isEmpty(), qPrintable(failed.join(QStringLiteral("\n"))));                 \
    } while (false)

} // namespace

class ContrastTest : public QObject {
    Q_OBJECT

    void usePalette(const QString &scheme) {
        QGuiApplication::setPalette(desktopPalette(scheme == QLatin1String("dark")));
    }

private slots:
    void initTestCase() { UiHarness::prepareApplication(); }

    void theThemeFollowsThePalette() {
        for (const QString &scheme : {QStringLiteral("light"), QStringLiteral("dark")}) {
            usePalette(scheme);
            UiHarness h;
            QVERIFY(h.load(QStringLiteral("ContentView")));
            const QPalette palette = QGuiApplication::palette();
            QVERIFY(sameRgb(themeColor(h.engine(), "windowBackground"),
                            palette.color(QPalette::Window)));
            QVERIFY(sameRgb(themeColor(h.engine(), "controlBackground"),
                            palette.color(QPalette::Base)));
            // The accent is the highlight's hue (made readable where needed).
            const QColor accent = themeColor(h.engine(), "accent");
            QVERIFY2(std::abs(accent.hslHue() - palette.color(QPalette::Highlight).hslHue()) <= 8,
                     qPrintable(accent.name()));
            QCOMPARE(themeColor(h.engine(), "primary").lightness() > 128, scheme == "dark");
        }
    }

    void screens_data() {
        QTest::addColumn<QString>("scheme");
        QTest::newRow("light") << "light";
        QTest::newRow("dark") << "dark";
    }
    void screens() {
        QFETCH(QString, scheme);
        usePalette(scheme);

        {
            // Login, with the three colours of its status box.
            UiHarness h(manualClock());
            h.model().setIsLoggedIn(false);
            h.model().setUserName(QStringLiteral("ana@example.org"));
            QVERIFY(h.load(QStringLiteral("MenuBarView")));
            for (const char *status :
                 {"6-digit code sent to ana@example.org. Check your email.",
                  "Authentication failed. Please retry ...", "Authenticating ..."}) {
                h.model().setError(QString::fromUtf8(status));
                VERIFY_CONTRAST(measure(h), 8);
            }
        }
        {
            // The status list: synced, syncing, pending, and an error mark.
            UiHarness h(manualClock());
            h.model().setIsLoggedIn(true);
            auto failing = folder("/home/ana/Notes", "Up to date");
            failing.error = "permission denied";
            h.model().update({folder("/home/ana/Documents", "Up to date"),
                              folder("/home/ana/Music", "3 of 6 - Checking uploaded files (12)"),
                              folder("/home/ana/Pictures", ""), failing});
            QVERIFY(h.load(QStringLiteral("MenuBarView")));
            QTRY_VERIFY(h.findVisible(QStringLiteral("syncItemCard")));
            VERIFY_CONTRAST(measure(h), 10);
        }
        {
            // The settings list, the retention screen and the Photos steps.
            ScreenWithBackend s(manualClock());
            UiHarness &h = s.h;
            h.model().setIsLoggedIn(true);
            h.model().groupsModel()->replace(
                {group(1, "Personal", {"/home/ana/Documents"}), group(2, "Family", {}, 30)});
            QVERIFY(h.load(QStringLiteral("MenuBarView")));
            h.click(h.findVisible(QStringLiteral("settingsTabButton")));
            QTRY_VERIFY(h.findVisible(QStringLiteral("groupCard2")));
            QTRY_VERIFY_WITH_TIMEOUT(!h.model().isWaiting(), 10000);
            VERIFY_CONTRAST(measure(h), 10);
            h.click(h.findVisible(QStringLiteral("retentionButton")));
            QTRY_VERIFY(h.findVisible(QStringLiteral("retentionSettingsView")));
            VERIFY_CONTRAST(measure(h), 8);
            h.click(h.findVisible(QStringLiteral("retentionCancelButton")));
            QTRY_VERIFY(h.findVisible(QStringLiteral("groupCard1")));
            h.click(h.findVisible(QStringLiteral("photosButton")));
            QTRY_VERIFY(h.findVisible(QStringLiteral("photoLibraryInstructionsView")));
            VERIFY_CONTRAST(measure(h), 10);
        }
        {
            // The iCloud alert over the dimmed settings.
            ICloudAlertScreen alert(manualClock());
            UiHarness &h = alert.h;
            QVERIFY(alert.open());
            h.settle(300);
            VERIFY_CONTRAST(measure(h), 4);
        }
        {
            // The update panel, after a check that failed.
            tarnwick::ui::UpdaterViewModel::Options updaterOptions = unansweredFeedUpdater();
            tarnwick::ui::UpdaterViewModel updater(std::move(updaterOptions));
            UiHarness h(manualClock());
            h.setUpdater(&updater);
            h.model().setIsLoggedIn(true);
            QVERIFY(h.load(QStringLiteral("MenuBarView"), QSize(550, 650)));
            h.click(h.findVisible(QStringLiteral("checkForUpdatesButton")));
            QTRY_VERIFY(h.find(QStringLiteral("updatesPanel"))->property("opened").toBool());
            QTRY_VERIFY_WITH_TIMEOUT(h.findVisible(QStringLiteral("updateStatusText")), 10000);
            VERIFY_CONTRAST(measure(h), 5);
        }
        {
            UiHarness h(manualClock());
            QVERIFY(h.load(QStringLiteral("BackendFailedView")));
            // On the window's background, as the window shows it.
            h.window()->setColor(QGuiApplication::palette().color(QPalette::Window));
            VERIFY_CONTRAST(measure(h), 2);
        }
    }

    // The hues the screens draw text in where a state says so (the update
    // check's result, the badges), on the backgrounds they are drawn on.
    void namedHuesAsText() {
        for (const QString &scheme : {QStringLiteral("light"), QStringLiteral("dark")}) {
            usePalette(scheme);
            UiHarness h;
            QVERIFY(h.load(QStringLiteral("ContentView")));
            QQmlComponent component(&h.engine());
            component.setData(
                "import QtQuick\nimport Tarnwick\nQtObject {\n"
                "  property color updateRed: Theme.textOn(Theme.red, Theme.controlBackground)\n"
                "  property color updateGreen: Theme.textOn(Theme.green, Theme.controlBackground)\n"
                "  property color accentTint: Theme.over(Theme.withOpacity(Theme.accent, 0.15),"
                " Theme.controlBackground)\n"
                "  property color grayTint: Theme.over(Theme.withOpacity(Theme.gray, 0.15),"
                " Theme.controlBackground)\n"
                "}\n",
                QUrl());
            std::unique_ptr<QObject> o(component.create());
            QVERIFY2(o, qPrintable(component.errorString()));
            const QColor base = themeColor(h.engine(), "controlBackground");
            const QColor window = themeColor(h.engine(), "windowBackground");
            const QColor accent = themeColor(h.engine(), "accent");
            const QColor gray = themeColor(h.engine(), "gray");
            QVERIFY(contrast(o->property("updateRed").value<QColor>(), base) >= 4.5);
            QVERIFY(contrast(o->property("updateGreen").value<QColor>(), base) >= 4.5);
            QVERIFY(contrast(accent, o->property("accentTint").value<QColor>()) >= 4.5);
            QVERIFY(contrast(gray, o->property("grayTint").value<QColor>()) >= 4.5);
            QVERIFY(contrast(themeColor(h.engine(), "secondary"), window) >= 4.5);
            QVERIFY(contrast(themeColor(h.engine(), "secondary"), base) >= 4.5);
            QVERIFY(contrast(Qt::white, themeColor(h.engine(), "accentFill")) >= 4.5);
        }
    }
};

QTEST_MAIN(ContrastTest)
#include "tst_contrast.moc"
