// The login screen over the model in known states: its texts, which parts
// show with and without an e-mail address, the status box's symbol and colour
// for each kind of text, the Login button while a request is under way, the
// failure text after "Login", and what goes to the backend.
#include "ScreenTestSupport.h"

#include <QQmlProperty>
#include <QSignalSpy>
#include <QTest>

using namespace tarnwick::ui::test;

namespace {
QString textOf(UiHarness &h, const QString &name) {
    QObject *object = h.find(name);
    return object ? object->property("text").toString() : QStringLiteral("<missing %1>").arg(name);
}
} // namespace

namespace {
// The model's delays on a clock the test moves.
UiHarness::Options manualClock() {
    UiHarness::Options options;
    options.manualClock = true;
    return options;
}
} // namespace

class LoginTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { UiHarness::prepareApplication(); }

    void textsAndElements() {
        UiHarness h;
        h.model().setIsLoggedIn(false);
        h.model().setUserName(QStringLiteral("someone@example.com"));
        QVERIFY2(h.load(QStringLiteral("LoginView")), qPrintable(h.errors().join('\n')));
        QCOMPARE(h.find("loginHeaderIcon")->property("name").toString(), "internaldrive");
        QCOMPARE(textOf(h, "loginTitle"), "Tarnwick");
        QCOMPARE(textOf(h, "loginSubtitle"), "Secure file sync");
        QVERIFY(sameRgb(colorProperty(h.find("loginSubtitle"), "color"),
                        themeColor(h.engine(), "secondary")));
        QCOMPARE(textOf(h, "emailLabel"), "Email");
        QVERIFY(sameRgb(colorProperty(h.find("emailLabel"), "color"),
                        themeColor(h.engine(), "secondary")));
        QObject *email = h.find("emailField");
        QVERIFY(email);
        QVERIFY(email->property("placeholderText").toString().contains('@'));
        QCOMPARE(email->property("text").toString(), "someone@example.com");
        QCOMPARE(textOf(h, "sendCodeButton"), "Send 6-digit code via email");
        QCOMPARE(h.find("sendCodeButton")->property("symbol").toString(), "envelope");
        QCOMPARE(textOf(h, "codeLabel"), "6-Digit Code");
        QObject *code = h.find("codeField");
        QCOMPARE(code->property("placeholderText").toString(), "Enter code");
        QCOMPARE(code->property("echoMode").toInt(), 2); // TextInput.Password
        QCOMPARE(textOf(h, "loginButton"), "Login");
        QCOMPARE(h.find("loginButton")->property("symbol").toString(), "arrow.right.circle.fill");
        QCOMPARE(textOf(h, "loginQuitButton"), "Quit");
        // Nothing to say yet: no status box.
        QVERIFY(!UiHarness::isShown(h.find<QQuickItem>("statusBox")));
    }

    void emptyEmailHidesCodeAndLogin() {
        UiHarness h;
        h.model().setIsLoggedIn(false);
        QVERIFY(h.load(QStringLiteral("LoginView")));
        QVERIFY(!UiHarness::isShown(h.find<QQuickItem>("codeField")));
        QVERIFY(!UiHarness::isShown(h.find<QQuickItem>("loginButton")));
        QVERIFY(!UiHarness::isShown(h.find<QQuickItem>("codeLabel")));
        QVERIFY(UiHarness::isShown(h.find<QQuickItem>("sendCodeButton")));

        // Typing one character shows them, and the model has the address.
        auto *email = h.find<QQuickItem>("emailField");
        h.click(email);
        QTRY_VERIFY(email->hasActiveFocus());
        QVERIFY(h.root()->property("editingMode").toBool());
        QTest::keyClick(h.window(), Qt::Key_A);
        QTRY_COMPARE(h.model().userName(), "a");
        QTRY_VERIFY(UiHarness::isShown(h.find<QQuickItem>("codeField")));
        QVERIFY(UiHarness::isShown(h.find<QQuickItem>("loginButton")));

        // Clearing it hides them again.
        QTest::keyClick(h.window(), Qt::Key_Backspace);
        QTRY_COMPARE(h.model().userName(), "");
        QTRY_VERIFY(!UiHarness::isShown(h.find<QQuickItem>("loginButton")));

        // The model's address shows in the field.
        h.model().setUserName(QStringLiteral("x@y.z"));
        QTRY_COMPARE(email->property("text").toString(), "x@y.z");
        QVERIFY(UiHarness::isShown(h.find<QQuickItem>("loginButton")));
    }

    void statusBoxRule_data() {
        QTest::addColumn<QString>("error");
        QTest::addColumn<QString>("symbol");
        QTest::addColumn<QString>("colorRole");
        QTest::newRow("authenticating") << "Authenticating ..."
                                        << "arrow.triangle.2.circlepath"
                                        << "blue";
        QTest::newRow("failed") << "Authentication failed. Please retry ..."
                                << "exclamationmark.triangle.fill"
                                << "red";
        QTest::newRow("sent") << "6-digit code sent to a@b.c. Check your email."
                              << "checkmark.circle.fill"
                              << "green";
        QTest::newRow("sending") << "Sending 6-digit code to a@b.c"
                                 << "info.circle.fill"
                                 << "blue";
        QTest::newRow("anything else") << "Binary crashed repeatedly. Please reinstall the app."
                                       << "info.circle.fill"
                                       << "blue";
        // "failed" is tested before "sent".
        QTest::newRow("sent and failed") << "The code was sent but sending failed"
                                         << "exclamationmark.triangle.fill"
                                         << "red";
        QTest::newRow("failed and sent") << "failed: nothing sent"
                                         << "exclamationmark.triangle.fill"
                                         << "red";
        // "Authenticating" comes first of all.
        QTest::newRow("authenticating and failed") << "Authenticating failed"
                                                   << "arrow.triangle.2.circlepath"
                                                   << "blue";
        // Plain, case-sensitive substring tests.
        QTest::newRow("Failed capitalised") << "Failed"
                                            << "info.circle.fill"
                                            << "blue";
        QTest::newRow("SENT capitals") << "SENT"
                                       << "info.circle.fill"
                                       << "blue";
        QTest::newRow("within a word") << "resented"
                                       << "checkmark.circle.fill"
                                       << "green";
    }
    void statusBoxRule() {
        QFETCH(QString, error);
        QFETCH(QString, symbol);
        QFETCH(QString, colorRole);
        UiHarness h;
        h.model().setIsLoggedIn(false);
        h.model().setError(error);
        QVERIFY(h.load(QStringLiteral("LoginView")));
        auto *box = h.find<QQuickItem>("statusBox");
        QVERIFY(UiHarness::isShown(box));
        QCOMPARE(textOf(h, "statusBoxText"), error);
        QCOMPARE(h.find("statusBoxIcon")->property("name").toString(), symbol);
        const QColor expected = themeColor(h.engine(), colorRole);
        QVERIFY(sameRgb(colorProperty(h.find("statusBoxIcon"), "color"), expected));
        const QColor fill = colorProperty(box, "color");
        QVERIFY(sameRgb(fill, expected));
        QVERIFY(qAbs(fill.alphaF() - 0.1) < 0.01);
        const QColor border = QQmlProperty::read(box, "border.color").value<QColor>();
        QVERIFY(sameRgb(border, expected));
        QVERIFY(qAbs(border.alphaF() - 0.3) < 0.01);
        QCOMPARE(QQmlProperty::read(box, "border.width").toReal(), 1.0);
        // 12 points of padding around the content.
        auto *icon = h.find<QQuickItem>("statusBoxIcon");
        QCOMPARE(icon->mapToItem(box, QPointF(0, 0)).x(), 12.0);
        QCOMPARE(icon->mapToItem(box, QPointF(0, 0)).y(), 12.0);

        // An empty text hides the box.
        h.model().setError(QString());
        QTRY_VERIFY(!UiHarness::isShown(box));
    }

    void loginDisabledWhileWaiting() {
        UiHarness h;
        h.model().setIsLoggedIn(false);
        h.model().setUserName(QStringLiteral("a@b.c"));
        QVERIFY(h.load(QStringLiteral("LoginView")));
        auto *login = h.find<QQuickItem>("loginButton");
        QVERIFY(login->isEnabled());
        QVERIFY(!UiHarness::isShown(h.find<QQuickItem>("primaryButtonSpinner")));
        const QColor accent = themeColor(h.engine(), "accent");
        QVERIFY(sameRgb(colorProperty(h.find("primaryButtonBackground"), "color"), accent));

        h.model().setIsWaiting(true);
        QVERIFY(!login->isEnabled());
        QVERIFY(UiHarness::isShown(h.find<QQuickItem>("primaryButtonSpinner")));
        QVERIFY(sameRgb(colorProperty(h.find("primaryButtonBackground"), "color"),
                        themeColor(h.engine(), "gray")));
        // A click does nothing.
        h.click(login);
        h.settle(100);
        QVERIFY(h.model().error().isEmpty());

        h.model().setIsWaiting(false);
        QVERIFY(login->isEnabled());
    }

    void loginSendsTheCodeAndFailsAfterTheDelay() {
        ScreenWithBackend backend(manualClock());
        UiHarness &h = backend.h;
        h.model().setIsLoggedIn(false);
        h.model().setUserName(QStringLiteral("a@b.c"));
        QVERIFY(h.load(QStringLiteral("LoginView")));

        auto *code = h.find<QQuickItem>("codeField");
        h.click(code);
        QTRY_VERIFY(code->hasActiveFocus());
        for (const char c : {'1', '2', 'x'}) {
            QTest::keyClick(h.window(), c);
        }
        QTRY_COMPARE(h.root()->property("password").toString(), "12x");
        // Masked on screen.
        QCOMPARE(code->property("displayText").toString().size(), 3);
        QVERIFY(code->property("displayText").toString() != "12x");

        h.click(h.find<QQuickItem>("loginButton"));
        QTRY_COMPARE(h.model().error(), "Authenticating ...");
        QCOMPARE(h.find("statusBoxIcon")->property("name").toString(),
                 "arrow.triangle.2.circlepath");
        // The code goes as typed, with the address as id.
        QTRY_COMPARE(backend.requests("auth").size(), std::size_t(1));
        QCOMPARE(backend.requests("auth")[0].id, "a@b.c");
        QCOMPARE(backend.requests("auth")[0].data, "12x");

        // Not signed in 5 s later.
        h.passTime(std::chrono::milliseconds(4999));
        QCOMPARE(h.model().error(), "Authenticating ...");
        h.passTime(std::chrono::milliseconds(1));
        QCOMPARE(h.model().error(), "Authentication failed. Please retry ...");
        QCOMPARE(h.find("statusBoxIcon")->property("name").toString(),
                 "exclamationmark.triangle.fill");
        QVERIFY(sameRgb(colorProperty(h.find("statusBoxIcon"), "color"),
                        themeColor(h.engine(), "red")));
        // Neither the code nor the address is cleared.
        QCOMPARE(h.root()->property("password").toString(), "12x");
        QCOMPARE(h.model().userName(), "a@b.c");
    }

    void anEmptyCodeIsSentAsItIs() {
        ScreenWithBackend backend(manualClock());
        UiHarness &h = backend.h;
        h.model().setIsLoggedIn(false);
        h.model().setUserName(QStringLiteral("a@b.c"));
        QVERIFY(h.load(QStringLiteral("LoginView")));
        h.click(h.find<QQuickItem>("loginButton"));
        QTRY_COMPARE(backend.requests("auth").size(), std::size_t(1));
        QCOMPARE(backend.requests("auth")[0].data, "");
        QTRY_COMPARE(h.model().error(), "Authenticating ...");
        h.passTime(std::chrono::seconds(5));
        QCOMPARE(h.model().error(), "Authentication failed. Please retry ...");
    }

    void aSignInWithinTheDelayLeavesNoFailure() {
        ScreenWithBackend backend(manualClock());
        UiHarness &h = backend.h;
        h.model().setIsLoggedIn(false);
        h.model().setUserName(QStringLiteral("a@b.c"));
        QVERIFY(h.load(QStringLiteral("LoginView")));
        h.click(h.find<QQuickItem>("loginButton"));
        QTRY_COMPARE(h.model().error(), "Authenticating ...");
        h.model().setIsLoggedIn(true);
        h.passTime(std::chrono::seconds(6));
        QCOMPARE(h.model().error(), "Authenticating ...");
    }

    void sendCodeAsksTheModel() {
        ScreenWithBackend backend;
        UiHarness &h = backend.h;
        h.model().setIsLoggedIn(false);
        h.model().setUserName(QStringLiteral("a@b.c"));
        QVERIFY(h.load(QStringLiteral("LoginView")));
        h.click(h.find<QQuickItem>("sendCodeButton"));
        QTRY_COMPARE(backend.requests("requestCode").size(), std::size_t(1));
        QCOMPARE(backend.requests("requestCode")[0].id, "a@b.c");
        // The model's texts drive the box: green once the code was sent.
        QTRY_VERIFY(h.model().error().contains("sent"));
        QCOMPARE(h.find("statusBoxIcon")->property("name").toString(), "checkmark.circle.fill");
    }

    void quitButtonAndShortcut() {
        UiHarness h;
        h.model().setIsLoggedIn(false);
        QVERIFY(h.load(QStringLiteral("LoginView")));
        QSignalSpy quit(&h.app(), &tarnwick::ui::AppController::quitRequested);
        h.click(h.find<QQuickItem>("loginQuitButton"));
        QCOMPARE(quit.size(), 1);
        QTest::keyClick(h.window(), Qt::Key_Q, Qt::ControlModifier);
        QCOMPARE(quit.size(), 2);
    }
};

QTEST_MAIN(LoginTest)
#include "tst_login.moc"
