// The update checker against a local HTTP server: offers, downloads kept only
// with a valid Ed25519 signature, version rules, hostile feeds, redirects and
// limits, sessions, the two settings and the configuration. The checker needs
// no GUI: these tests run on a QCoreApplication.
#include "AppcastChecker.h"
#include "AppcastFeed.h"
#include "UpdateFeedServer.h"
#include "UpdateVerifier.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QNetworkProxy>
#include <QProcess>
#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

using tarnwick::updater::AppcastChecker;
using tarnwick::updater::AppcastItem;
using namespace tarnwick::updater::test;
namespace UpdateVerifier = tarnwick::updater::UpdateVerifier;

namespace {

// The version the tests run as.
const QString kRunningVersion = QStringLiteral("1.1.0");

} // namespace

class AppcastCheckerTest : public QObject {
    Q_OBJECT

private:
    std::unique_ptr<TestServer> server_;
    std::unique_ptr<KeyPair> key_;
    std::unique_ptr<QTemporaryDir> downloads_;
    std::shared_ptr<QStringList> log_;

    AppcastChecker::Config config(const QString &feedPath = QStringLiteral("/appcast.xml")) {
        AppcastChecker::Config c;
        c.feedURL = server_->url(feedPath);
        c.publicKey = key_->publicKey();
        c.downloadDirectory = downloads_->path() + QStringLiteral("/updates");
        c.log = [log = log_](const QString &line) { log->append(line); };
        return c;
    }

    // A checker that may check (started), as a view model would start it.
    std::unique_ptr<AppcastChecker> startedChecker(AppcastChecker::Config c) {
        auto checker = std::make_unique<AppcastChecker>(std::move(c));
        checker->startUpdater();
        return checker;
    }

    // Runs an interactive check to its end.
    static bool runCheck(AppcastChecker &checker) {
        QSignalSpy finished(&checker, &AppcastChecker::sessionFinished);
        checker.checkForUpdates();
        if (!checker.sessionInProgress()) {
            return false;
        }
        return finished.wait(20000);
    }

    // Serves a release of `version` at /<file> with a signature by `signer`.
    FeedItem publish(const QString &version, const KeyPair &signer,
                     const QString &file = QString()) {
        const QString path =
            QStringLiteral("/") +
            (file.isEmpty() ? QStringLiteral("tarnwick-%1.tar.gz").arg(version) : file);
        const QByteArray bytes = releaseBytes(version);
        server_->set(path, bytes);
        return FeedItem{version,
                        server_->url(path).toString(),
                        signer.signRelease(version, bytes),
                        bytes.size(),
                        {},
                        {},
                        {}};
    }

private slots:
    void initTestCase() {
        // The client's identity: settings and the download cache live under
        // "tarnwick/tarnwick".
        QCoreApplication::setOrganizationName(QStringLiteral("tarnwick"));
        QCoreApplication::setApplicationName(QStringLiteral("tarnwick"));
        QCoreApplication::setApplicationVersion(kRunningVersion);
        // Only loopback is ever used, never through a proxy.
        QNetworkProxy::setApplicationProxy(QNetworkProxy::NoProxy);
        key_ = std::make_unique<KeyPair>();
    }

    void init() {
        server_ = std::make_unique<TestServer>();
        downloads_ = std::make_unique<QTemporaryDir>();
        QVERIFY(downloads_->isValid());
        log_ = std::make_shared<QStringList>();
        QSettings(QStringLiteral("tarnwick"), QStringLiteral("tarnwick")).clear();
    }

    void cleanup() { server_.reset(); }

    // ---- versions, feed and signatures on their own ----

