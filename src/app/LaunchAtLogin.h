#pragma once

#include <QLoggingCategory>
#include <QObject>
#include <QString>

namespace tarnwick {

Q_DECLARE_LOGGING_CATEGORY(lcLaunchAtLogin)

// Starting the client when the user logs in, through an XDG autostart entry
// ($XDG_CONFIG_HOME/autostart/tarnwick.desktop). It is "enabled" exactly when
// that file exists and is not marked Hidden=true; registering writes it,
// unregistering removes it. Failures are logged, never shown: the switch
// simply shows the state on its next read.
class LaunchAtLogin {
public:
    static bool isEnabled();
    // Enabling while already enabled re-registers (unregister, then register).
    static void setEnabled(bool enabled);

    static QString entryPath();
    // The program the entry starts; defaults to the running executable.
    static void setProgram(const QString &program);
    static QString program();

    // Whether that program runs from a build tree rather than an installation:
    // the build leaves a marker file (kBuildTreeMarker) beside the executables
    // it makes, and installing never copies it. An entry pointing into a
    // scratch build would start a stale or vanished program at login, so such
    // a client does not switch launch at login on by itself.
    static bool runsFromBuildTree();
    static constexpr const char *kBuildTreeMarker = ".tarnwick-build-tree";

    // Observers of the switch (the UI toggle) hear every change through this.
    class Observable;
    static Observable *observable();

private:
    static bool registerApp(QString *error);
    static bool unregisterApp(QString *error);
};

class LaunchAtLogin::Observable : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool isEnabled READ isEnabled WRITE setEnabled NOTIFY isEnabledChanged)

public:
    using QObject::QObject;
    bool isEnabled() const { return LaunchAtLogin::isEnabled(); }
    void setEnabled(bool enabled) { LaunchAtLogin::setEnabled(enabled); }

signals:
    void isEnabledChanged();

    friend class LaunchAtLogin;
};

} // namespace tarnwick
