#pragma once

#include <QObject>
#include <QString>

namespace tarnwick::ui {

// Application-level facts and actions the screens bind to: the version shown
// in the footer, whether the modern behaviour is on, and quitting.
class AppController : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString versionText READ versionText CONSTANT)
    Q_PROPERTY(bool isMacOS13 READ isMacOS13 CONSTANT)

public:
    explicit AppController(bool isMacOS13, QObject *parent = nullptr);

    // "v" followed by the application's version.
    QString versionText() const;
    bool isMacOS13() const { return isMacOS13_; }

    // Ends the application without a word to the backend.
    Q_INVOKABLE void quit();

signals:
    void quitRequested();

private:
    bool isMacOS13_;
};

} // namespace tarnwick::ui
