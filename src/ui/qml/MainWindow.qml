import QtQuick
import Tarnwick

// The root of the client's window: the window content on the window
// background, with a thin frame line for the frameless popup.
Rectangle {
    id: root
    objectName: "mainWindowRoot"

    property alias statusGracePeriod: content.statusGracePeriod

    color: Theme.windowBackground
    border.width: AppController.framed ? 0 : 1
    border.color: Theme.separator
    implicitWidth: content.implicitWidth + 10
    implicitHeight: 640

    MenuBarView {
        id: content
        focus: true
        anchors.fill: parent
        anchors.margins: root.border.width
    }
}
