import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Tarnwick

// One watched folder of a group: its symbol (a photo for a Photos library's
// originals folder), the path, a badge when iCloud manages it, and the
// buttons to open it and to stop watching it.
Rectangle {
    id: row
    objectName: "folderRow"

    property string path
    // Whether iCloud manages the folder (the screen asks the file system).
    property bool iCloudSynced: false

    signal openFolder()
    signal removeFolder()
    // Tab (forward) or Shift+Tab pressed on one of the row's buttons.
    signal tabPressed(var event, bool forward)

    readonly property string symbol: path.indexOf("/originals") >= 0 ? "photo.on.rectangle"
                                                                    : "folder.fill"

    implicitHeight: layout.implicitHeight + 12
    implicitWidth: layout.implicitWidth + 20
    radius: 8
    color: Theme.withOpacity(Theme.gray, 0.08)

    RowLayout {
        id: layout
        anchors.fill: parent
        anchors.leftMargin: 10
        anchors.rightMargin: 4
        anchors.topMargin: 6
        anchors.bottomMargin: 6
        spacing: 8

        SymbolIcon {
            objectName: "folderSymbol"
            Layout.alignment: Qt.AlignVCenter
            name: row.symbol
            size: 16
            color: Theme.accent
        }
        Text {
            objectName: "folderPath"
            Layout.fillWidth: true
            Layout.alignment: Qt.AlignVCenter
            text: row.path
            elide: Text.ElideMiddle
            color: Theme.primary
            font.family: Theme.fontFamily
            font.pointSize: Theme.bodySize - 1

            ToolTip.visible: pathHover.hovered && truncated
            ToolTip.text: row.path
            HoverHandler { id: pathHover }
        }
        SymbolIcon {
            id: iCloudBadge
            objectName: "iCloudBadge"
            Layout.alignment: Qt.AlignVCenter
            visible: row.iCloudSynced
            name: "exclamationmark.icloud.fill"
            size: 16
            color: Theme.orange

            readonly property string helpText: qsTr("This folder is synced with iCloud")
            ToolTip.visible: badgeHover.hovered
            ToolTip.text: helpText
            HoverHandler { id: badgeHover }
        }
        IconButton {
            objectName: "openFolderButton"
            Layout.alignment: Qt.AlignVCenter
            symbol: "arrow.up.right.square"
            symbolSize: 14
            padding: 5
            helpText: qsTr("Open folder")
            onClicked: row.openFolder()
            Keys.onTabPressed: event => row.tabPressed(event, true)
            Keys.onBacktabPressed: event => row.tabPressed(event, false)
        }
        IconButton {
            objectName: "removeFolderButton"
            Layout.alignment: Qt.AlignVCenter
            symbol: "trash"
            symbolSize: 14
            padding: 5
            helpText: qsTr("Stop watching this folder")
            onClicked: row.removeFolder()
            Keys.onTabPressed: event => row.tabPressed(event, true)
            Keys.onBacktabPressed: event => row.tabPressed(event, false)
        }
    }
}
