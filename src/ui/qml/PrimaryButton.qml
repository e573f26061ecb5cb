import QtQuick
import QtQuick.Controls.Basic
import Tarnwick

// The prominent action of a screen: white label on the accent colour (gray
// when disabled). Optional symbol after the text, and a small spinner before
// it while busy.
Button {
    id: button

    property string symbol
    property bool busy: false

    // The style follows the enabled flag; the look while pressed does not.
    readonly property bool styleEnabled: enabled

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

    leftPadding: 16
    rightPadding: 16
    topPadding: 8
    bottomPadding: 8
    opacity: down ? 0.8 : 1.0
    scale: down ? 0.98 : 1.0
    font.family: Theme.fontFamily
    font.pointSize: Theme.bodySize
    font.weight: Font.DemiBold

    contentItem: Row {
        spacing: 6

        // A small turning arrow while busy.
        SymbolIcon {
            objectName: "primaryButtonSpinner"
            anchors.verticalCenter: parent.verticalCenter
            visible: button.busy
            name: "arrow.clockwise"
            size: 14
            color: "white"
            RotationAnimator on rotation {
                running: button.busy
                from: 0
                to: 360
                duration: 1000
                loops: Animation.Infinite
            }
        }
        Text {
            anchors.verticalCenter: parent.verticalCenter
            text: button.text
            color: "white"
            font: button.font
        }
        SymbolIcon {
            anchors.verticalCenter: parent.verticalCenter
            visible: button.symbol !== ""
            name: button.symbol
            size: 16
            color: "white"
        }
    }

    background: Rectangle {
        objectName: "primaryButtonBackground"
        implicitHeight: 30
        radius: 8
        color: button.styleEnabled ? Theme.accentFill : Theme.gray

        FocusRing {
            shown: button.activeFocus
            radius: 10
        }
    }
}
