#include "UiHarness.h"

#include "CommandLine.h"
#include "LaunchAtLogin.h"
#include "ScreenObjects.h"

#include <QDir>
#include <QFont>
#include <QGuiApplication>
#include <QPointingDevice>
#include <QQmlComponent>
#include <QQuickStyle>
#include <QQuickWindow>
#include <QSGRendererInterface>
#include <QTest>
#include <QtDebug>
#include <QtQml/qqmlextensionplugin.h>

// The screens come from the statically linked Tarnwick module; every test
// that links the harness gets it through this import.
Q_IMPORT_QML_PLUGIN(TarnwickPlugin)

namespace tarnwick::ui::test {

void UiHarness::prepareApplication() {
    cli::setApplicationIdentity();
    // The software renderer grabs reliably without a GPU.
    QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
    // The controls' style of the client (the screens restyle the rest).
    QQuickStyle::setStyle(QStringLiteral("Basic"));
    // A known system font (the screens take the application font's family
    // and point size).
    QFont font(QStringLiteral("DejaVu Sans"));
    font.setPointSize(10);
    QGuiApplication::setFont(font);
}

UiHarness::UiHarness() : UiHarness(Options{}) {}

UiHarness::UiHarness(Options options) : options_(options), log_(std::make_shared<QStringList>()) {
    ItemsProvider::Options modelOptions;
    modelOptions.isMacOS13 = options_.isMacOS13;
    modelOptions.singleInstance = false;
    modelOptions.launchBackend = false;
    modelOptions.log = [log = log_](const QString &line) { log->append(line); };
    modelOptions.terminate = [] {};
    if (options_.manualClock) {
        clock_ = std::make_unique<runwarden::ManualClock>(
            runwarden::Clock::system().epochMilliseconds());
        modelOptions.clock = clock_.get();
    }
    if (options_.configureModel) {
        options_.configureModel(modelOptions);
    }
    const bool launchesBackend = modelOptions.launchBackend;
    model_ = std::make_unique<ItemsProvider>(std::move(modelOptions));
    // Without a backend of its own the model shows the state tests give it, as it does
    // once a backend has answered.
    if (!launchesBackend) {
        model_->setBackendAnswered(true);
    }
    actions_ = std::make_unique<SettingsActions>(*model_);
    app_ = std::make_unique<AppController>(options_.isMacOS13);
    UpdaterViewModel::Options updaterOptions;
    updaterOptions.isMacOS13 = options_.isMacOS13;
    updaterOptions.checker = {};
    updaterOptions.checker.log = [](const QString &) {};
    updaterOptions.print = [](const QString &) {};
    ownUpdater_ = std::make_unique<UpdaterViewModel>(std::move(updaterOptions));
    updater_ = ownUpdater_.get();
    ownPickers_ = std::make_unique<Pickers>();
    ownPickers_->setRunner([](const Pickers::Request &) { return std::optional<QString>(); });
    pickers_ = ownPickers_.get();
    engine_ = std::make_unique<QQmlEngine>();
    // Where the statically linked Tarnwick module keeps its qmldir.
    engine_->addImportPath(QStringLiteral("qrc:/qt/qml"));
    QObject::connect(engine_.get(), &QQmlEngine::warnings, engine_.get(),
                     [this](const QList<QQmlError> &warnings) {
                         for (const QQmlError &warning : warnings) {
                             errors_.append(warning.toString());
                         }
                     });
    installScreenObjects();
}

UiHarness::~UiHarness() {
    // The scene goes before the objects its bindings read.
    delete root_.data();
    window_.reset();
    engine_.reset();
}

void UiHarness::installScreenObjects() {
    ScreenObjects::install(*engine_, {model_.get(), actions_.get(), app_.get(),
                                      LaunchAtLogin::observable(), updater_, pickers_});
}

void UiHarness::setUpdater(UpdaterViewModel *updater) {
    updater_ = updater;
    installScreenObjects();
}

void UiHarness::setPickers(Pickers *pickers) {
    pickers_ = pickers;
    installScreenObjects();
}

QQuickItem *UiHarness::load(const QString &typeName, QSize size,
                            const QVariantMap &initialProperties) {
    delete root_.data();
    window_ = std::make_unique<QQuickWindow>();
    window_->resize(size);
    // The type as a screen would use it: through the module's import.
    QQmlComponent component(engine_.get());
    component.setData(
        "import Tarnwick\n" + typeName.toUtf8() + " {}\n",
        QUrl(QStringLiteral("qrc:/tarnwick-test/") + typeName + QStringLiteral("Host.qml")));
    if (component.isError()) {
        for (const QQmlError &error : component.errors()) {
            errors_.append(error.toString());
        }
        qWarning().noquote() << "Cannot load" << typeName << ":" << errors_.join('\n');
        return nullptr;
    }
    QObject *object = component.createWithInitialProperties(initialProperties);
    auto *item = qobject_cast<QQuickItem *>(object);
    if (item == nullptr) {
        for (const QQmlError &error : component.errors()) {
            errors_.append(error.toString());
        }
        qWarning().noquote() << "Cannot create" << typeName << ":" << errors_.join('\n');
        delete object;
        return nullptr;
    }
    QQmlEngine::setObjectOwnership(item, QQmlEngine::CppOwnership);
    item->setParentItem(window_->contentItem());
    item->setSize(QSizeF(size));
    root_ = item;
    window_->show();
    if (!QTest::qWaitForWindowExposed(window_.get())) {
        qWarning() << "The test window was not exposed";
    }
    settle();
    return item;
}

namespace {
void collect(QObject *object, const QString &name, QList<QObject *> &out, bool firstOnly) {
    if (object == nullptr || (firstOnly && !out.isEmpty())) {
        return;
    }
    if (object->objectName() == name) {
        out.append(object);
        if (firstOnly) {
            return;
        }
    }
    // Visual children first (delegates of views live there), then the
    // QObject children (non-visual objects, and items not yet parented).
    QSet<QObject *> seen;
    if (auto *item = qobject_cast<QQuickItem *>(object)) {
        for (QQuickItem *child : item->childItems()) {
            seen.insert(child);
            collect(child, name, out, firstOnly);
        }
    }
    for (QObject *child : object->children()) {
        if (!seen.contains(child)) {
            collect(child, name, out, firstOnly);
        }
    }
}
} // namespace

QObject *UiHarness::find(const QString &objectName) const {
    QList<QObject *> out;
    collect(root_.data(), objectName, out, true);
    return out.isEmpty() ? nullptr : out.first();
}

QList<QObject *> UiHarness::findAll(const QString &objectName) const {
    QList<QObject *> out;
    collect(root_.data(), objectName, out, false);
    return out;
}

QQuickItem *UiHarness::findVisible(const QString &objectName) const {
    for (QObject *object : findAll(objectName)) {
        auto *item = qobject_cast<QQuickItem *>(object);
        if (item != nullptr && isShown(item)) {
            return item;
        }
    }
    return nullptr;
}

bool UiHarness::isShown(const QQuickItem *item) {
    for (const QQuickItem *i = item; i != nullptr; i = i->parentItem()) {
        if (!i->isVisible() || i->opacity() <= 0.0) {
            return false;
        }
    }
    return item != nullptr;
}

void UiHarness::passTime(std::chrono::milliseconds span) {
    if (!clock_) {
        qFatal("passTime needs a harness with a manual clock");
    }
    clock_->advance(span);
    QCoreApplication::processEvents();
}

void UiHarness::settle(int milliseconds) {
    QTest::qWait(milliseconds);
}

QString UiHarness::screenshotDirectory() {
    QString build = qEnvironmentVariable("TARNWICK_BUILD_DIR");
    if (build.isEmpty()) {
        build = QDir::tempPath();
    }
    return build + QStringLiteral("/screenshots");
}

QImage UiHarness::grab(const QString &name) {
    if (!window_) {
        qWarning() << "Nothing loaded to grab";
        return {};
    }
    settle();
    const QImage image = window_->grabWindow();
    if (image.isNull()) {
        qWarning() << "Grabbing the window gave no image";
        return image;
    }
    const QString directory = screenshotDirectory();
    QDir().mkpath(directory);
    const QString path = directory + QLatin1Char('/') + name + QStringLiteral(".png");
    if (!image.save(path)) {
        qWarning().noquote() << "Cannot save" << path;
    }
    return image;
}

void UiHarness::click(QQuickItem *item) {
    if (item == nullptr || !window_) {
        qWarning() << "Nothing to click";
        return;
    }
    const QPointF centre = item->mapToScene(QPointF(item->width() / 2, item->height() / 2));
    QTest::mouseClick(window_.get(), Qt::LeftButton, Qt::NoModifier, centre.toPoint());
    settle(20);
}

void UiHarness::hover(QQuickItem *item) {
    if (item == nullptr || !window_) {
        qWarning() << "Nothing to hover";
        return;
    }
    const QPointF centre = item->mapToScene(QPointF(item->width() / 2, item->height() / 2));
    QTest::mouseMove(window_.get(), centre.toPoint());
    settle(20);
}

void UiHarness::typeText(QWindow *window, const QString &text) {
    for (const QChar c : text) {
        QTest::keyClick(window, c.toLatin1());
    }
}

} // namespace tarnwick::ui::test