    void versions_data() {
        QTest::addColumn<QString>("a");
        QTest::addColumn<QString>("b");
        QTest::addColumn<int>("order");
        QTest::newRow("equal") << "1.2.0"
                               << "1.2.0" << 0;
        QTest::newRow("missing part is zero") << "1.2"
                                              << "1.2.0" << 0;
        QTest::newRow("leading zeros") << "1.02"
                                       << "1.2" << 0;
        QTest::newRow("numeric not textual") << "1.10"
                                             << "1.9" << 1;
        QTest::newRow("older") << "1.1.9"
                               << "1.2" << -1;
        QTest::newRow("longer is newer") << "1.2.0.1"
                                         << "1.2" << 1;
        QTest::newRow("huge parts") << "1.123456789012345678901234567890"
                                    << "1.99" << 1;
    }
    void versions() {
        QFETCH(QString, a);
        QFETCH(QString, b);
        QFETCH(int, order);
        QVERIFY(tarnwick::updater::isDottedNumericVersion(a));
        QVERIFY(tarnwick::updater::isDottedNumericVersion(b));
        QCOMPARE(tarnwick::updater::compareVersions(a, b), order);
        QCOMPARE(tarnwick::updater::compareVersions(b, a), -order);
    }

    void notVersions() {
        for (const char *text :
             {"", "1.", ".1", "1..2", "1.2a", "v1.2", "1.2-beta", " 1.2", "١.٢"}) {
            QVERIFY2(!tarnwick::updater::isDottedNumericVersion(QString::fromUtf8(text)), text);
        }
        QVERIFY(!tarnwick::updater::isDottedNumericVersion(QString(65, u'1')));
    }

    void newestStrictlyNewerItemWins() {
        auto item = [](const QString &v) {
            AppcastItem i;
            i.version = v;
            return i;
        };
        const QList<AppcastItem> items{item("1.0"), item("1.3"), item("1.1.0"), item("1.2.5")};
        QCOMPARE(tarnwick::updater::newestUpdate(items, "1.1.0")->version, QStringLiteral("1.3"));
        QVERIFY(!tarnwick::updater::newestUpdate(items, "1.3.0").has_value());
        QVERIFY(!tarnwick::updater::newestUpdate(items, "2").has_value());
        QVERIFY(!tarnwick::updater::newestUpdate({}, "1.0").has_value());
    }

    void feedItemsAndSkips() {
        const QByteArray signature(64, 'S');
        const QList<FeedItem> items{
            {"1.2.0", "tarnwick-1.2.0.tar.gz", signature, 100, "1.2", {}, {}},
            {"1.3.0", "https://example.org/a", {}, 5, {}, {}, {}},
            {"1.4.0", "https://example.org/b", signature, 5, {}, "sparkle:os=\"macos\"", {}},
            {"1.5.0",
             "https://example.org/c",
             signature,
             5,
             {},
             {},
             "<sparkle:channel>beta</sparkle:channel>"},
            {"x.y", "https://example.org/d", signature, 5, {}, {}, {}},
            {"1.6.0", "ftp://example.org/e", signature, 5, {}, {}, {}},
            {"1.7.0", "https://example.org/f", QByteArray(10, 'S'), 5, {}, {}, {}},
            {"1.8.0", "https://example.org/g", signature, -1, {}, "length=\"-3\"", {}},
            {"1.9.0", "https://example.org/h", signature, -1, {}, "sparkle:os=\"linux\"", {}},
        };
        const auto result = tarnwick::updater::parseAppcast(
            feedOf(items), QUrl("https://updates.example.org/feed/appcast.xml"));
        QVERIFY2(result.error.isEmpty(), qPrintable(result.error));
        QCOMPARE(result.items.size(), 2);
        const AppcastItem &first = result.items[0];
        QCOMPARE(first.version, QStringLiteral("1.2.0"));
        QCOMPARE(first.displayVersion, QStringLiteral("1.2"));
        QCOMPARE(first.title, QStringLiteral("Version 1.2.0"));
        QCOMPARE(first.length, 100);
        QCOMPARE(first.edSignature, signature);
        // A relative URL is resolved against the feed's.
        QCOMPARE(first.url, QUrl("https://updates.example.org/feed/tarnwick-1.2.0.tar.gz"));
        QCOMPARE(result.items[1].version, QStringLiteral("1.9.0"));
        QCOMPARE(result.items[1].length, 0);
        QCOMPARE(result.skipped.size(), 7);
        const QString skipped = result.skipped.join('\n');
        for (const char *why :
             {"no signature", "another system", "named channel", "not a dotted number",
              "unusable download URL", "malformed signature", "malformed length"}) {
            QVERIFY2(skipped.contains(QLatin1String(why)), why);
        }
    }

