import QtQuick
import Tarnwick

// The keyboard focus mark: an outline in the focus colour just outside its
// parent, drawn while `shown` (the control has the keyboard focus). Controls
// take the focus only from the keyboard, so a control that Space or Enter
// would activate always carries this mark.
Rectangle {
    objectName: "focusRing"

    property bool shown: false

    anchors.fill: parent
    anchors.margins: -3
    radius: 9
    visible: shown
    color: "transparent"
    border.width: 2
    border.color: Theme.focusRing
}
