import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Tarnwick

// The interactive update check: the "Check for Updates…" button, disabled
// while a check may not start, and what the last check found. Hidden when the
// build has no update feed.
ColumnLayout {
    id: view

    // The update checker: what the last check found is its state.
    readonly property AppcastChecker checker: UpdaterViewModel.updaterController
    readonly property string status: checker.status

    visible: checker.isConfigured
    spacing: 8

    PrimaryButton {
        objectName: "checkForUpdatesViewButton"
        text: "Check for Updates\u2026"
        enabled: UpdaterViewModel.checkForUpdatesViewModel.canCheckForUpdates
        busy: view.status === "checking" || view.status === "downloading"
        onClicked: UpdaterViewModel.checkForUpdates()
    }

    Text {
        objectName: "updateStatusText"
        Layout.fillWidth: true
        visible: text !== ""
        text: view.checker.statusText
        wrapMode: Text.Wrap
        font.family: Theme.fontFamily
        font.pixelSize: Theme.bodySize
        color: view.status === "error" ? Theme.red
             : view.status === "downloaded" || view.status === "available" ? Theme.green
             : Theme.secondary
    }

    // An update a background check found but did not download.
    IconButton {
        objectName: "downloadUpdateButton"
        visible: view.status === "available"
        enabled: UpdaterViewModel.checkForUpdatesViewModel.canCheckForUpdates
        symbol: "arrow.down.circle"
        text: "Download"
        helpText: "Download the new version"
        onClicked: UpdaterViewModel.downloadUpdate()
    }

    // The verified download and where it is.
    RowLayout {
        visible: view.checker.downloadedFile !== ""
        spacing: 6

        Text {
            objectName: "downloadedFileText"
            Layout.fillWidth: true
            text: view.checker.downloadedFile
            elide: Text.ElideMiddle
            font.family: Theme.fontFamily
            font.pixelSize: Theme.captionSize
            color: Theme.secondary
        }
        IconButton {
            objectName: "showDownloadButton"
            symbol: "folder"
            text: "Show"
            helpText: "Show the downloaded update in its folder"
            onClicked: UpdaterViewModel.showDownloadedFile()
        }
    }
}