    void itemLevelVersionElements() {
        const QByteArray xml =
            "<rss xmlns:sparkle=\"http://www.andymatuschak.org/xml-namespaces/sparkle\"><channel>"
            "<item><title>T</title><sparkle:version>2.0.1</sparkle:version>"
            "<sparkle:shortVersionString>2.0</sparkle:shortVersionString>"
            "<enclosure url=\"https://example.org/x\" sparkle:edSignature=\"" +
            QByteArray(64, 'A').toBase64() + "\"/></item></channel></rss>";
        const auto result = tarnwick::updater::parseAppcast(xml, QUrl("https://example.org/feed"));
        QVERIFY2(result.error.isEmpty(), qPrintable(result.error));
        QCOMPARE(result.items.size(), 1);
        QCOMPARE(result.items[0].version, QStringLiteral("2.0.1"));
        QCOMPARE(result.items[0].displayVersion, QStringLiteral("2.0"));
    }

    void hostileFeeds_data() {
        QTest::addColumn<QByteArray>("xml");
        QTest::newRow("empty") << QByteArray();
        QTest::newRow("truncated")
            << feedOf({{"1.2.0", "https://e.org/a", QByteArray(64, 'S'), 1, {}, {}, {}}}).left(200);
        QTest::newRow("not xml") << QByteArray("\x00\xff\xfe garbage <<<>>>", 18);
        QTest::newRow("not rss") << QByteArray("<html><body>Hello</body></html>");
        QTest::newRow("rss without channel") << QByteArray("<rss version=\"2.0\"></rss>");
        QTest::newRow("undeclared prefix") << QByteArray(
            "<rss><channel><item><enclosure sparkle:version=\"2\"/></item></channel></rss>");
        QTest::newRow("junk after root") << QByteArray("<rss><channel/></rss><rss/>");
        QByteArray bomb = "<?xml version=\"1.0\"?><!DOCTYPE rss [<!ENTITY a \"aaaaaaaaaaaaaaaa\">";
        char previous = 'a';
        for (char name = 'b'; name <= 'k'; ++name) {
            bomb += QByteArray("<!ENTITY ") + name + " \"" +
                    QByteArray("&").append(previous).append(';').repeated(16) + "\">";
            previous = name;
        }
        bomb += "]><rss><channel><item><title>&k;</title></item></channel></rss>";
        QTest::newRow("entity expansion") << bomb;
    }
    void hostileFeeds() {
        QFETCH(QByteArray, xml);
        const auto result = tarnwick::updater::parseAppcast(xml, QUrl("https://example.org/feed"));
        QVERIFY(!result.error.isEmpty());
        QVERIFY(result.items.isEmpty());
    }

    void verifier() {
        const QByteArray message = "release bytes";
        const QByteArray signature = key_->sign(message);
        QVERIFY(UpdateVerifier::verify(key_->publicKey(), signature, message));
        QVERIFY(!UpdateVerifier::verify(key_->publicKey(), signature, message + "!"));
        QByteArray flipped = signature;
        flipped[5] = char(flipped[5] ^ 1);
        QVERIFY(!UpdateVerifier::verify(key_->publicKey(), flipped, message));
        KeyPair other;
        QVERIFY(!UpdateVerifier::verify(other.publicKey(), signature, message));
        QVERIFY(!UpdateVerifier::verify(key_->publicKey().left(31), signature, message));
        QVERIFY(!UpdateVerifier::verify(key_->publicKey(), signature.left(63), message));
        // An empty file has a signature too.
        QVERIFY(UpdateVerifier::verify(key_->publicKey(), key_->sign({}), QByteArray()));

        QCOMPARE(UpdateVerifier::decodePublicKey(QString::fromLatin1(key_->publicKey().toBase64())),
                 key_->publicKey());
        QVERIFY(UpdateVerifier::decodePublicKey("not base64!").isEmpty());
        QVERIFY(UpdateVerifier::decodePublicKey(QString::fromLatin1(QByteArray(31, 'k').toBase64()))
                    .isEmpty());
    }

    // ---- the checker against the local server ----

