import QtQuick
import QtQuick.Controls.Basic
import Tarnwick

// A borderless button with a symbol and optional text; helpText shows as a
// tooltip. Disabled, it is drawn at half opacity in the secondary colour.
// The pressed look (tint and shrink) is the same enabled or not.
Button {
    id: button

    property string symbol
    property string helpText
    property real symbolSize: 15
    readonly property color labelColor: enabled ? Theme.primary : Theme.secondary

    padding: 8
    scale: down ? 0.95 : 1.0
    font.family: Theme.fontFamily
    font.pixelSize: Theme.bodySize

    ToolTip.visible: hovered && helpText !== ""
    ToolTip.text: helpText
    ToolTip.delay: 600

    contentItem: Row {
        spacing: 5
        opacity: button.enabled ? 1.0 : 0.5

        SymbolIcon {
            anchors.verticalCenter: parent.verticalCenter
            visible: button.symbol !== ""
            name: button.symbol
            size: button.symbolSize
            color: button.labelColor
        }
        Text {
            anchors.verticalCenter: parent.verticalCenter
            visible: text !== ""
            text: button.text
            color: button.labelColor
            font: button.font
        }
    }

    background: Rectangle {
        objectName: "iconButtonBackground"
        radius: 6
        color: button.down ? Theme.withOpacity(Theme.gray, 0.2) : "transparent"
    }
}
