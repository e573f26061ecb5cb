import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Tarnwick

// One watched folder: its symbol and name, its sync state and two buttons
// that open it in the file manager or on the service's web site. The card
// under the pointer grows a little.
//
// Under the name a smaller line tells where the folder is when another one
// has the same name, and what the backend is doing while it syncs. A folder
// the backend reports an error for carries a red mark on its symbol. Resting
// the pointer on the symbol or the name shows the full path, the group, the
// backend's status line and the error.
CardView {
    id: card

    property string path
    property string name
    property real progress: 0
    property string icon: "internaldrive"
    property string webSiteName
    property bool hovered: false
    // The backend's status line and its error for the folder ("" for none).
    property string status
    property string error
    // The folder it sits in, when another folder has the same name ("").
    property string location
    property string groupName

    readonly property bool isSyncing: progress > 0.0 && progress < 1.0
    readonly property bool hasError: error !== ""
    // The step the backend is at: the status line's first line (an upload
    // adds the file under way below it).
    readonly property string stepText: status.split("\n")[0]
    readonly property string detailText: {
        const parts = []
        if (location !== "")
            parts.push(qsTr("in %1").arg(location))
        if (isSyncing && stepText !== "")
            parts.push(stepText)
        return parts.join("  \u00b7  ")
    }
    readonly property string toolTipText: {
        const lines = [path]
        if (groupName !== "")
            lines.push(qsTr("Group: %1").arg(groupName))
        if (status !== "")
            lines.push(status)
        if (hasError)
            lines.push(qsTr("Error: %1").arg(error))
        return lines.join("\n")
    }
    // The symbol and the name explain the folder; the buttons keep their own
    // help texts.
    readonly property bool showsToolTip: iconHover.hovered || titleHover.hovered

    signal openFolder()
    signal openWeb()
    // The pointer entered (true) or left (false) the card.
    signal hoverChanged(bool inside)
    // Tab past the card's last control (forward) or Shift+Tab from the card
    // itself (back): the list moves the focus to the next or previous card,
    // in the list's order whatever order its reused delegates are in.
    signal tabOut(bool forward)

    Keys.onBacktabPressed: card.tabOut(false)

    // Tab stops at the card itself (a screen reader reads it), then at its
    // two buttons.
    activeFocusOnTab: true
    Accessible.role: Accessible.ListItem
    Accessible.name: card.accessibleText
    Accessible.description: card.toolTipText
    // "<name>, <status word>, <progress>".
    readonly property string accessibleText: card.name + ", " + badge.statusText + ", "
                                             + Math.round(Math.max(0, Math.min(1, card.progress))
                                                          * 100) + "%"

    padding: 16
    scale: hovered ? 1.01 : 1.0
    Behavior on scale {
        NumberAnimation {
            duration: 150
            easing.type: Easing.InOutQuad
        }
    }

    onContainsPointerChanged: card.hoverChanged(containsPointer)

    RowLayout {
        Layout.fillWidth: true
        spacing: 10

        SymbolIcon {
            objectName: "cardIcon"
            name: card.icon
            size: 22
            color: Theme.accent

            HoverHandler {
                id: iconHover
            }

            // The error mark, on the symbol's lower right corner.
            Rectangle {
                objectName: "cardErrorMark"
                visible: card.hasError
                x: parent.width - width / 2 - 2
                y: parent.height - height / 2 - 2
                width: 14
                height: 14
                radius: 7
                color: Theme.controlBackground

                SymbolIcon {
                    anchors.centerIn: parent
                    name: "exclamationmark.triangle.fill"
                    size: 12
                    color: Theme.red
                }
            }
        }
        ColumnLayout {
            objectName: "cardTitle"
            Layout.fillWidth: true
            spacing: 2

            HoverHandler {
                id: titleHover
            }
            ToolTip.visible: card.showsToolTip || card.activeFocus
            ToolTip.text: card.toolTipText
            ToolTip.delay: 600

            Text {
                objectName: "cardName"
                Layout.fillWidth: true
                text: card.name
                elide: Text.ElideMiddle
                color: Theme.primary
                font.family: Theme.fontFamily
                font.pointSize: Theme.bodySize + 1
                font.weight: Font.DemiBold
            }
            Text {
                objectName: "cardDetail"
                Layout.fillWidth: true
                visible: text !== ""
                text: card.detailText
                elide: Text.ElideRight
                color: Theme.secondary
                font.family: Theme.fontFamily
                font.pointSize: Theme.captionSize + 1
            }
        }
        StatusBadge {
            id: badge
            objectName: "cardBadge"
            progress: card.progress
        }
        IconButton {
            objectName: "openFolderButton"
            symbol: "folder"
            padding: 5
            helpText: qsTr("Open folder")
            onClicked: card.openFolder()
        }
        IconButton {
            id: webButton
            objectName: "openWebButton"
            Keys.onTabPressed: card.tabOut(true)
            symbol: "network"
            padding: 5
            helpText: qsTr("Open in %1").arg(card.webSiteName)
            onClicked: card.openWeb()
        }
    }
}
