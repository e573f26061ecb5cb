import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Tarnwick

// A tab of the window: symbol and title, the selected one on a raised chip.
TabButton {
    id: tab

    property string symbol

    padding: 6
    font.family: Theme.fontFamily
    font.pixelSize: Theme.bodySize

    // Symbol and title centred in the tab. The two fillers share the room
    // left over, and add nothing to the tab's implicit width.
    contentItem: RowLayout {
        spacing: 0
        Item { Layout.fillWidth: true }
        SymbolIcon {
            Layout.alignment: Qt.AlignVCenter
            name: tab.symbol
            size: 14
            color: tab.checked ? Theme.accent : Theme.secondary
        }
        Text {
            Layout.alignment: Qt.AlignVCenter
            Layout.leftMargin: 6
            text: tab.text
            color: tab.checked ? Theme.primary : Theme.secondary
            font: tab.font
        }
        Item { Layout.fillWidth: true }
    }

    background: Rectangle {
        radius: 6
        color: tab.checked ? Theme.controlBackground : "transparent"
        border.width: tab.checked ? 1 : 0
        border.color: Theme.withOpacity(Theme.gray, 0.3)
    }
}
