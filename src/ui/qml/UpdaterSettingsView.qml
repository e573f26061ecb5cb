import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Tarnwick

// The two automatic-update settings. Downloading automatically only means
// something while checking automatically, so the second toggle is disabled
// while the first is off. Hidden when the build has no update feed.
ColumnLayout {
    id: view

    // The updater view model (the window's "updater" unless given).
    property QtObject viewModel: typeof updater !== "undefined" ? updater : null

    visible: viewModel !== null && viewModel.isConfigured
    spacing: 4

    CheckBox {
        objectName: "automaticallyChecksToggle"
        text: "Automatically check for updates"
        font.family: Theme.fontFamily
        font.pixelSize: Theme.bodySize
        enabled: view.viewModel !== null
        checked: view.viewModel !== null && view.viewModel.automaticallyChecksForUpdates
        onToggled: view.viewModel.automaticallyChecksForUpdates = checked
    }

    CheckBox {
        objectName: "automaticallyDownloadsToggle"
        text: "Automatically download updates"
        font.family: Theme.fontFamily
        font.pixelSize: Theme.bodySize
        enabled: view.viewModel !== null && view.viewModel.automaticallyChecksForUpdates
        checked: view.viewModel !== null && view.viewModel.automaticallyDownloadsUpdates
        onToggled: view.viewModel.automaticallyDownloadsUpdates = checked
    }

    Text {
        objectName: "lastUpdateCheckText"
        visible: view.viewModel !== null && !isNaN(view.viewModel.lastUpdateCheckDate.getTime())
        text: visible ? "Last checked: "
                        + Qt.formatDateTime(view.viewModel.lastUpdateCheckDate, "yyyy-MM-dd hh:mm")
                      : ""
        font.family: Theme.fontFamily
        font.pixelSize: Theme.captionSize
        color: Theme.secondary
    }
}
