import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Tarnwick

// A tab of the window: symbol and title, the selected one on a raised chip.
TabButton {
    id: tab

    property string symbol

    padding: 6

    // Only Tab gives a tab the keyboard focus; Space or Enter then selects it.
    focusPolicy: Qt.TabFocus
    Keys.onReturnPressed: tab.selectByKey()
    Keys.onEnterPressed: tab.selectByKey()
    function selectByKey() {
        if (!tab.checked) {
            tab.checked = true
            tab.clicked()
        }
    }
    Accessible.role: Accessible.PageTab
    Accessible.name: tab.text
    font.family: Theme.fontFamily
    font.pointSize: Theme.bodySize

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
            // On the tab bar's tint, the secondary colour made readable.
            color: tab.checked ? Theme.primary
                               : Theme.textOn(Theme.secondary,
                                              Theme.over(Theme.withOpacity(Theme.gray, 0.15),
                                                         Theme.windowBackground))
            font: tab.font
        }
        Item { Layout.fillWidth: true }
    }

    background: Rectangle {
        radius: 6
        color: tab.checked ? Theme.controlBackground : "transparent"
        border.width: tab.checked ? 1 : 0
        border.color: Theme.withOpacity(Theme.gray, 0.3)

        FocusRing {
            shown: tab.activeFocus
            radius: 8
        }
    }
}
