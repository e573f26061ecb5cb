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
            parts.push("in " + location)
        if (isSyncing && stepText !== "")
            parts.push(stepText)
        return parts.join("  \u00b7  ")
    }
    readonly property string toolTipText: {
        const lines = [path]
        if (groupName !== "")
            lines.push("Group: " + groupName)
        if (status !== "")
            lines.push(status)
        if (hasError)
            lines.push("Error: " + error)
        return lines.join("\n")
    }
    // The symbol and the name explain the folder; the buttons keep their own
    // help texts.
    readonly property bool showsToolTip: iconHover.hovered || titleHover.hovered

    signal openFolder()
    signal openWeb()
    // The pointer entered (true) or left (false) the card.
    signal hoverChanged(bool inside)

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
            ToolTip.visible: card.showsToolTip
            ToolTip.text: card.toolTipText
            ToolTip.delay: 600

            Text {
                objectName: "cardName"
                Layout.fillWidth: true
                text: card.name
                elide: Text.ElideMiddle
                color: Theme.primary
                font.family: Theme.fontFamily
                font.pixelSize: Theme.bodySize + 1
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
                font.pixelSize: Theme.captionSize + 1
            }
        }
        StatusBadge {
            objectName: "cardBadge"
            progress: card.progress
        }
        IconButton {
            objectName: "openFolderButton"
            symbol: "folder"
            padding: 5
            helpText: "Open folder"
            onClicked: card.openFolder()
        }
        IconButton {
            objectName: "openWebButton"
            symbol: "network"
            padding: 5
            helpText: "Open in " + card.webSiteName
            onClicked: card.openWeb()
        }
    }
}
