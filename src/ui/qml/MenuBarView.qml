import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import QtQuick.Window
import Tarnwick

// The window's content: the login screen while nobody is signed in, else the
// "Status" and "Settings" tabs; below them the footer with the launch-at-login
// switch, the update check, "Logout", the version and "Quit".
Rectangle {
    id: view
    objectName: "menuBarView"

    // Passed on to the status list (tests shorten it).
    property int statusGracePeriod: 5000
    readonly property bool updaterConfigured: UpdaterViewModel.updaterController.isConfigured
    property alias currentTab: tabBar.currentIndex

    // Keys nothing inside took: Escape closes the popup (an ordinary window
    // stays, it is the only way in without a tray). An open panel or alert
    // takes Escape first and closes itself.
    focus: true
    // The keyboard focus is never left nowhere in the active window (a
    // focused control that hid, a panel that closed): the window content
    // takes it back, so that Tab and Escape keep working. (A window that is
    // not active has no focus item, and gets its own back when it is again.)
    Connections {
        target: view.Window.window
        function onActiveFocusItemChanged() {
            const now = view.Window.activeFocusItem
            if (view.visible && view.Window.active
                    && (now === null || now === view.Window.contentItem))
                view.forceActiveFocus()
        }
    }
    Keys.onEscapePressed: event => {
        if (!AppController.framed)
            AppController.closeWindow()
        event.accepted = true
    }

    color: Theme.windowBackground
    // The footer's update button needs room beside the other controls.
    implicitWidth: AppController.isMacOS13 && updaterConfigured ? 540 : 450
    implicitHeight: 650

    // The tray's "Show Status" and "Show Settings".
    Connections {
        target: AppController
        function onTabRequested(index: int) {
            if (index >= 0 && index < tabBar.count)
                tabBar.currentIndex = index
        }
    }

    ColumnLayout {
        anchors.fill: parent
        spacing: 0

        LoginView {
            objectName: "loginView"
            visible: !ItemsProvider.isLoggedIn && !ItemsProvider.backendFailed
            Layout.fillWidth: true
            Layout.fillHeight: true
        }

        // Signing in needs the backend: while it has failed, the way to
        // start it again stands in the login screen's place.
        BackendFailedView {
            visible: !ItemsProvider.isLoggedIn && ItemsProvider.backendFailed
            Layout.fillWidth: true
            Layout.fillHeight: true
        }

        TabBar {
            id: tabBar
            objectName: "tabBar"
            visible: ItemsProvider.isLoggedIn
            Layout.fillWidth: true
            Layout.leftMargin: 10
            Layout.rightMargin: 10
            Layout.topMargin: 8
            spacing: 4
            background: Rectangle {
                radius: 8
                color: Theme.withOpacity(Theme.gray, 0.15)
            }

            TabLabel {
                objectName: "statusTabButton"
                text: qsTr("Status")
                symbol: "arrow.triangle.2.circlepath"
            }
            TabLabel {
                id: settingsTab
                objectName: "settingsTabButton"
                text: qsTr("Settings")
                symbol: "gearshape"
            }
        }

        StackLayout {
            objectName: "tabStack"
            visible: ItemsProvider.isLoggedIn
            Layout.fillWidth: true
            Layout.fillHeight: true
            currentIndex: tabBar.currentIndex

            ContentView {
                objectName: "contentView"
                gracePeriod: view.statusGracePeriod
                keyboardBefore: settingsTab
                keyboardAfter: footer
            }

            Loader {
                id: settingsLoader
                objectName: "settingsLoader"
                // Made when the tab is first opened.
                active: tabBar.currentIndex === 1 || status === Loader.Ready
                source: "SettingsView.qml"
                Binding {
                    target: settingsLoader.item
                    property: "keyboardBefore"
                    value: settingsTab
                    when: settingsLoader.status === Loader.Ready
                }
                Binding {
                    target: settingsLoader.item
                    property: "keyboardAfter"
                    value: footer
                    when: settingsLoader.status === Loader.Ready
                }

                Text {
                    objectName: "settingsUnavailable"
                    anchors.centerIn: parent
                    visible: settingsLoader.status === Loader.Error
                    text: qsTr("The settings could not be shown.")
                    color: Theme.secondary
                    font.family: Theme.fontFamily
                    font.pointSize: Theme.bodySize
                }
            }
        }

        Rectangle {
            Layout.fillWidth: true
            implicitHeight: 1
            color: Theme.separator
        }

        // The footer.
        RowLayout {
            id: footer
            objectName: "footer"
            Layout.fillWidth: true
            Layout.leftMargin: 10
            Layout.rightMargin: 10
            Layout.topMargin: 4
            Layout.bottomMargin: 4
            spacing: 6

            ToggleSwitch {
                id: launchToggle
                objectName: "launchAtLoginToggle"
                // Bumped after each change is announced: the switch reads the
                // entry again once the change has been made.
                property int generation: 0
                visible: AppController.isMacOS13
                text: qsTr("Launch at login")
                checked: launchToggle.readState()
                function readState() {
                    launchToggle.generation
                    return LaunchAtLogin.isEnabled
                }
                onToggled: {
                    LaunchAtLogin.isEnabled = checked
                    // Show what the system now says, whatever happened.
                    checked = Qt.binding(readState)
                }
                Connections {
                    target: LaunchAtLogin
                    function onIsEnabledChanged() {
                        // Qt 6.4's type information lists Qt.callLater as a
                        // plain property, so qmllint cannot tell that it is
                        // callable.
                        Qt.callLater(function() { launchToggle.generation++ }) // qmllint disable type
                    }
                }
            }
            Item {
                Layout.fillWidth: true
            }
            IconButton {
                objectName: "checkForUpdatesButton"
                visible: AppController.isMacOS13 && view.updaterConfigured
                symbol: "arrow.down.circle"
                text: qsTr("Check for Updates")
                helpText: qsTr("Check for app updates")
                enabled: view.updaterConfigured
                         && UpdaterViewModel.updaterController.canCheckForUpdates
                onClicked: {
                    UpdaterViewModel.checkForUpdates()
                    updatesPanel.open()
                }
            }
            IconButton {
                objectName: "logoutButton"
                symbol: "rectangle.portrait.and.arrow.right"
                text: qsTr("Logout")
                helpText: qsTr("Logout and quit")
                enabled: !ItemsProvider.isWaiting
                onClicked: {
                    AppController.closeWindow()
                    ItemsProvider.logout()
                }
            }
            Item {
                Layout.fillWidth: true
            }
            Text {
                objectName: "versionText"
                text: AppController.versionText
                color: Theme.secondary
                font.family: Theme.fontFamily
                font.pointSize: Theme.captionSize
            }
            IconButton {
                objectName: "quitButton"
                text: qsTr("Quit")
                onClicked: AppController.quit()
            }
        }
    }

    // What a check found, and the two update settings, above the footer.
    Popup {
        id: updatesPanel
        objectName: "updatesPanel"
        x: 12
        y: parent.height - height - 56
        width: parent.width - 24
        padding: 16
        modal: false
        focus: true
        closePolicy: Popup.CloseOnEscape | Popup.CloseOnPressOutside
        background: Rectangle {
            radius: 12
            color: Theme.controlBackground
            border.color: Qt.rgba(0, 0, 0, 0.1)
        }
        contentItem: ColumnLayout {
            spacing: 12
            Text {
                text: qsTr("Software Update")
                font.family: Theme.fontFamily
                font.pointSize: Theme.bodySize
                font.bold: true
                color: Theme.primary
            }
            CheckForUpdatesView {
                Layout.fillWidth: true
            }
            UpdaterSettingsView {
                Layout.fillWidth: true
            }
        }
    }
}
