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

    // The number of days has the keyboard when the screen opens (once it is
    // in its place; Qt 6.4's type information lists Qt.callLater as a plain
    // property, so the linter cannot tell that it is callable); Escape
    // anywhere on the screen is its "Cancel".
    function takeFocus() {
        daysField.forceActiveFocus()
    }
    Component.onCompleted: Qt.callLater(takeFocus) // qmllint disable type
    Keys.onEscapePressed: view.cancel()

    RetentionEditor {
        id: editor
        group: view.group
    }

    component SectionTitle: Text {
        Layout.fillWidth: true
        color: Theme.primary
        font.family: Theme.fontFamily
        font.pointSize: Theme.headlineSize
        font.weight: Font.DemiBold
    }
    component Line: RowLayout {
        id: line
        property string label
        property string value
        // The width of the labels' column, so that the values line up.
        property real labelWidth: 0
        Layout.fillWidth: true
        spacing: 6
        Text {
            Layout.preferredWidth: line.labelWidth
            Layout.minimumWidth: line.labelWidth
            text: line.label
            color: Theme.secondary
            font.family: Theme.fontFamily
            font.pointSize: Theme.bodySize
        }
        Text {
            objectName: line.objectName + "Value"
            Layout.fillWidth: true
            text: line.value
            elide: Text.ElideRight
            color: Theme.primary
            font.family: Theme.fontFamily
            font.pointSize: Theme.bodySize
        }
    }

    // The widest label of the last runs' lines: their values start in one
    // column after it.
    readonly property real labelColumnWidth: {
        let widest = 0
        for (const label of [lastRunLabel, filesRemovedLabel, spaceFreedLabel,
                             initialCleanupLabel, orphansRemovedLabel])
            widest = Math.max(widest, Math.ceil(label.advanceWidth))
        return widest
    }
    component LabelMetrics: TextMetrics {
        font.family: Theme.fontFamily
        font.pointSize: Theme.bodySize
    }
    LabelMetrics {
        id: lastRunLabel
        text: qsTr("Last run:")
    }
    LabelMetrics {
        id: filesRemovedLabel
        text: qsTr("Files removed:")
    }
    LabelMetrics {
        id: spaceFreedLabel
        text: qsTr("Space freed:")
    }
    LabelMetrics {
        id: initialCleanupLabel
        text: qsTr("Initial cleanup:")
    }
    LabelMetrics {
        id: orphansRemovedLabel
        text: qsTr("Orphans removed:")
    }

    FollowFocus {
        flickable: flick
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
                    helpText: qsTr("Back")
                    onClicked: view.cancel()
                }
                Text {
                    objectName: "retentionTitle"
                    Layout.fillWidth: true
                    text: qsTr("Retention Settings: %1").arg(view.group.name !== undefined ? view.group.name : "")
                    elide: Text.ElideRight
                    color: Theme.primary
                    font.family: Theme.fontFamily
                    font.pointSize: Theme.titleSize - 3
                    font.weight: Font.Bold
                }
            }

            ColumnLayout {
                objectName: "automaticCleanupSection"
                Layout.fillWidth: true
                spacing: 12

                SectionTitle { text: qsTr("Automatic Cleanup") }

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
                        id: olderThanLabel
                        text: qsTr("Delete files older than")
                        color: Theme.primary
                        font.family: Theme.fontFamily
                        font.pointSize: Theme.bodySize
                    }
                    TextField {
                        id: daysField
                        objectName: "retentionDaysField"
                        Layout.preferredWidth: 80
                        text: editor.fieldText
                        enabled: !view.isUpdating
                        inputMethodHints: Qt.ImhFormattedNumbersOnly
                        palette.text: Theme.primary
                        selectionColor: Theme.accentFill
                        selectedTextColor: "white"
                        horizontalAlignment: TextInput.AlignRight
                        font.family: Theme.fontFamily
                        font.pointSize: Theme.bodySize
                        color: enabled ? Theme.primary : Theme.secondary
                        onTextEdited: editor.setTypedText(text)
                        Accessible.role: Accessible.EditableText
                        Accessible.name: olderThanLabel.text
                        background: Rectangle {
                            implicitHeight: 26
                            radius: 5
                            color: Theme.controlBackground
                            border.width: daysField.activeFocus ? 2 : 1
                            border.color: daysField.activeFocus ? Theme.accent : Theme.separator

                            FocusRing {
                                shown: daysField.activeFocus
                            }
                        }
                    }
                    Text {
                        text: qsTr("days")
                        color: Theme.primary
                        font.family: Theme.fontFamily
                        font.pointSize: Theme.bodySize
                    }
                    Item { Layout.fillWidth: true }
                }
            }

            ColumnLayout {
                objectName: "lastRetentionRunSection"
                Layout.fillWidth: true
                spacing: 12

                SectionTitle { text: qsTr("Last Retention Run") }

                Text {
                    objectName: "noRetentionRunText"
                    visible: !editor.hasLastRun
                    text: qsTr("No retention run yet")
                    color: Theme.secondary
                    font.family: Theme.fontFamily
                    font.pointSize: Theme.bodySize
                }

                ColumnLayout {
                    Layout.fillWidth: true
                    visible: editor.hasLastRun
                    spacing: 4

                    Line {
                        objectName: "lastRunLine"
                        label: lastRunLabel.text
                        labelWidth: view.labelColumnWidth
                        value: editor.lastRunText
                    }
                    Line {
                        objectName: "filesRemovedLine"
                        visible: editor.filesRemovedText !== ""
                        label: filesRemovedLabel.text
                        labelWidth: view.labelColumnWidth
                        value: editor.filesRemovedText
                    }
                    Line {
                        objectName: "spaceFreedLine"
                        visible: editor.spaceFreedText !== ""
                        label: spaceFreedLabel.text
                        labelWidth: view.labelColumnWidth
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
                        label: initialCleanupLabel.text
                        labelWidth: view.labelColumnWidth
                        value: editor.orphanScanTimeText
                    }
                    Line {
                        objectName: "orphansRemovedLine"
                        visible: editor.orphansRemovedText !== ""
                        label: orphansRemovedLabel.text
                        labelWidth: view.labelColumnWidth
                        value: editor.orphansRemovedText
                    }
                    Text {
                        objectName: "orphanScanCaption"
                        text: qsTr("One-time scan when retention was first enabled")
                        color: Theme.secondary
                        font.family: Theme.fontFamily
                        font.pointSize: Theme.captionSize + 1
                    }
                }
            }

            RowLayout {
                Layout.fillWidth: true
                spacing: 12

                Item { Layout.fillWidth: true }
                SettingsPlainButton {
                    objectName: "retentionCancelButton"
                    text: qsTr("Cancel")
                    onClicked: view.cancel()
                }
                PrimaryButton {
                    objectName: "retentionSaveButton"
                    enabled: !view.isUpdating
                    busy: view.isUpdating
                    symbol: view.isUpdating ? "" : "checkmark"
                    text: view.isUpdating ? qsTr("Saving...") : qsTr("Save")
                    onClicked: view.save(editor.retentionDays)
                }
            }
        }
    }
}
