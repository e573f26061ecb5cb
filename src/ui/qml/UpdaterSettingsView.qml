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

    // A check box that only Tab focuses, with the focus ring, and that Enter
    // flips as Space does.
    component SettingCheckBox: CheckBox {
        id: box
        focusPolicy: Qt.TabFocus
        Keys.onReturnPressed: box.flipByKey()
        Keys.onEnterPressed: box.flipByKey()
        function flipByKey() {
            if (box.enabled) {
                box.toggle()
                box.toggled()
            }
        }
        Accessible.role: Accessible.CheckBox
        Accessible.name: box.text
        // The style's own colours are light ones: the box and its label
        // take the window's.
        palette.windowText: Theme.primary
        palette.text: Theme.primary
        palette.base: Theme.controlBackground
        palette.mid: Theme.secondary
        palette.highlight: Theme.accent
        FocusRing {
            shown: box.activeFocus
            radius: 6
        }
    }

    SettingCheckBox {
        objectName: "automaticallyChecksToggle"
        text: qsTr("Automatically check for updates")
        font.family: Theme.fontFamily
        font.pointSize: Theme.bodySize
        checked: view.checker.automaticallyChecksForUpdates
        onToggled: view.checker.automaticallyChecksForUpdates = checked
    }

    SettingCheckBox {
        objectName: "automaticallyDownloadsToggle"
        text: qsTr("Automatically download updates")
        font.family: Theme.fontFamily
        font.pointSize: Theme.bodySize
        enabled: view.checker.automaticallyChecksForUpdates
        checked: view.checker.automaticallyDownloadsUpdates
        onToggled: view.checker.automaticallyDownloadsUpdates = checked
    }

    Text {
        objectName: "lastUpdateCheckText"
        visible: !isNaN(view.checker.lastUpdateCheckDate.getTime())
        text: visible ? qsTr("Last checked: %1").arg(
                            Qt.formatDateTime(view.checker.lastUpdateCheckDate, "yyyy-MM-dd hh:mm"))
                      : ""
        font.family: Theme.fontFamily
        font.pointSize: Theme.captionSize
        color: Theme.secondary
    }
}
