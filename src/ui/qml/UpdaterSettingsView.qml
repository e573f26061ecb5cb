import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Tarnwick

// The two automatic-update settings. Downloading automatically only means
// something while checking automatically, so the second toggle is disabled
// while the first is off. Hidden when the build has no update feed.
ColumnLayout {
    id: view

    // The update checker keeps both settings.
    readonly property AppcastChecker checker: UpdaterViewModel.updaterController

    visible: checker.isConfigured
    spacing: 4

    CheckBox {
        objectName: "automaticallyChecksToggle"
        text: "Automatically check for updates"
        font.family: Theme.fontFamily
        font.pixelSize: Theme.bodySize
        checked: view.checker.automaticallyChecksForUpdates
        onToggled: view.checker.automaticallyChecksForUpdates = checked
    }

    CheckBox {
        objectName: "automaticallyDownloadsToggle"
        text: "Automatically download updates"
        font.family: Theme.fontFamily
        font.pixelSize: Theme.bodySize
        enabled: view.checker.automaticallyChecksForUpdates
        checked: view.checker.automaticallyDownloadsUpdates
        onToggled: view.checker.automaticallyDownloadsUpdates = checked
    }

    Text {
        objectName: "lastUpdateCheckText"
        visible: !isNaN(view.checker.lastUpdateCheckDate.getTime())
        text: visible ? "Last checked: "
                        + Qt.formatDateTime(view.checker.lastUpdateCheckDate, "yyyy-MM-dd hh:mm")
                      : ""
        font.family: Theme.fontFamily
        font.pixelSize: Theme.captionSize
        color: Theme.secondary
    }
}
