// The screens in the user's language: with a German locale the client's
// German translation is loaded and the window, the tray's texts and the
// notifications read in German; with an English one no translation is in
// effect and every text is exactly the English original.
#include "RecordBuilders.h"
#include "ScreenTestSupport.h"

#include "Notifier.h"
#include "Translations.h"

#include <QTest>

using namespace tarnwick::ui::test;
using tarnwick::test::folder;
using tarnwick::test::group;
using tarnwick::ui::Notifier;

namespace {

QString textOf(UiHarness &h, const char *name) {
    QObject *object = h.findVisible(QString::fromLatin1(name));
    return object ? object->property("text").toString()
                  : QStringLiteral("<hidden %1>").arg(QString::fromLatin1(name));
}

struct Texts {
    QString email, sendCode, code, login, loginQuit, launch, logout, quit;
    QString statusTab, settingsTab, badge, folderCount, groupCount, signInTitle;
};

Texts readScreens() {
    Texts t;
    {
        UiHarness h;
        h.model().setIsLoggedIn(false);
        h.model().setUserName(QStringLiteral("ana@example.org"));
        if (!h.load(QStringLiteral("MenuBarView"))) {
            return t;
        }
        t.email = textOf(h, "emailLabel");
        t.sendCode = textOf(h, "sendCodeButton");
        t.code = textOf(h, "codeLabel");
        t.login = textOf(h, "loginButton");
        t.loginQuit = textOf(h, "loginQuitButton");
        t.launch = textOf(h, "launchAtLoginToggle");
        t.logout = textOf(h, "logoutButton");
        t.quit = textOf(h, "quitButton");
    }
    {
        UiHarness h;
        h.model().setIsLoggedIn(true);
        h.model().update({folder("/home/ana/Documents", "Up to date")});
        h.model().groupsModel()->replace({group(1, "Personal")});
        if (!h.load(QStringLiteral("MenuBarView"))) {
            return t;
        }
        t.statusTab = textOf(h, "statusTabButton");
        t.settingsTab = textOf(h, "settingsTabButton");
        t.badge = textOf(h, "statusBadgeText");
        t.folderCount = textOf(h, "folderCountText");
        h.click(h.findVisible(QStringLiteral("settingsTabButton")));
        if (!QTest::qWaitFor([&] { return h.findVisible(QStringLiteral("groupCountText")); },
                             5000)) {
            qWarning() << "the settings tab shows no group count";
        }
        t.groupCount = textOf(h, "groupCountText");
    }
    t.signInTitle = Notifier::signInTitle();
    return t;
}

} // namespace

class TranslationTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { UiHarness::prepareApplication(); }

    void germanLocale() {
        QLocale::setDefault(QLocale(QLocale::German, QLocale::Germany));
        QVERIFY(tarnwick::ui::installTranslation());
        const Texts t = readScreens();
        QCOMPARE(t.email, "E-Mail");
        QCOMPARE(t.sendCode, "6-stelligen Code per E-Mail senden");
        QCOMPARE(t.code, "6-stelliger Code");
        QCOMPARE(t.login, "Anmelden");
        QCOMPARE(t.loginQuit, "Beenden");
        QCOMPARE(t.launch, "Beim Anmelden starten");
        QCOMPARE(t.logout, "Abmelden");
        QCOMPARE(t.quit, "Beenden");
        QCOMPARE(t.settingsTab, "Einstellungen");
        QCOMPARE(t.badge, "Synchronisiert");
        QCOMPARE(t.folderCount, "1 Ordner");
        QCOMPARE(t.groupCount, "1 Gruppe");
        QCOMPARE(t.signInTitle, "Bei Tarnwick anmelden");
    }

    void englishLocale() {
        QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedStates));
        // English is the texts' own language: nothing to load, and the German
        // translation of the previous test is gone.
        QVERIFY(!tarnwick::ui::installTranslation());
        const Texts t = readScreens();
        QCOMPARE(t.email, "Email");
        QCOMPARE(t.sendCode, "Send 6-digit code via email");
        QCOMPARE(t.code, "6-Digit Code");
        QCOMPARE(t.login, "Login");
        QCOMPARE(t.loginQuit, "Quit");
        QCOMPARE(t.launch, "Launch at login");
        QCOMPARE(t.logout, "Logout");
        QCOMPARE(t.quit, "Quit");
        QCOMPARE(t.statusTab, "Status");
        QCOMPARE(t.settingsTab, "Settings");
        QCOMPARE(t.badge, "Synced");
        QCOMPARE(t.folderCount, "1 folder");
        QCOMPARE(t.groupCount, "1 group");
        QCOMPARE(t.signInTitle, "Sign in to Tarnwick");
    }
};

QTEST_MAIN(TranslationTest)
#include "tst_translation.moc"
