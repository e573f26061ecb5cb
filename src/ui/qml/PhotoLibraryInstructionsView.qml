import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Tarnwick

// What the user must do in Photos before a library can be synced: its
// originals have to be on this computer. "Back" returns to the groups;
// "I Have Downloaded Originals" goes on to pick the library.
Item {
    id: view
    objectName: "photoLibraryInstructionsView"

    signal cancel()
    signal continueRequested()

    readonly property var steps: [
        { title: qsTr("Open Photos App"),
          description: qsTr("Launch the Photos application on your Mac") },
        { title: qsTr("Open Settings"),
          description: qsTr("Click Photos in the menu bar, then select Settings...") },
        { title: qsTr("Enable Download Originals"),
          description: qsTr("In the iCloud tab, select \"Download Originals to this Mac\"") },
        { title: qsTr("Wait for Download"),
          description: qsTr("Wait for all photos and videos to finish downloading. You can check progress at the bottom of the Photos app window.") },
        { title: qsTr("Verify Completion"),
          description: qsTr("Ensure the status shows all items are downloaded before continuing") }
    ]

    implicitWidth: 420
    implicitHeight: 600

    // The instructions take the keyboard when they appear; Escape is "Back".
    // The first Tab goes to their own buttons, not round to the window's
    // first control.
    onVisibleChanged: if (visible) view.forceActiveFocus()
    Keys.onEscapePressed: view.cancel()
    Keys.onTabPressed: backButton.forceActiveFocus(Qt.TabFocusReason)
    Keys.onBacktabPressed: continueButton.forceActiveFocus(Qt.BacktabFocusReason)

    FollowFocus {
        flickable: flick
    }

    Flickable {
        id: flick
        objectName: "photoLibraryInstructionsScroll"
        anchors.top: parent.top
        anchors.left: parent.left
        anchors.right: parent.right
        anchors.bottom: buttons.top
        anchors.bottomMargin: 12
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
            spacing: 16

            Text {
                objectName: "photoLibraryInstructionsTitle"
                Layout.fillWidth: true
                text: qsTr("Before Adding Photos Library")
                wrapMode: Text.Wrap
                color: Theme.primary
                font.family: Theme.fontFamily
                font.pointSize: Theme.titleSize
                font.weight: Font.Bold
            }

            InfoPanel {
                objectName: "importantSetupPanel"
                Layout.fillWidth: true
                icon: "exclamationmark.triangle.fill"
                title: qsTr("Important Setup Required")
                message: qsTr("You must download all original photos to your Mac before syncing your Photos library.")
                type: "warning"
            }

            InfoPanel {
                objectName: "whyNecessaryPanel"
                Layout.fillWidth: true
                icon: "info.circle"
                title: qsTr("Why is this necessary?")
                message: qsTr("tarnwick needs access to the original, full-resolution files to sync them properly. If originals are not downloaded, only low-resolution previews will be synced.")
                type: "info"
            }

            ColumnLayout {
                objectName: "instructionSteps"
                Layout.fillWidth: true
                spacing: 12

                Repeater {
                    model: view.steps
                    InstructionStep {
                        required property int index
                        required property var modelData
                        objectName: "instructionStep" + (index + 1)
                        Layout.fillWidth: true
                        number: index + 1
                        title: modelData.title
                        description: modelData.description
                    }
                }
            }
        }
    }

    RowLayout {
        id: buttons
        anchors.left: parent.left
        anchors.right: parent.right
        anchors.bottom: parent.bottom
        anchors.margins: 16
        spacing: 12

        SettingsPlainButton {
            id: backButton
            objectName: "photoLibraryBackButton"
            text: qsTr("Back")
            onClicked: view.cancel()
        }
        Item { Layout.fillWidth: true }
        PrimaryButton {
            id: continueButton
            objectName: "photoLibraryContinueButton"
            text: qsTr("I Have Downloaded Originals")
            symbol: "arrow.right"
            onClicked: view.continueRequested()
        }
    }
}
