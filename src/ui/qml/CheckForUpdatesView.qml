import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Tarnwick

// The interactive update check: the "Check for Updates…" button, disabled
// while a check may not start, and what the last check found. Hidden when the
// build has no update feed.
ColumnLayout {
    id: view

    // The updater view model (the window's "updater" unless given).
    property QtObject viewModel: typeof updater !== "undefined" ? updater : null
    readonly property string status: viewModel ? viewModel.status : ""

    visible: viewModel !== null && viewModel.isConfigured
    spacing: 8

    PrimaryButton {
        objectName: "checkForUpdatesViewButton"
        text: "Check for Updates\u2026"
        enabled: view.viewModel !== null
                 && view.viewModel.checkForUpdatesViewModel.canCheckForUpdates
        busy: view.status === "checking" || view.status === "downloading"
        onClicked: view.viewModel.checkForUpdates()
    }

    Text {
        objectName: "updateStatusText"
        Layout.fillWidth: true
        visible: text !== ""
        text: view.viewModel ? view.viewModel.statusText : ""
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
        enabled: view.viewModel !== null
                 && view.viewModel.checkForUpdatesViewModel.canCheckForUpdates
        symbol: "arrow.down.circle"
        text: "Download"
        helpText: "Download the new version"
        onClicked: view.viewModel.downloadUpdate()
    }

    // The verified download and where it is.
    RowLayout {
        visible: view.viewModel !== null && view.viewModel.downloadedFile !== ""
        spacing: 6

        Text {
            objectName: "downloadedFileText"
            Layout.fillWidth: true
            text: view.viewModel ? view.viewModel.downloadedFile : ""
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
            onClicked: view.viewModel.showDownloadedFile()
        }
    }
}
