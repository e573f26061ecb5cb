#pragma once

// Small helpers shared by the shell's screen tests: a scripted backend on the
// model's port that records what the screens send, and colour lookups.

#include "FakeBackend.h"
#include "Pickers.h"
#include "PollManager.h"
#include "RecordBuilders.h"
#include "UiHarness.h"
#include "UpdaterViewModel.h"

#include <QColor>
#include <QDir>
#include <QFile>
#include <QGuiApplication>
#include <QPalette>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QTemporaryDir>
#include <QTest>

#include <memory>
#include <optional>
#include <vector>

namespace tarnwick::ui::test {

// A role colour of the Theme singleton, read through the engine.
inline QColor themeColor(QQmlEngine &engine, const QString &role) {
    QQmlComponent component(&engine);
    component.setData("import QtQuick\nimport Tarnwick\nQtObject { property color c: Theme." +
                          role.toUtf8() + " }",
                      QUrl());
    std::unique_ptr<QObject> object(component.create());
    return object ? object->property("c").value<QColor>() : QColor();
}

// A desktop palette: Qt's light default, or a dark one with a light accent
// (as dark desktop themes have).
inline QPalette desktopPalette(bool dark) {
    QPalette palette = QGuiApplication::palette();
    if (!dark) {
        palette.setColor(QPalette::Window, QColor("#efefef"));
        palette.setColor(QPalette::WindowText, Qt::black);
        palette.setColor(QPalette::Base, Qt::white);
        palette.setColor(QPalette::AlternateBase, QColor("#f7f7f7"));
        palette.setColor(QPalette::Text, Qt::black);
        palette.setColor(QPalette::Highlight, QColor("#308cc6"));
        palette.setColor(QPalette::HighlightedText, Qt::white);
        palette.setColor(QPalette::Button, QColor("#efefef"));
        palette.setColor(QPalette::ButtonText, Qt::black);
        palette.setColor(QPalette::PlaceholderText, QColor("#7f7f7f"));
        return palette;
    }
    palette.setColor(QPalette::Window, QColor("#2a2e32"));
    palette.setColor(QPalette::WindowText, QColor("#fcfcfc"));
    palette.setColor(QPalette::Base, QColor("#1b1e20"));
    palette.setColor(QPalette::AlternateBase, QColor("#232629"));
    palette.setColor(QPalette::Text, QColor("#fcfcfc"));
    palette.setColor(QPalette::Highlight, QColor("#3daee9"));
    palette.setColor(QPalette::HighlightedText, QColor("#fcfcfc"));
    palette.setColor(QPalette::Button, QColor("#31363b"));
    palette.setColor(QPalette::ButtonText, QColor("#fcfcfc"));
    palette.setColor(QPalette::PlaceholderText, QColor("#a1a9b1"));
    return palette;
}

// A folder that the path checks take for an iCloud one (an iCloud
// placeholder file lies beside it), for raising the iCloud alert.
inline QString iCloudFolder(const QTemporaryDir &dir) {
    const QString folder = dir.filePath(QStringLiteral("placeholder/Reports"));
    QDir().mkpath(folder);
    QFile placeholder(dir.filePath(QStringLiteral("placeholder/.budget.xlsx.icloud")));
    if (!placeholder.open(QIODevice::WriteOnly)) {
        qFatal("cannot write the placeholder");
    }
    placeholder.write("x");
    return folder;
}

// An updater with a feed on this computer that nothing answers: the update
// controls show, and a check fails.
inline UpdaterViewModel::Options unansweredFeedUpdater() {
    UpdaterViewModel::Options options;
    options.checker = {};
    options.checker.feedURL = QUrl(QStringLiteral("http://127.0.0.1:9/appcast.xml"));
    options.checker.publicKey = QByteArray(32, '\x11');
    options.checker.log = [](const QString &) {};
    options.print = [](const QString &) {};
    return options;
}

inline bool sameRgb(const QColor &a, const QColor &b) {
    return a.isValid() && b.isValid() && a.rgb() == b.rgb();
}

inline QColor colorProperty(QObject *object, const char *name) {
    return object ? object->property(name).value<QColor>() : QColor();
}

// A harness whose model talks to a scripted backend that answers every
// request with success and remembers it. The harness is destroyed first, so
// the client's kept-alive connection closes before the server stops.
class ScreenWithBackend {
    // The model's clock unless the harness has a manual one: real timers, and a wall
    // time that the backend's replies move on.
    std::unique_ptr<FakeBackendClock> clock_ = std::make_unique<FakeBackendClock>();
    std::unique_ptr<FakeBackend> backend_;

