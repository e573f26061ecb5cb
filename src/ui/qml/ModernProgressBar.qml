import QtQuick
import Tarnwick

// A slim bar: a gray track across the full width and an accent fill whose
// width follows progress (0.0 to 1.0), animated.
Item {
    id: bar

    property real progress: 0
    readonly property real clampedProgress: Math.max(0, Math.min(1, progress))

    implicitWidth: 200
    implicitHeight: 8

    Rectangle {
        objectName: "progressTrack"
        width: bar.width
        height: 8
        radius: 4
        color: Theme.withOpacity(Theme.gray, 0.2)
    }
    Rectangle {
        objectName: "progressFill"
        width: bar.clampedProgress * bar.width
        height: 8
        radius: 4
        color: Theme.accent

        Behavior on width {
            NumberAnimation {
                duration: 300
                easing.type: Easing.InOutQuad
            }
        }
    }
}
