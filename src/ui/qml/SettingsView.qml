import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import QtQuick.Templates as T
import Tarnwick

// The "Settings" tab: the user's sync groups and their folders. Folders and
// Photos libraries are added here (iCloud locations only after the user
// confirms), folders are stopped here, and a group's retention is edited
// here. The Photos instructions and the retention screen take the list's
// place while they are open. While the backend has failed for good, nothing
// here can be asked for or changed: the failure and the way to restart the
// backend take the whole tab's place.
Item {
    id: view
    objectName: "settingsView"

    // How long after appearing the groups are asked for again, and an empty
    // list stops saying "Loading..." (tests shorten it).
    property alias initialRefreshDelay: controller.initialRefreshDelay
    readonly property alias controller: controller
    // Where Tab goes past the last group, and Shift+Tab before the first (the
    // window sets them; the list's delegates are not in the list's order).
    property Item keyboardBefore: null
    property Item keyboardAfter: null

    readonly property bool showsFailure: ItemsProvider.backendFailed
    readonly property bool showsInstructions: !showsFailure
                                              && controller.showPhotoLibraryInstructions
    readonly property bool showsRetention: !showsFailure && !showsInstructions
                                           && controller.showRetentionSettings
                                           && controller.hasSelectedGroup
    readonly property bool showsList: !showsFailure && !showsInstructions && !showsRetention
    readonly property bool isLoadingGroups: !controller.hasTimeElapsed || ItemsProvider.isLoading

    SettingsController {
        id: controller
        objectName: "settingsController"
        model: ItemsProvider
        actions: SettingsActions
        pickers: Pickers
    }

    // "Appearing": the tab is shown (again).
    property bool wasVisible: false
    function noteVisibility() {
        if (visible && !wasVisible)
            controller.appeared()
        wasVisible = visible
    }
    onVisibleChanged: noteVisibility()
    // A backend started again after its failure has not been asked for the
    // groups yet: the list appears anew.
    Connections {
        target: ItemsProvider
        function onBackendFailedChanged() {
            if (!ItemsProvider.backendFailed && view.visible)
                controller.appeared()
        }
    }
    // Qt 6.4's type information lists Qt.callLater as a plain property, so
    // the linter cannot tell that it is callable.
    Component.onCompleted: Qt.callLater(noteVisibility) // qmllint disable type

    BackendFailedView {
        anchors.fill: parent
        visible: view.showsFailure
    }

    PhotoLibraryInstructionsView {
        anchors.fill: parent
        visible: view.showsInstructions
        onCancel: controller.cancelPhotoLibraryInstructions()
        onContinueRequested: controller.continuePhotoLibraryInstructions()
    }

    // The retention screen, and the list's header and cards below, are
    // components that reach the screen's controller and list by id. Qt 6.4's
    // linter accepts that only in a file marked "pragma ComponentBehavior:
    // Bound", and in Qt 6.4 that pragma keeps a Loader's sourceComponent and
    // a ListView's header from being created at all ("Cannot instantiate
    // bound component outside its creation context"). So the check of
    // unqualified names is off for those components alone.
    Loader {
        objectName: "retentionLoader"
        anchors.fill: parent
        active: view.showsRetention
        visible: active
        // qmllint disable unqualified
        sourceComponent: RetentionSettingsView {
            group: controller.selectedGroup
            isUpdating: controller.isUpdatingRetention
            onCancel: controller.cancelRetentionSettings()
            onSave: retentionDays => controller.saveRetention(group.groupIDText, retentionDays)
        }
        // qmllint enable unqualified
    }

    Item {
        objectName: "groupListState"
        anchors.fill: parent
        visible: view.showsList

        // A change the backend refused (or that never reached it), with its
        // reason, until the next change succeeds.
        InfoPanel {
            id: errorPanel
            objectName: "settingsErrorPanel"
            anchors.top: parent.top
            anchors.left: parent.left
            anchors.right: parent.right
            anchors.margins: 16
            visible: controller.errorText !== ""
            type: "error"
            icon: "exclamationmark.triangle.fill"
            title: qsTr("The change was not made")
            message: controller.errorText
        }

        // Tab through the cards scrolls the list along, in the list's order.
        FollowFocus {
            flickable: list
        }
        CardListKeyboard {
            id: cardKeys
            list: list
            keyboardBefore: view.keyboardBefore
            keyboardAfter: view.keyboardAfter
        }

        EmptyStateView {
            objectName: "groupsEmptyState"
            anchors.fill: parent
            anchors.topMargin: errorPanel.visible ? errorPanel.height + 16 : 0
            visible: controller.groupCount === 0
            icon: "person.3.fill"
            title: view.isLoadingGroups ? qsTr("Loading...") : qsTr("No Groups Found")
            message: view.isLoadingGroups
                     ? qsTr("Please wait while we load your groups")
                     : qsTr("Log in to the tarnwick website and create a group to get started")
        }

        ListView {
            id: list
            objectName: "groupList"
            anchors.fill: parent
            anchors.topMargin: errorPanel.visible ? errorPanel.height + 16 : 0
            visible: controller.groupCount > 0
            clip: true
            spacing: 12
            topMargin: 16
            bottomMargin: 16
            leftMargin: 16
            rightMargin: 16
            boundsBehavior: Flickable.StopAtBounds
            model: controller.groups
            ScrollBar.vertical: ScrollBar { policy: ScrollBar.AsNeeded }

            // qmllint disable unqualified
            header: Item {
                width: list.width - list.leftMargin - list.rightMargin
                height: heading.implicitHeight + 12

                RowLayout {
                    id: heading
                    width: parent.width
                    spacing: 8

                    Text {
                        objectName: "settingsHeading"
                        text: qsTr("Sync Folders")
                        color: Theme.primary
                        font.family: Theme.fontFamily
                        font.pointSize: Theme.titleSize
                        font.weight: Font.Bold
                    }
                    Item { Layout.fillWidth: true }
                    Text {
                        objectName: "groupCountText"
                        Layout.alignment: Qt.AlignVCenter
                        text: controller.groupCountText
                        color: Theme.secondary
                        font.family: Theme.fontFamily
                        font.pointSize: Theme.bodySize
                    }
                }
            }

            delegate: GroupCard {
                id: groupCard
                // The rows' roles; groupIDText is the card's own property.
                required groupIDText
                required property string name
                required property var sortedWalkPaths
                required property int index

                width: list.width - list.leftMargin - list.rightMargin
                groupName: groupCard.name
                walkPaths: groupCard.sortedWalkPaths
                disabled: ItemsProvider.isWaiting
                iCloudSyncedPaths: groupCard.sortedWalkPaths.filter(
                                       path => controller.isICloudSyncedPath(path))

                onOpenRetentionSettings: controller.openRetentionSettings(groupCard.groupIDText)
                onAddPhotoLibrary: controller.addPhotoLibrary(groupCard.groupName)
                onAddFolder: controller.handleAddFolder(groupCard.groupName)
                onOpenFolder: path => controller.openFolder(path)
                onRemoveFolder: path => controller.removeFolder(path)
                onTabPressed: (event, forward) => cardKeys.tabFrom(groupCard, groupCard.index,
                                                                   event, forward)
            }
            // qmllint enable unqualified
        }
    }

    Dialog {
        id: iCloudAlert
        objectName: "iCloudAlert"
        parent: T.Overlay.overlay
        anchors.centerIn: parent
        width: Math.min(340, view.width - 48)
        modal: true
        focus: true
        closePolicy: Popup.CloseOnEscape
        padding: 20
        topPadding: 18

        // Escape is the alert's cancel button.
        onClosed: if (controller.showICloudWarning) controller.cancelICloudWarning()

        Connections {
            target: controller
            function onShowICloudWarningChanged() {
                if (controller.showICloudWarning)
                    iCloudAlert.open()
                else
                    iCloudAlert.close()
            }
        }

        background: Rectangle {
            radius: 12
            color: Theme.controlBackground
            border.width: 1
            border.color: Theme.separator
        }
        T.Overlay.modal: Rectangle { color: Qt.rgba(0, 0, 0, 0.25) }

        header: Item {}
        contentItem: ColumnLayout {
            spacing: 10

            SymbolIcon {
                Layout.alignment: Qt.AlignHCenter
                name: "exclamationmark.icloud.fill"
                size: 36
                color: Theme.orange
            }
            Text {
                objectName: "iCloudAlertTitle"
                Layout.fillWidth: true
                horizontalAlignment: Text.AlignHCenter
                text: qsTr("iCloud Sync Detected")
                wrapMode: Text.Wrap
                color: Theme.primary
                font.family: Theme.fontFamily
                font.pointSize: Theme.headlineSize
                font.weight: Font.Bold
            }
            Text {
                objectName: "iCloudAlertMessage"
                Layout.fillWidth: true
                horizontalAlignment: Text.AlignHCenter
                text: controller.iCloudWarningMessage
                wrapMode: Text.Wrap
                color: Theme.primary
                font.family: Theme.fontFamily
                font.pointSize: Theme.bodySize
            }
            RowLayout {
                Layout.fillWidth: true
                Layout.topMargin: 8
                spacing: 10

                Item { Layout.fillWidth: true }
                SettingsPlainButton {
                    objectName: "iCloudAlertCancelButton"
                    text: qsTr("Cancel")
                    onClicked: controller.cancelICloudWarning()
                }
                PrimaryButton {
                    objectName: "iCloudAlertAddAnywayButton"
                    text: qsTr("Add Anyway")
                    onClicked: controller.confirmICloudWarning()
                }
            }
        }
    }
}
