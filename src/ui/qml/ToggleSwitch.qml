import QtQuick
import QtQuick.Controls.Basic
import Tarnwick

// An on/off switch: a capsule filled with the accent colour when on, gray
// when off, with a white knob, and its label on the right.
Switch {
    id: control

    spacing: 8

    // Only Tab gives the switch the keyboard focus; Space or Enter then
    // flips it.
    focusPolicy: Qt.TabFocus
    Keys.onReturnPressed: control.flipByKey()
    Keys.onEnterPressed: control.flipByKey()
    function flipByKey() {
        if (control.enabled) {
            control.toggle()
            control.toggled()
        }
    }
    Accessible.role: Accessible.CheckBox
    Accessible.name: control.text
    font.family: Theme.fontFamily
    font.pointSize: Theme.bodySize - 1

    indicator: Rectangle {
        implicitWidth: 32
        implicitHeight: 18
        x: control.leftPadding
        y: control.topPadding + (control.availableHeight - height) / 2
        radius: height / 2
        color: control.checked ? Theme.accent : Theme.withOpacity(Theme.gray, 0.35)
        opacity: control.enabled ? 1.0 : 0.5

        FocusRing {
            shown: control.activeFocus
            radius: height / 2 + 3
        }

        Behavior on color {
            ColorAnimation {
                duration: 150
            }
        }

        Rectangle {
            width: 14
            height: 14
            radius: 7
            y: 2
            x: control.checked ? parent.width - width - 2 : 2
            color: "white"
            border.width: 1
            border.color: Theme.withOpacity(Theme.gray, 0.4)

            Behavior on x {
                NumberAnimation {
                    duration: 150
                    easing.type: Easing.InOutQuad
                }
            }
        }
    }

    contentItem: Text {
        leftPadding: control.indicator.width + control.spacing
        verticalAlignment: Text.AlignVCenter
        text: control.text
        font: control.font
        color: Theme.primary
        opacity: control.enabled ? 1.0 : 0.5
    }
}