    static UiHarness::Options withClock(UiHarness::Options options, FakeBackendClock *clock) {
        if (!options.manualClock) {
            options.configureModel = [clock, configure = std::move(options.configureModel)](
                                         ItemsProvider::Options &model) {
                model.clock = clock;
                if (configure) {
                    configure(model);
                }
            };
        }
        return options;
    }

public:
    UiHarness h;

    explicit ScreenWithBackend(UiHarness::Options options = {})
        : h(withClock(std::move(options), clock_.get())) {
        backend_ = std::make_unique<FakeBackend>(h.model().pm().kes.LocalPublicKey());
        h.model().pm().kes.setExternalPublicKey(backend_->publicKey());
        if (h.manualClock() != nullptr) {
            backend_->stampFrom(*h.manualClock());
        } else {
            backend_->stampFrom(*clock_);
        }
        backend_->setHandler(
            [](const FakeRequest &) { return FakeReply::sealed(R"({"status":"success"})"); });
        if (!backend_->listen(h.model().port())) {
            qFatal("could not listen on the model's port");
        }
    }
    FakeBackend &backend() { return *backend_; }
    // Requests of one type, in order.
    std::vector<FakeRequest> requests(const std::string &type) const {
        std::vector<FakeRequest> out;
        for (const FakeRequest &r : backend_->requests()) {
            if (r.type == type) {
                out.push_back(r);
            }
        }
        return out;
    }
};

// Loads the popup signed in with these groups (activating its window when asked, for
// keyboard input) and opens its Settings tab: true once the first group shows and no request
// is under way.
inline bool openSettingsTab(UiHarness &h, const std::vector<GroupItem> &groups,
                            QSize size = QSize(450, 650), bool activateWindow = false) {
    h.model().setIsLoggedIn(true);
    h.model().groupsModel()->replace(groups);
    if (!h.load(QStringLiteral("MenuBarView"), size)) {
        return false;
    }
    if (activateWindow) {
        h.window()->requestActivate();
        if (!QTest::qWaitFor([&] { return h.window()->isActive(); }, 5000)) {
            return false;
        }
    }
    h.click(h.findVisible(QStringLiteral("settingsTabButton")));
    return QTest::qWaitFor([&] { return h.findVisible(QStringLiteral("groupCard1")); }, 5000) &&
           QTest::qWaitFor([&] { return !h.model().isWaiting(); }, 10000);
}

// The Settings tab over a scripted backend, with the folder picker answering a folder inside
// iCloud Drive: open() adds it to the first group, which raises the iCloud alert.
class ICloudAlertScreen {
    QTemporaryDir dir_;
    Pickers pickers_;

public:
    ScreenWithBackend s;
    UiHarness &h = s.h;

    explicit ICloudAlertScreen(UiHarness::Options options) : s(std::move(options)) {
        const QString folder = iCloudFolder(dir_);
        pickers_.setRunner(
            [folder](const Pickers::Request &) { return std::optional<QString>(folder); });
        h.setPickers(&pickers_);
    }

    // True once the alert shows.
    bool open() {
        if (!dir_.isValid() || !openSettingsTab(h, {tarnwick::test::group(1, "Personal")})) {
            return false;
        }
        h.click(h.findVisible(QStringLiteral("folderButton")));
        return QTest::qWaitFor([&] { return h.findVisible(QStringLiteral("iCloudAlertMessage")); },
                               5000);
    }
};

} // namespace tarnwick::ui::test