    void newerSignedItemIsOfferedAndKept() {
        const FeedItem newer = publish("1.2.0", *key_);
        server_->set("/appcast.xml",
                     feedOf({publish("1.0.0", *key_), newer, publish("1.1.5", *key_)}));
        auto checker = startedChecker(config());
        QVERIFY(checker->canCheckForUpdates());
        QSignalSpy canCheck(checker.get(), &AppcastChecker::canCheckForUpdatesChanged);
        QVERIFY(runCheck(*checker));

        QCOMPARE(checker->status(), QStringLiteral("downloaded"));
        QCOMPARE(checker->availableVersion(), QStringLiteral("1.2.0"));
        QCOMPARE(checker->statusText(), QStringLiteral("Tarnwick 1.2.0 has been downloaded"));
        QCOMPARE(server_->requests(), QStringList({"/appcast.xml", "/tarnwick-1.2.0.tar.gz"}));
        // The session made checks impossible and then possible again.
        QCOMPARE(canCheck.count(), 2);
        QVERIFY(checker->canCheckForUpdates());

        const QString file = checker->downloadedFile();
        QCOMPARE(file, downloads_->path() + "/updates/tarnwick-1.2.0.tar.gz");
        QFile kept(file);
        QVERIFY(kept.open(QIODevice::ReadOnly));
        const QByteArray bytes = kept.readAll();
        QCOMPARE(bytes, releaseBytes("1.2.0"));
        QVERIFY(key_->verifies(KeyPair::releaseStatement("1.2.0", bytes), newer.signature));
        // Only the kept file is left: no partial download beside it.
        QCOMPARE(filesIn(downloads_->path() + "/updates"), QStringList{"tarnwick-1.2.0.tar.gz"});
        QVERIFY(log_->contains("Downloaded Tarnwick 1.2.0 to " + file));
    }

    void badSignatureIsDiscarded() {
        KeyPair stranger;
        FeedItem forged = publish("1.2.0", stranger);
        server_->set("/appcast.xml", feedOf({forged}));
        auto checker = startedChecker(config());
        QVERIFY(runCheck(*checker));

        QCOMPARE(server_->count("/tarnwick-1.2.0.tar.gz"), 1);
        QCOMPARE(checker->status(), QStringLiteral("error"));
        QVERIFY(checker->statusText().contains("could not be verified and was discarded"));
        QVERIFY(checker->downloadedFile().isEmpty());
        QVERIFY(filesIn(downloads_->path() + "/updates").isEmpty());
        bool logged = false;
        for (const QString &line : *log_) {
            logged =
                logged || (line.startsWith("warning: discarded the download of Tarnwick 1.2.0") &&
                           line.contains("the signature does not match"));
        }
        QVERIFY2(logged, qPrintable(log_->join('\n')));
    }

    void oldArchiveOfferedAsNewIsDiscarded() {
        // A genuinely signed 1.1.5 archive, replayed under the version 1.2.0.
        FeedItem replayed = publish("1.1.5", *key_);
        replayed.version = "1.2.0";
        server_->set("/appcast.xml", feedOf({replayed}));
        auto checker = startedChecker(config());
        QVERIFY(runCheck(*checker));

        QCOMPARE(server_->count("/tarnwick-1.1.5.tar.gz"), 1);
        QCOMPARE(checker->status(), QStringLiteral("error"));
        QVERIFY(checker->statusText().contains("could not be verified and was discarded"));
        QVERIFY(checker->downloadedFile().isEmpty());
        QVERIFY(filesIn(downloads_->path() + "/updates").isEmpty());

        // The same archive offered as what it is verifies and is kept.
        server_->set("/appcast.xml", feedOf({publish("1.1.5", *key_)}));
        QVERIFY(runCheck(*checker));
        QCOMPARE(checker->downloadedFile(), downloads_->path() + "/updates/tarnwick-1.1.5.tar.gz");
    }

