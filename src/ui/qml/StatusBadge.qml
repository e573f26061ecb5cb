import QtQuick
import Tarnwick

// The sync state of a folder as a small capsule: "Synced" at 1.0 and above,
// "Pending" at 0.0 and below, "Syncing" in between.
Rectangle {
    id: badge

    property real progress: 0

    readonly property string statusText: progress >= 1.0 ? qsTr("Synced")
                                          : progress > 0.0 ? qsTr("Syncing") : qsTr("Pending")
    readonly property string statusSymbol: progress >= 1.0 ? "checkmark.circle.fill"
                                            : progress > 0.0 ? "arrow.triangle.2.circlepath"
                                                             : "clock.fill"
    readonly property color statusColor: progress > 0.0 ? Theme.accent : Theme.gray

    implicitWidth: row.implicitWidth + 16
    implicitHeight: row.implicitHeight + 8
    radius: height / 2
    color: Theme.withOpacity(statusColor, 0.15)

    Row {
        id: row
        anchors.centerIn: parent
        spacing: 6

        SymbolIcon {
            objectName: "statusBadgeIcon"
            anchors.verticalCenter: parent.verticalCenter
            name: badge.statusSymbol
            size: 12
            color: badge.statusColor
        }
        Text {
            objectName: "statusBadgeText"
            anchors.verticalCenter: parent.verticalCenter
            text: badge.statusText
            color: badge.statusColor
            font.family: Theme.fontFamily
            font.pointSize: Theme.captionSize + 1
            font.weight: Font.DemiBold
        }
    }
}
