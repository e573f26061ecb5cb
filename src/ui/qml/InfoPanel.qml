import QtQuick
import Tarnwick

// A notice: symbol, title and message on a tinted, outlined panel. The type
// ("info", "warning", "error" or "success") picks the colour.
Rectangle {
    id: panel

    property string icon: "info.circle.fill"
    property string title
    property string message
    property string type: "info"

    readonly property color typeColor: type === "warning" ? Theme.orange
                                        : type === "error" ? Theme.red
                                        : type === "success" ? Theme.green : Theme.blue

    implicitWidth: 12 + symbol.width + 10 + Math.max(titleText.implicitWidth,
                                                      messageText.implicitWidth) + 12
    implicitHeight: Math.max(symbol.height, texts.implicitHeight) + 24
    radius: 8
    color: Theme.withOpacity(typeColor, 0.1)
    border.width: 1
    border.color: Theme.withOpacity(typeColor, 0.3)

    SymbolIcon {
        id: symbol
        objectName: "infoPanelIcon"
        x: 12
        y: 12
        name: panel.icon
        size: 18
        color: panel.typeColor
    }

    Column {
        id: texts
        x: symbol.x + symbol.width + 10
        y: 12
        width: panel.width - x - 12
        spacing: 2

        Text {
            id: titleText
            objectName: "infoPanelTitle"
            width: parent.width
            visible: text !== ""
            text: panel.title
            wrapMode: Text.Wrap
            color: Theme.primary
            font.family: Theme.fontFamily
            font.pointSize: Theme.bodySize
            font.weight: Font.DemiBold
        }
        Text {
            id: messageText
            objectName: "infoPanelMessage"
            width: parent.width
            visible: text !== ""
            text: panel.message
            wrapMode: Text.Wrap
            color: Theme.primary
            font.family: Theme.fontFamily
            font.pointSize: Theme.bodySize - 1
        }
    }
}