    void aReleaseSignedByTheSigningScriptIsKept() {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        QFile pem(dir.filePath("key.pem"));
        QVERIFY(pem.open(QIODevice::WriteOnly));
        pem.write(key_->privateKeyPem());
        pem.close();
        const QByteArray bytes = releaseBytes("1.2.0");
        const QString archive = dir.filePath("tarnwick-1.2.0.tar.gz");
        QFile file(archive);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(bytes);
        file.close();

        QProcess sign;
        sign.start(QStringLiteral(TARNWICK_SIGN_UPDATE_SCRIPT),
                   {"1.2.0", archive, dir.filePath("key.pem")});
        QVERIFY(sign.waitForFinished(30000));
        QVERIFY2(sign.exitCode() == 0, sign.readAllStandardError().constData());
        const QByteArray signature = QByteArray::fromBase64(sign.readAllStandardOutput().trimmed());
        QCOMPARE(signature.size(), 64);

        // The checker keeps the release the script signed.
        server_->set("/tarnwick-1.2.0.tar.gz", bytes);
        const FeedItem item{"1.2.0",   server_->url("/tarnwick-1.2.0.tar.gz").toString(),
                            signature, bytes.size(),
                            {},        {},
                            {}};
        server_->set("/appcast.xml", feedOf({item}));
        auto checker = startedChecker(config());
        QVERIFY(runCheck(*checker));
        QCOMPARE(checker->downloadedFile(), downloads_->path() + "/updates/tarnwick-1.2.0.tar.gz");
    }

    void damagedDownloadIsDiscarded() {
        // Right key, but the served bytes are not the signed ones.
        FeedItem item = publish("1.2.0", *key_);
        QByteArray damaged = releaseBytes("1.2.0");
        damaged[1000] = 'X';
        server_->set("/tarnwick-1.2.0.tar.gz", damaged);
        server_->set("/appcast.xml", feedOf({item}));
        auto checker = startedChecker(config());
        QVERIFY(runCheck(*checker));
        QCOMPARE(checker->status(), QStringLiteral("error"));
        QVERIFY(filesIn(downloads_->path() + "/updates").isEmpty());
    }

    void equalVersionOffersNothing() {
        server_->set("/appcast.xml", feedOf({publish("1.0.0", *key_), publish("1.1.0", *key_),
                                             publish("1.1", *key_, "other.tar.gz")}));
        auto checker = startedChecker(config());
        QVERIFY(runCheck(*checker));
        QCOMPARE(checker->status(), QStringLiteral("upToDate"));
        QCOMPARE(checker->statusText(), QStringLiteral("You're up to date"));
        QVERIFY(checker->availableVersion().isEmpty());
        QVERIFY(checker->downloadedFile().isEmpty());
        QCOMPARE(server_->requests(), QStringList{"/appcast.xml"});
    }

    void olderVersionOffersNothing() {
        server_->set("/appcast.xml", feedOf({publish("0.9.9", *key_), publish("1.0", *key_)}));
        auto checker = startedChecker(config());
        QVERIFY(runCheck(*checker));
        QCOMPARE(checker->status(), QStringLiteral("upToDate"));
        QVERIFY(checker->availableVersion().isEmpty());
        QCOMPARE(server_->requests(), QStringList{"/appcast.xml"});
    }

    void newestValidItemWins() {
        FeedItem unsigned_ = publish("1.4.0", *key_);
        unsigned_.signature.clear();
        FeedItem valid = publish("1.3.0", *key_);
        server_->set("/appcast.xml", feedOf({publish("1.2.0", *key_), unsigned_, valid}));
        auto checker = startedChecker(config());
        QVERIFY(runCheck(*checker));
        QCOMPARE(checker->availableVersion(), QStringLiteral("1.3.0"));
        QCOMPARE(checker->status(), QStringLiteral("downloaded"));
        QCOMPARE(server_->count("/tarnwick-1.4.0.tar.gz"), 0);
        QVERIFY(log_->join('\n').contains("\"Version 1.4.0\": no signature"));
    }

