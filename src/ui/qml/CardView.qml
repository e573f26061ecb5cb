pragma ComponentBehavior: Bound

import QtQuick
import QtQuick.Layouts
import Tarnwick

// A rounded card on the control background with a faint shadow below it. The
// content is stacked vertically inside the padding (use Layout.fillWidth to
// stretch a child across the card).
Item {
    id: card

    property real padding: 16
    default property alias content: column.data
    readonly property alias contentLayout: column
    // Whether the pointer is over the card (padding included).
    readonly property bool containsPointer: hoverHandler.hovered

    implicitWidth: column.implicitWidth + 2 * padding
    implicitHeight: column.implicitHeight + 2 * padding

    // The shadow: black at 0.05 opacity, 2 points down, softened over 4
    // points by a few widening layers that add up to that opacity.
    Repeater {
        model: 4
        Rectangle {
            required property int index
            x: -index
            y: 2 - index
            width: card.width + 2 * index
            height: card.height + 2 * index
            radius: 12 + index
            color: Qt.rgba(0, 0, 0, 0.05 / 4 * (4 - index) / 2.5)
        }
    }

    Rectangle {
        objectName: "cardBackground"
        anchors.fill: parent
        radius: 12
        color: Theme.controlBackground
    }

    HoverHandler {
        id: hoverHandler
    }

    // Drawn while the card itself has the keyboard focus (cards that take
    // it set activeFocusOnTab).
    FocusRing {
        shown: card.activeFocus
        radius: 14
    }

    ColumnLayout {
        id: column
        spacing: 8
        anchors.fill: parent
        anchors.margins: card.padding
    }
}
