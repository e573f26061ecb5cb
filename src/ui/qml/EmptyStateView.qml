import QtQuick
import Tarnwick

// A centred placeholder for a list with nothing in it: a large symbol, a
// title and a short message.
Item {
    id: view

    property string icon
    property string title
    property string message

    implicitWidth: column.implicitWidth + 64
    implicitHeight: column.implicitHeight + 64

    Column {
        id: column
        anchors.centerIn: parent
        width: Math.max(0, view.width - 64)
        spacing: 12

        SymbolIcon {
            objectName: "emptyStateIcon"
            anchors.horizontalCenter: parent.horizontalCenter
            name: view.icon
            size: 48
            color: Theme.secondary
        }
        Text {
            objectName: "emptyStateTitle"
            width: parent.width
            horizontalAlignment: Text.AlignHCenter
            wrapMode: Text.Wrap
            text: view.title
            color: Theme.primary
            font.family: Theme.fontFamily
            font.pointSize: Theme.headlineSize
            font.weight: Font.DemiBold
        }
        Text {
            objectName: "emptyStateMessage"
            width: parent.width
            horizontalAlignment: Text.AlignHCenter
            wrapMode: Text.Wrap
            text: view.message
            color: Theme.secondary
            font.family: Theme.fontFamily
            font.pointSize: Theme.bodySize
        }
    }
}
