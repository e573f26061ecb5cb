import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Tarnwick

// One group's retention: how many days deleted files are kept, and what the
// last clean-up did. It edits a copy; "Save" hands the edited number of days
// back (null when the group had none and none was typed), "Cancel" and the
// back button leave without sending anything.
Item {
    id: view
    objectName: "retentionSettingsView"

    // The group, as SettingsController.selectedGroup gives it.
    property var group: ({})
    property bool isUpdating: false

    signal cancel()
    signal save(var retentionDays)

    readonly property alias editor: editor

    implicitWidth: 420
    implicitHeight: 520

    RetentionEditor {
        id: editor
        group: view.group
    }

    component SectionTitle: Text {
        Layout.fillWidth: true
        color: Theme.primary
        font.family: Theme.fontFamily
        font.pixelSize: Theme.headlineSize
        font.weight: Font.DemiBold
    }
    component Line: RowLayout {
        id: line
        property string label
        property string value
        Layout.fillWidth: true
        spacing: 6
        Text {
            text: line.label
            color: Theme.secondary
            font.family: Theme.fontFamily
            font.pixelSize: Theme.bodySize
        }
        Text {
            objectName: line.objectName + "Value"
            Layout.fillWidth: true
            text: line.value
            elide: Text.ElideRight
            color: Theme.primary
            font.family: Theme.fontFamily
            font.pixelSize: Theme.bodySize
        }
    }

    Flickable {
        id: flick
        anchors.fill: parent
        contentWidth: width
        contentHeight: content.implicitHeight + 32
        clip: true
        boundsBehavior: Flickable.StopAtBounds
        ScrollBar.vertical: ScrollBar { policy: ScrollBar.AsNeeded }

        ColumnLayout {
            id: content
            x: 16
            y: 16
            width: flick.width - 32
            spacing: 24

            RowLayout {
                Layout.fillWidth: true
                spacing: 8

                IconButton {
                    objectName: "retentionBackButton"
                    symbol: "chevron.left"
                    helpText: "Back"
                    onClicked: view.cancel()
                }
                Text {
                    objectName: "retentionTitle"
                    Layout.fillWidth: true
                    text: "Retention Settings: " + (view.group.name !== undefined ? view.group.name : "")
                    elide: Text.ElideRight
                    color: Theme.primary
                    font.family: Theme.fontFamily
                    font.pixelSize: Theme.titleSize - 3
                    font.weight: Font.Bold
                }
            }

            ColumnLayout {
                objectName: "automaticCleanupSection"
                Layout.fillWidth: true
                spacing: 12

                SectionTitle { text: "Automatic Cleanup" }

                InfoPanel {
                    objectName: "retentionStatusPanel"
                    Layout.fillWidth: true
                    icon: editor.statusIcon
                    title: editor.statusTitle
                    message: editor.statusMessage
                    type: editor.isActive ? "info" : "success"
                }

                RowLayout {
                    Layout.fillWidth: true
                    spacing: 8

                    Text {
                        text: "Delete files older than"
                        color: Theme.primary
                        font.family: Theme.fontFamily
                        font.pixelSize: Theme.bodySize
                    }
                    TextField {
                        id: daysField
                        objectName: "retentionDaysField"
                        Layout.preferredWidth: 80
                        text: editor.fieldText
                        enabled: !view.isUpdating
                        inputMethodHints: Qt.ImhFormattedNumbersOnly
                        horizontalAlignment: TextInput.AlignRight
                        font.family: Theme.fontFamily
                        font.pixelSize: Theme.bodySize
                        color: enabled ? Theme.primary : Theme.secondary
                        onTextEdited: editor.setTypedText(text)
                        background: Rectangle {
                            implicitHeight: 26
                            radius: 5
                            color: Theme.controlBackground
                            border.width: daysField.activeFocus ? 2 : 1
                            border.color: daysField.activeFocus ? Theme.accent : Theme.separator
                        }
                    }
                    Text {
                        text: "days"
                        color: Theme.primary
                        font.family: Theme.fontFamily
                        font.pixelSize: Theme.bodySize
                    }
                    Item { Layout.fillWidth: true }
                }
            }

            ColumnLayout {
                objectName: "lastRetentionRunSection"
                Layout.fillWidth: true
                spacing: 12

                SectionTitle { text: "Last Retention Run" }

                Text {
                    objectName: "noRetentionRunText"
                    visible: !editor.hasLastRun
                    text: "No retention run yet"
                    color: Theme.secondary
                    font.family: Theme.fontFamily
                    font.pixelSize: Theme.bodySize
                }

                ColumnLayout {
                    Layout.fillWidth: true
                    visible: editor.hasLastRun
                    spacing: 4

                    Line {
                        objectName: "lastRunLine"
                        label: "Last run:"
                        value: editor.lastRunText
                    }
                    Line {
                        objectName: "filesRemovedLine"
                        visible: editor.filesRemovedText !== ""
                        label: "Files removed:"
                        value: editor.filesRemovedText
                    }
                    Line {
                        objectName: "spaceFreedLine"
                        visible: editor.spaceFreedText !== ""
                        label: "Space freed:"
                        value: editor.spaceFreedText
                    }
                }

                ColumnLayout {
                    objectName: "orphanScanLines"
                    Layout.fillWidth: true
                    visible: editor.hasOrphanScan
                    spacing: 4

                    Line {
                        objectName: "initialCleanupLine"
                        label: "Initial cleanup:"
                        value: editor.orphanScanTimeText
                    }
                    Line {
                        objectName: "orphansRemovedLine"
                        visible: editor.orphansRemovedText !== ""
                        label: "Orphans removed:"
                        value: editor.orphansRemovedText
                    }
                    Text {
                        objectName: "orphanScanCaption"
                        text: "One-time scan when retention was first enabled"
                        color: Theme.secondary
                        font.family: Theme.fontFamily
                        font.pixelSize: Theme.captionSize + 1
                    }
                }
            }

            RowLayout {
                Layout.fillWidth: true
                spacing: 12

                Item { Layout.fillWidth: true }
                SettingsPlainButton {
                    objectName: "retentionCancelButton"
                    text: "Cancel"
                    onClicked: view.cancel()
                }
                PrimaryButton {
                    objectName: "retentionSaveButton"
                    enabled: !view.isUpdating
                    busy: view.isUpdating
                    symbol: view.isUpdating ? "" : "checkmark"
                    text: view.isUpdating ? "Saving..." : "Save"
                    onClicked: view.save(editor.retentionDays)
                }
            }
        }
    }
}
