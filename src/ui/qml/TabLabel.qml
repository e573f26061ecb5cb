import QtQuick
import QtQuick.Controls.Basic
import Tarnwick

// A tab of the window: symbol and title, the selected one on a raised chip.
TabButton {
    id: tab

    property string symbol

    padding: 6
    font.family: Theme.fontFamily
    font.pixelSize: Theme.bodySize

    contentItem: Item {
        implicitWidth: row.implicitWidth
        implicitHeight: row.implicitHeight
        Row {
            id: row
            anchors.centerIn: parent
            spacing: 6
            SymbolIcon {
                anchors.verticalCenter: parent.verticalCenter
                name: tab.symbol
                size: 14
                color: tab.checked ? Theme.accent : Theme.secondary
            }
            Text {
                anchors.verticalCenter: parent.verticalCenter
                text: tab.text
                color: tab.checked ? Theme.primary : Theme.secondary
                font: tab.font
            }
        }
    }

    background: Rectangle {
        radius: 6
        color: tab.checked ? Theme.controlBackground : "transparent"
        border.width: tab.checked ? 1 : 0
        border.color: Theme.withOpacity(Theme.gray, 0.3)
    }
}
