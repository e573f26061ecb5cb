import QtQuick
import QtQuick.Controls.Basic
import Tarnwick

// A borderless button with a symbol and optional text; helpText shows as a
// tooltip. Disabled, it is drawn at half opacity in the secondary colour.
// The pressed look (tint and shrink) is the same enabled or not. Without text
// (an icon-only button) the help text is its name for screen readers.
Button {
    id: button

    property string symbol
    property string helpText
    property real symbolSize: 15
    readonly property color labelColor: enabled ? Theme.primary : Theme.secondary

    padding: 8
    // The keyboard: only Tab gives the focus (a click does not), so the
    // control that Space or Enter activates always shows its focus ring.
    focusPolicy: Qt.TabFocus
    Keys.onReturnPressed: button.activateByKey()
    Keys.onEnterPressed: button.activateByKey()
    function activateByKey() {
        if (button.enabled)
            button.clicked()
    }

    Accessible.role: Accessible.Button
    Accessible.name: button.text !== "" ? button.text : button.helpText
    Accessible.description: button.helpText
    scale: down ? 0.95 : 1.0
    font.family: Theme.fontFamily
    font.pointSize: Theme.bodySize

    ToolTip.visible: (hovered || visualFocus) && helpText !== ""
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

        FocusRing {
            shown: button.activeFocus
            radius: 8
        }
    }
}
