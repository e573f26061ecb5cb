import QtQuick
import QtQuick.Layouts
import Tarnwick

// One watched folder: its symbol and name, its sync state and two buttons
// that open it in the file manager or on the service's web site. The card
// under the pointer grows a little.
CardView {
    id: card

    property string path
    property string name
    property real progress: 0
    property string icon: "internaldrive"
    property string webSiteName
    property bool hovered: false

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
        }
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
