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
    // Tab (forward) or Shift+Tab pressed on one of the card's controls: the
    // list decides whether the focus moves on to another card.
    signal tabPressed(var event, bool forward)

    padding: 16

    // The name takes the room it needs: when it and the three labelled
    // buttons do not fit side by side, the buttons show their symbols only
    // (their help texts still name them).
    readonly property real labelledButtonsWidth: retentionLabel.advanceWidth
                                                 + photosLabel.advanceWidth
                                                 + folderLabel.advanceWidth
                                                 + 3 * (2 * 8 + 15 + 5) + 3 * header.spacing
    readonly property bool compactButtons: nameMetrics.advanceWidth + labelledButtonsWidth
                                           > header.width
    TextMetrics {
        id: nameMetrics
        font: groupNameText.font
        text: card.groupName
    }
    TextMetrics {
        id: retentionLabel
        font: retentionButton.font
        text: qsTr("Retention")
    }
    TextMetrics {
        id: photosLabel
        font: photosButton.font
        text: qsTr("Photos")
    }
    TextMetrics {
        id: folderLabel
        font: folderButton.font
        text: qsTr("Folder")
    }

    RowLayout {
        id: header
        Layout.fillWidth: true
        spacing: 4

        ColumnLayout {
            Layout.fillWidth: true
            Layout.alignment: Qt.AlignVCenter
            spacing: 2

            Text {
                id: groupNameText
                objectName: "groupName"
                Layout.fillWidth: true
                text: card.groupName
                elide: Text.ElideRight
                // The full name, also when it had to be cut short.
                ToolTip.visible: nameHover.hovered
                ToolTip.text: card.groupName
                ToolTip.delay: 600
                HoverHandler {
                    id: nameHover
                }
                color: Theme.primary
                font.family: Theme.fontFamily
                font.pointSize: Theme.headlineSize
                font.weight: Font.Bold
            }
            Text {
                objectName: "groupNumber"
                Layout.fillWidth: true
                text: qsTr("Group #%1").arg(card.groupIDText)
                color: Theme.secondary
                font.family: Theme.fontFamily
                font.pointSize: Theme.captionSize + 1
            }
        }

        IconButton {
            id: retentionButton
            objectName: "retentionButton"
            symbol: "clock.arrow.circlepath"
            text: card.compactButtons ? "" : retentionLabel.text
            helpText: qsTr("Configure retention settings")
            enabled: !card.disabled
            onClicked: card.openRetentionSettings()
            Keys.onTabPressed: event => card.tabPressed(event, true)
            Keys.onBacktabPressed: event => card.tabPressed(event, false)
        }
        IconButton {
            id: photosButton
            objectName: "photosButton"
            symbol: "photo.on.rectangle.angled"
            text: card.compactButtons ? "" : photosLabel.text
            helpText: qsTr("Add Photos library")
            enabled: !card.disabled
            onClicked: card.addPhotoLibrary()
            Keys.onTabPressed: event => card.tabPressed(event, true)
            Keys.onBacktabPressed: event => card.tabPressed(event, false)
        }
        IconButton {
            id: folderButton
            objectName: "folderButton"
            symbol: "folder.badge.plus"
            text: card.compactButtons ? "" : folderLabel.text
            helpText: qsTr("Add folder")
            enabled: !card.disabled
            onClicked: card.addFolder()
            Keys.onTabPressed: event => card.tabPressed(event, true)
            Keys.onBacktabPressed: event => card.tabPressed(event, false)
        }
    }

    InfoPanel {
        objectName: "noFoldersPanel"
        Layout.fillWidth: true
        visible: card.walkPaths.length === 0
        icon: "info.circle"
        title: qsTr("No folders added yet")
        message: qsTr("Click the buttons above to add a Photos library or folder to sync")
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
            onTabPressed: (event, forward) => card.tabPressed(event, forward)
        }
    }
}