    void malformedFeedGivesAnError_data() {
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("words");
        QTest::newRow("broken xml")
            << 200 << QByteArray("<rss><channel><item>") << "could not be read";
        QTest::newRow("html page") << 200 << QByteArray("<html></html>") << "not an RSS feed";
        QTest::newRow("empty") << 200 << QByteArray() << "could not be read";
        QTest::newRow("binary") << 200 << QByteArray("\x89PNG\r\n\x1a\n\x00\x00", 10)
                                << "could not be read";
        QTest::newRow("not found") << 404 << QByteArray("gone") << "The update check failed";
        QTest::newRow("server error")
            << 500 << QByteArray("<rss><channel/></rss>") << "The update check failed";
    }
    void malformedFeedGivesAnError() {
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        QFETCH(QString, words);
        server_->set("/appcast.xml", TestServer::Answer{status, body, {}});
        auto checker = startedChecker(config());
        QVERIFY(runCheck(*checker));
        QCOMPARE(checker->status(), QStringLiteral("error"));
        QVERIFY2(checker->statusText().contains(words), qPrintable(checker->statusText()));
        QVERIFY(checker->statusText().startsWith("The update check failed"));
        QVERIFY(checker->canCheckForUpdates());
        QVERIFY(log_->join('\n').contains("Update check failed: "));
    }

    void oversizedFeedIsRefused() {
        FeedItem item = publish("1.2.0", *key_);
        QList<FeedItem> many(400, item);
        server_->set("/appcast.xml", feedOf(many));
        AppcastChecker::Config c = config();
        c.maxFeedBytes = 16 * 1024;
        auto checker = startedChecker(c);
        QVERIFY(runCheck(*checker));
        QCOMPARE(checker->status(), QStringLiteral("error"));
        QVERIFY2(checker->statusText().contains("larger than 16384 bytes"),
                 qPrintable(checker->statusText()));
        QCOMPARE(server_->count("/tarnwick-1.2.0.tar.gz"), 0);
    }

    void downloadLargerThanAnnouncedIsDiscarded() {
        FeedItem item = publish("1.2.0", *key_);
        item.length = 1000;
        server_->set("/appcast.xml", feedOf({item}));
        auto checker = startedChecker(config());
        QVERIFY(runCheck(*checker));
        QCOMPARE(checker->status(), QStringLiteral("error"));
        QVERIFY2(checker->statusText().contains("larger than the announced 1000 bytes"),
                 qPrintable(checker->statusText()));
        QVERIFY(filesIn(downloads_->path() + "/updates").isEmpty());
    }

    void silentServerEndsTheCheck() {
        server_->hold("/appcast.xml");
        AppcastChecker::Config c = config();
        c.transferTimeout = std::chrono::milliseconds(300);
        auto checker = startedChecker(c);
        QVERIFY(runCheck(*checker));
        QCOMPARE(checker->status(), QStringLiteral("error"));
        QVERIFY2(checker->statusText().contains("nothing arrived"),
                 qPrintable(checker->statusText()));
    }

    void sameOriginRedirectIsFollowed() {
        server_->set("/appcast.xml", feedOf({publish("1.2.0", *key_)}));
        server_->redirect("/feed", server_->url("/appcast.xml"));
        auto checker = startedChecker(config("/feed"));
        QVERIFY(runCheck(*checker));
        QCOMPARE(checker->status(), QStringLiteral("downloaded"));
        QCOMPARE(server_->requests().mid(0, 2), QStringList({"/feed", "/appcast.xml"}));
    }

    void plainRedirectToAnotherOriginIsRefused() {
        TestServer elsewhere;
        elsewhere.set("/appcast.xml", feedOf({publish("1.2.0", *key_)}));
        // Same host, another port: another origin, and not https.
        server_->redirect("/appcast.xml", elsewhere.url("/appcast.xml"));
        auto checker = startedChecker(config());
        QVERIFY(runCheck(*checker));
        QCOMPARE(checker->status(), QStringLiteral("error"));
        QVERIFY2(checker->statusText().contains("refused a redirect"),
                 qPrintable(checker->statusText()));
        QTest::qWait(100);
        QVERIFY(elsewhere.requests().isEmpty());
    }

    void backgroundCheckWithoutAutomaticDownloadOnlyOffers() {
        server_->set("/appcast.xml", feedOf({publish("1.2.0", *key_)}));
        auto checker = startedChecker(config());
        checker->setAutomaticallyDownloadsUpdates(false);
        QSignalSpy finished(checker.get(), &AppcastChecker::sessionFinished);
        checker->checkForUpdatesInBackground();
        QVERIFY(finished.wait(20000));
        QCOMPARE(checker->status(), QStringLiteral("available"));
        QCOMPARE(checker->statusText(), QStringLiteral("Tarnwick 1.2.0 is available"));
        QCOMPARE(server_->requests(), QStringList{"/appcast.xml"});

        checker->downloadUpdate();
        QVERIFY(finished.wait(20000));
        QCOMPARE(checker->status(), QStringLiteral("downloaded"));
        QCOMPARE(server_->count("/tarnwick-1.2.0.tar.gz"), 1);
    }

