pragma ComponentBehavior: Bound

import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Tarnwick

// One sync group: its name and number, the buttons to edit its retention and
// to add a Photos library or a folder (all off while `disabled`), and its
// watched folders in path order, or a note that it has none yet.
CardView {
    id: card
    objectName: "groupCard" + groupIDText

    property string groupIDText
    property string groupName
    // The group's folders, already in the order to show.
    property var walkPaths: []
    property bool disabled: false
    // Those of walkPaths that iCloud manages (the screen's file-system
    // check).
    property var iCloudSyncedPaths: []

    signal addPhotoLibrary()
    signal addFolder()
    signal openFolder(string path)
    signal removeFolder(string path)
    signal openRetentionSettings()

    padding: 16

    RowLayout {
        Layout.fillWidth: true
        spacing: 4

        ColumnLayout {
            Layout.fillWidth: true
            Layout.alignment: Qt.AlignVCenter
            spacing: 2

            Text {
                objectName: "groupName"
                Layout.fillWidth: true
                text: card.groupName
                elide: Text.ElideRight
                color: Theme.primary
                font.family: Theme.fontFamily
                font.pixelSize: Theme.headlineSize
                font.weight: Font.Bold
            }
            Text {
                objectName: "groupNumber"
                Layout.fillWidth: true
                text: "Group #" + card.groupIDText
                color: Theme.secondary
                font.family: Theme.fontFamily
                font.pixelSize: Theme.captionSize + 1
            }
        }

        IconButton {
            objectName: "retentionButton"
            symbol: "clock.arrow.circlepath"
            text: "Retention"
            helpText: "Configure retention settings"
            enabled: !card.disabled
            onClicked: card.openRetentionSettings()
        }
        IconButton {
            objectName: "photosButton"
            symbol: "photo.on.rectangle.angled"
            text: "Photos"
            helpText: "Add Photos library"
            enabled: !card.disabled
            onClicked: card.addPhotoLibrary()
        }
        IconButton {
            objectName: "folderButton"
            symbol: "folder.badge.plus"
            text: "Folder"
            helpText: "Add folder"
            enabled: !card.disabled
            onClicked: card.addFolder()
        }
    }

    InfoPanel {
        objectName: "noFoldersPanel"
        Layout.fillWidth: true
        visible: card.walkPaths.length === 0
        icon: "info.circle"
        title: "No folders added yet"
        message: "Click the buttons above to add a Photos library or folder to sync"
        type: "info"
    }

    Repeater {
        model: card.walkPaths
        FolderRow {
            required property string modelData
            Layout.fillWidth: true
            path: modelData
            iCloudSynced: card.iCloudSyncedPaths.indexOf(modelData) >= 0
            onOpenFolder: card.openFolder(modelData)
            onRemoveFolder: card.removeFolder(modelData)
        }
    }
}
