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
        text: qsTr("Check for Updates\u2026")
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
        font.pointSize: Theme.bodySize
        // Red or green, deepened (or lightened) to read on the panel.
        color: view.status === "error" ? Theme.textOn(Theme.red, Theme.controlBackground)
             : view.status === "downloaded" || view.status === "available"
               ? Theme.textOn(Theme.green, Theme.controlBackground)
             : Theme.secondary
    }

    // An update a background check found but did not download.
    IconButton {
        objectName: "downloadUpdateButton"
        visible: view.status === "available"
        enabled: UpdaterViewModel.checkForUpdatesViewModel.canCheckForUpdates
        symbol: "arrow.down.circle"
        text: qsTr("Download")
        helpText: qsTr("Download the new version")
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
            font.pointSize: Theme.captionSize
            color: Theme.secondary
        }
        IconButton {
            objectName: "showDownloadButton"
            symbol: "folder"
            text: qsTr("Show")
            helpText: qsTr("Show the downloaded update in its folder")
            onClicked: UpdaterViewModel.showDownloadedFile()
        }
    }
}
