pragma ComponentBehavior: Bound

import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import QtQuick.Window
import Tarnwick

// The status list: one card per watched folder, in the model's order. While
// there are none it shows a spinner (the model is loading), or an empty
// state that says "Loading..." for a short grace period after the view
// first appears and then invites the user to add folders. When the backend
// has failed for good, the failure and a way to restart it take the list's
// place.
Rectangle {
    id: view
    objectName: "contentView"

    // The grace period after the first appearance (tests shorten it).
    property int gracePeriod: 5000
    property bool hasTimeElapsed: false
    // Where Tab goes past the last card, and Shift+Tab before the first (the
    // window sets them; the list's delegates are not in the list's order).
    property Item keyboardBefore: null
    property Item keyboardAfter: null
    // The path of the card under the pointer, or "".
    property string hoveredItem: ""

    readonly property int folderCount: ItemsProvider.dirItems.count
    readonly property bool shownOnScreen: visible && Window.window !== null
                                          && Window.window.visible

    // The grace period starts the first time the view is on screen.
    property bool appeared: false
    onShownOnScreenChanged: noteAppearance()
    Component.onCompleted: noteAppearance()
    function noteAppearance() {
        if (shownOnScreen && !appeared) {
            appeared = true
            graceTimer.start()
        }
    }
    Timer {
        id: graceTimer
        interval: view.gracePeriod
        onTriggered: view.hasTimeElapsed = true
    }

    // The keyboard across the cards, in the model's order.
    CardListKeyboard {
        id: cardKeys
        list: list
        keyboardBefore: view.keyboardBefore
        keyboardAfter: view.keyboardAfter
        cardProperty: "card"
    }

    // A row of the list: the card it holds.
    component CardRow: Item {
        property SyncItemCard card
    }

    function folderCountText(n) {
        return n === 1 ? qsTr("%1 folder").arg(n) : qsTr("%1 folders").arg(n)
    }

    color: Theme.windowBackground
    implicitWidth: 450
    implicitHeight: 650

    // The backend stopped after crashing again and again.
    BackendFailedView {
        visible: ItemsProvider.backendFailed
        anchors.fill: parent
    }

    // No folders, the model still loading.
    ColumnLayout {
        objectName: "loadingState"
        visible: !ItemsProvider.backendFailed && view.folderCount === 0
                 && ItemsProvider.isLoading
        anchors.centerIn: parent
        spacing: 14

        BusyIndicator {
            objectName: "loadingSpinner"
            Layout.alignment: Qt.AlignHCenter
            // Only on screen: a spinner in a hidden window would wake the
            // client on every frame for nothing.
            running: parent.visible && view.shownOnScreen
            palette.dark: Theme.secondary
            implicitWidth: 56
            implicitHeight: 56
        }
        Text {
            objectName: "loadingText"
            Layout.alignment: Qt.AlignHCenter
            text: qsTr("Loading...")
            color: Theme.secondary
            font.family: Theme.fontFamily
            font.pointSize: Theme.bodySize
        }
    }

    // No folders, the model idle.
    EmptyStateView {
        objectName: "emptyState"
        visible: !ItemsProvider.backendFailed && view.folderCount === 0
                 && !ItemsProvider.isLoading
        anchors.fill: parent
        icon: "folder.badge.plus"
        title: view.hasTimeElapsed ? qsTr("No Folders Syncing") : qsTr("Loading...")
        message: view.hasTimeElapsed ? qsTr("Add folders to sync from the Settings tab")
                                     : qsTr("Please wait while we load your sync status")
    }

    // Tab through the cards scrolls the list along.
    FollowFocus {
        flickable: list
    }

    // The folders.
    ColumnLayout {
        objectName: "listState"
        visible: !ItemsProvider.backendFailed && view.folderCount > 0
        anchors.fill: parent
        spacing: 0

        RowLayout {
            Layout.fillWidth: true
            Layout.margins: 16
            Layout.bottomMargin: 8
            spacing: 8
            Text {
                objectName: "headingAppName"
                text: AppController.appName
                color: Theme.primary
                font.family: Theme.fontFamily
                font.pointSize: Theme.headlineSize + 2
                font.weight: Font.Bold
            }
            Text {
                objectName: "folderCountText"
                Layout.alignment: Qt.AlignBaseline
                text: view.folderCountText(view.folderCount)
                color: Theme.secondary
                font.family: Theme.fontFamily
                font.pointSize: Theme.bodySize
            }
            Item {
                Layout.fillWidth: true
            }
        }

        ListView {
            id: list
            objectName: "folderList"
            Layout.fillWidth: true
            Layout.fillHeight: true
            clip: true
            spacing: 10
            topMargin: 4
            bottomMargin: 16
            // Delegates are made for the visible rows only, so ten thousand
            // folders cost what a screenful does.
            reuseItems: true
            cacheBuffer: 200
            boundsBehavior: Flickable.StopAtBounds
            model: FolderStatusModel {
                objectName: "folderStatusModel"
                sourceModel: ItemsProvider.dirItems
                groups: ItemsProvider.groups
            }
            ScrollBar.vertical: ScrollBar {
                objectName: "folderListScrollBar"
            }

            delegate: CardRow {
                id: row
                required property int index
                required property string path
                required property string name
                required property real progress
                required property string icon
                required property string status
                required property string error
                required property string location
                required property string groupName

                width: ListView.view.width
                height: syncCard.implicitHeight
                card: syncCard

                SyncItemCard {
                    id: syncCard
                    objectName: "syncItemCard"
                    x: 16
                    width: row.width - 32
                    path: row.path
                    name: row.name
                    progress: row.progress
                    icon: row.icon
                    status: row.status
                    error: row.error
                    location: row.location
                    groupName: row.groupName
                    webSiteName: AppController.siteName(ItemsProvider.loginURL)
                    hovered: view.hoveredItem === row.path
                    onHoverChanged: function(inside) {
                        if (inside)
                            view.hoveredItem = row.path
                        else if (view.hoveredItem === row.path)
                            view.hoveredItem = ""
                    }
                    onTabOut: forward => cardKeys.focusCard(row.index + (forward ? 1 : -1),
                                                            forward)
                    onOpenFolder: ItemsProvider.openDirPath(row.path)
                    onOpenWeb: ItemsProvider.openWeb(
                                   AppController.groupIDText(ItemsProvider.dirItems, row.index))
                }
            }
        }
    }
}
