// The screens in the user's language: with a German locale the client's
// German translation is loaded and the window, the tray's texts and the
// notifications read in German; with an English one no translation is in
// effect and every text is exactly the English original.
#include "RecordBuilders.h"
#include "ScreenTestSupport.h"

#include "BackendLauncher.h"
#include "Commands.h"
#include "FileSystemUtils.h"
#include "Notifier.h"
#include "SettingsRetentionEditor.h"
#include "Translations.h"
#include "TrayController.h"

#include <QTest>

using namespace tarnwick::ui::test;
using tarnwick::test::folder;
using tarnwick::test::group;
using tarnwick::ui::Notifier;
using tarnwick::ui::TrayController;

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

// The model's own lines of signing in, as the login screen shows them, with the
// symbol the status box picks for each.
struct SignInLines {
    QString sent, sentSymbol, authenticating, authenticatingSymbol, failed, failedSymbol;
};

SignInLines signInOnScreen() {
    SignInLines lines;
    UiHarness::Options options;
    options.manualClock = true;
    ScreenWithBackend backend(options);
    UiHarness &h = backend.h;
    h.model().setIsLoggedIn(false);
    h.model().setUserName(QStringLiteral("a@b.c"));
    if (!h.load(QStringLiteral("LoginView"))) {
        return lines;
    }
    const auto symbol = [&] { return h.find("statusBoxIcon")->property("name").toString(); };
    h.click(h.findVisible(QStringLiteral("sendCodeButton")));
    if (!QTest::qWaitFor([&] { return backend.requests("requestCode").size() == 1; }, 5000) ||
        !QTest::qWaitFor([&] { return !h.model().isWaiting(); }, 5000)) {
        return lines;
    }
    lines.sent = textOf(h, "statusBoxText");
    lines.sentSymbol = symbol();
    h.click(h.findVisible(QStringLiteral("loginButton")));
    if (!QTest::qWaitFor([&] { return backend.requests("auth").size() == 1; }, 5000)) {
        return lines;
    }
    h.settle(50);
    lines.authenticating = textOf(h, "statusBoxText");
    lines.authenticatingSymbol = symbol();
    h.passTime(std::chrono::milliseconds(5000));
    lines.failed = textOf(h, "statusBoxText");
    lines.failedSymbol = symbol();
    return lines;
}

QString connectingToolTip() {
    UiHarness h;
    h.model().setBackendAnswered(false);
    TrayController tray(h.model(), true);
    return tray.toolTip();
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

    // The model's own texts: translated, while the login box still picks its
    // symbols by their English words.
    void germanModelTexts() {
        QLocale::setDefault(QLocale(QLocale::German, QLocale::Germany));
        QVERIFY(tarnwick::ui::installTranslation());
        const SignInLines lines = signInOnScreen();
        QCOMPARE(lines.sent, "6-stelliger Code an a@b.c gesendet. Sieh in deinen E-Mails nach.");
        QCOMPARE(lines.sentSymbol, "checkmark.circle.fill");
        QCOMPARE(lines.authenticating, "Anmeldung läuft ...");
        QCOMPARE(lines.authenticatingSymbol, "arrow.triangle.2.circlepath");
        QCOMPARE(lines.failed, "Anmeldung fehlgeschlagen. Bitte versuche es erneut ...");
        QCOMPARE(lines.failedSymbol, "exclamationmark.triangle.fill");
        QCOMPARE(connectingToolTip(), "Verbindung zum Backend wird hergestellt ...");
        QCOMPARE(tarnwick::supervisor::BackendLauncher::tr(
                     tarnwick::supervisor::BackendLauncher::crashedText),
                 "Das Programm ist wiederholt abgestürzt. Bitte installiere die App neu.");
        QCOMPARE(tarnwick::ui::RetentionEditor::formatBytes(0, QLocale()), "Null KB");
        QCOMPARE(tarnwick::pathcheck::FileSystemUtils::validatePathForSync(
                     QStringLiteral("/no/such/folder/here"))
                     .warning.value_or(QString()),
                 "Der gewählte Pfad existiert nicht.");
        // A request's failure as the user is shown it (the log keeps the English words).
        QCOMPARE(tarnwick::failureText(tidepost::Error{"NetworkError", 1, "Connection refused"}),
                 "Verbindung abgelehnt");
        QCOMPARE(tarnwick::failureText(tidepost::Error{"NetworkError", 99, "Server says no"}),
                 "Server says no");
        // Qt's own texts (here a standard button) come from the system's Qt translations,
        // which the setup script installs.
        QVERIFY2(QCoreApplication::translate("QPlatformTheme", "Cancel") == "Abbrechen",
                 "Qt's German texts are not loaded (Debian: qt6-translations-l10n)");
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

    void englishModelTexts() {
        QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedStates));
        QVERIFY(!tarnwick::ui::installTranslation());
        const SignInLines lines = signInOnScreen();
        QCOMPARE(lines.sent, "6-digit code sent to a@b.c. Check your email.");
        QCOMPARE(lines.sentSymbol, "checkmark.circle.fill");
        QCOMPARE(lines.authenticating, "Authenticating ...");
        QCOMPARE(lines.authenticatingSymbol, "arrow.triangle.2.circlepath");
        QCOMPARE(lines.failed, "Authentication failed. Please retry ...");
        QCOMPARE(lines.failedSymbol, "exclamationmark.triangle.fill");
        QCOMPARE(connectingToolTip(), "Connecting to the backend ...");
        QCOMPARE(tarnwick::supervisor::BackendLauncher::tr(
                     tarnwick::supervisor::BackendLauncher::crashedText),
                 "Binary crashed repeatedly. Please reinstall the app.");
        QCOMPARE(tarnwick::ui::RetentionEditor::formatBytes(0, QLocale()), "Zero KB");
        QCOMPARE(tarnwick::failureText(tidepost::Error{"NetworkError", 1, "Connection refused"}),
                 "Connection refused");
    }
};

QTEST_MAIN(TranslationTest)
#include "tst_translation.moc"
