import QtQuick
import QtQuick.Controls.Basic
import Tarnwick

// The quiet companion of PrimaryButton on the settings screens ("Cancel",
// "Back"): the label in the primary colour on an outlined control
// background, the same size and press feedback as the primary button.
Button {
    id: button

    leftPadding: 16
    rightPadding: 16
    topPadding: 8
    bottomPadding: 8
    opacity: down ? 0.8 : 1.0
    scale: down ? 0.98 : 1.0
    font.family: Theme.fontFamily
    font.pointSize: Theme.bodySize

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
    Accessible.name: button.text

    contentItem: Text {
        text: button.text
        horizontalAlignment: Text.AlignHCenter
        verticalAlignment: Text.AlignVCenter
        color: button.enabled ? Theme.primary : Theme.secondary
        font: button.font
    }

    background: Rectangle {
        implicitHeight: 30
        radius: 8
        color: button.down ? Theme.withOpacity(Theme.gray, 0.2) : Theme.controlBackground
        border.width: 1
        border.color: Theme.separator

        FocusRing {
            shown: button.activeFocus
            radius: 10
        }
    }
}