    void backgroundFailureStaysInTheLog() {
        server_->set("/appcast.xml", QByteArray("<rss>"));
        auto checker = startedChecker(config());
        QSignalSpy finished(checker.get(), &AppcastChecker::sessionFinished);
        checker->checkForUpdatesInBackground();
        QVERIFY(finished.wait(20000));
        QCOMPARE(checker->status(), QStringLiteral("idle"));
        QVERIFY(checker->statusText().isEmpty());
        QVERIFY(log_->join('\n').contains("Update check failed: "));
    }

    void earlierVerifiedDownloadIsReused() {
        server_->set("/appcast.xml", feedOf({publish("1.2.0", *key_)}));
        {
            auto first = startedChecker(config());
            QVERIFY(runCheck(*first));
            QCOMPARE(first->status(), QStringLiteral("downloaded"));
        }
        // A later run finds the verified file and does not fetch it again.
        auto second = startedChecker(config());
        QVERIFY(runCheck(*second));
        QCOMPARE(second->status(), QStringLiteral("downloaded"));
        QCOMPARE(server_->count("/tarnwick-1.2.0.tar.gz"), 1);

        // A file of that name that is not the release is replaced.
        QFile file(second->downloadedFile());
        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write("something else");
        file.close();
        auto third = startedChecker(config());
        QVERIFY(runCheck(*third));
        QCOMPARE(third->status(), QStringLiteral("downloaded"));
        QCOMPARE(server_->count("/tarnwick-1.2.0.tar.gz"), 2);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), releaseBytes("1.2.0"));
    }

    void downloadsGoToTheCacheByDefault() {
        server_->set("/appcast.xml", feedOf({publish("1.2.0", *key_)}));
        AppcastChecker::Config c = config();
        c.downloadDirectory.clear();
        auto checker = startedChecker(c);
        QVERIFY(runCheck(*checker));
        const QString cache = qEnvironmentVariable("XDG_CACHE_HOME");
        QVERIFY(!cache.isEmpty());
        QCOMPARE(checker->downloadedFile(),
                 cache + "/tarnwick/tarnwick/updates/tarnwick-1.2.0.tar.gz");
        QVERIFY(QFile::remove(checker->downloadedFile()));
    }

    void lastCheckDateComesFromTheClock() {
        server_->set("/appcast.xml", feedOf({}));
        const QDateTime when(QDate(2031, 5, 6), QTime(7, 8, 9), Qt::UTC);
        AppcastChecker::Config c = config();
        runwarden::ManualClock clock(when.toMSecsSinceEpoch());
        c.clock = &clock;
        auto checker = startedChecker(c);
        QVERIFY(!checker->lastUpdateCheckDate().isValid());
        QVERIFY(runCheck(*checker));
        QCOMPARE(checker->lastUpdateCheckDate(), when);
    }

    void unstartedCheckerNeverChecks() {
        server_->set("/appcast.xml", feedOf({publish("1.2.0", *key_)}));
        AppcastChecker checker(config());
        QVERIFY(checker.isConfigured());
        QVERIFY(!checker.canCheckForUpdates());
        checker.checkForUpdates();
        checker.checkForUpdatesInBackground();
        QVERIFY(!checker.sessionInProgress());
        QTest::qWait(100);
        QVERIFY(server_->requests().isEmpty());
    }

    void destroyedDuringACheck() {
        server_->hold("/appcast.xml");
        auto checker = startedChecker(config());
        checker->checkForUpdates();
        QTRY_COMPARE(server_->requests().size(), 1);
        checker.reset();
        server_->release();
        QTest::qWait(50);
    }

    void settingsArePersisted() {
        {
            AppcastChecker checker(config());
            QVERIFY(checker.automaticallyChecksForUpdates());
            QVERIFY(!checker.automaticallyDownloadsUpdates());
            QSignalSpy changed(&checker, &AppcastChecker::automaticallyChecksForUpdatesChanged);
            checker.setAutomaticallyChecksForUpdates(false);
            checker.setAutomaticallyChecksForUpdates(false);
            QCOMPARE(changed.count(), 1);
            checker.setAutomaticallyDownloadsUpdates(true);
        }
        AppcastChecker again(config());
        QVERIFY(!again.automaticallyChecksForUpdates());
        QVERIFY(again.automaticallyDownloadsUpdates());
    }

    // ---- configuration ----

    void configurationFromTheEnvironment() {
        const QByteArray key = key_->publicKey().toBase64();
        qputenv("TARNWICK_APPCAST_URL", server_->url("/appcast.xml").toEncoded());
        qputenv("TARNWICK_UPDATE_PUBLIC_KEY", key);
        AppcastChecker::Config c = AppcastChecker::configFromEnvironment();
        QCOMPARE(c.feedURL, server_->url("/appcast.xml"));
        QCOMPARE(c.publicKey, key_->publicKey());

        // Set but empty: no feed, whatever the build's default.
        qputenv("TARNWICK_APPCAST_URL", "");
        c = AppcastChecker::configFromEnvironment();
        QVERIFY(c.feedURL.isEmpty());
        AppcastChecker none(c);
        QVERIFY(!none.isConfigured());

        qputenv("TARNWICK_APPCAST_URL", server_->url("/appcast.xml").toEncoded());
        qputenv("TARNWICK_UPDATE_PUBLIC_KEY", "bm90IGEga2V5");
        c = AppcastChecker::configFromEnvironment();
        c.log = [log = log_](const QString &line) { log->append(line); };
        AppcastChecker badKey(c);
        QVERIFY(!badKey.isConfigured());
        QVERIFY(log_->join('\n').contains("no valid public key"));
        qunsetenv("TARNWICK_APPCAST_URL");
        qunsetenv("TARNWICK_UPDATE_PUBLIC_KEY");
    }

    void unusableFeedURLsAreNotConfigured() {
        for (const char *url : {"file:///etc/passwd", "ftp://example.org/appcast.xml", "http://"}) {
            AppcastChecker::Config c = config();
            c.feedURL = QUrl(QString::fromLatin1(url));
            AppcastChecker checker(c);
            QVERIFY2(!checker.isConfigured(), url);
        }
    }

    void onlyHttpsFeedsAndDownloadsOverTheNetwork() {
        // Plain http over a network could be replaced on its way: only this
        // computer itself may serve updates without TLS (as the tests do).
        for (const char *url :
             {"http://updates.example.org/appcast.xml", "http://10.0.0.7/appcast.xml",
              "http://[2001:db8::1]/appcast.xml"}) {
            log_->clear();
            AppcastChecker::Config c = config();
            c.feedURL = QUrl(QString::fromLatin1(url));
            AppcastChecker checker(c);
            QVERIFY2(!checker.isConfigured(), url);
            QVERIFY(log_->join('\n').contains("is not an https URL; update checks are off"));
        }
        for (const char *url :
             {"https://updates.example.org/appcast.xml", "http://127.0.0.1:8080/appcast.xml",
              "http://[::1]/appcast.xml", "http://localhost/appcast.xml"}) {
            AppcastChecker::Config c = config();
            c.feedURL = QUrl(QString::fromLatin1(url));
            QVERIFY2(AppcastChecker(c).isConfigured(), url);
        }
        // A download offered over plain http by an https feed is not taken.
        const QByteArray signature(64, 'S');
        const QList<FeedItem> items{
            {"1.2.0", "http://mirror.example.org/tarnwick-1.2.0.tar.gz", signature, 5, {}, {}, {}},
        };
        const auto result = tarnwick::updater::parseAppcast(
            feedOf(items), QUrl("https://updates.example.org/appcast.xml"));
        QVERIFY(result.items.isEmpty());
        QCOMPARE(result.skipped.size(), 1);
    }
};

QTEST_GUILESS_MAIN(AppcastCheckerTest)
#include "tst_appcast_checker.moc"
