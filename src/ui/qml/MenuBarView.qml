import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Tarnwick

// The window's content: the login screen while nobody is signed in, else the
// "Status" and "Settings" tabs; below them the footer with the launch-at-login
// switch, the update check, "Logout", the version and "Quit".
Rectangle {
    id: view
    objectName: "menuBarView"

    // Passed on to the status list (tests shorten it).
    property int statusGracePeriod: 5000
    readonly property bool updaterConfigured: typeof updater !== "undefined" && updater !== null
                                              && updater.isConfigured
    property alias currentTab: tabBar.currentIndex

    color: Theme.windowBackground
    implicitWidth: 450
    implicitHeight: 650

    ColumnLayout {
        anchors.fill: parent
        spacing: 0

        LoginView {
            objectName: "loginView"
            visible: !ip.isLoggedIn && !ip.backendFailed
            Layout.fillWidth: true
            Layout.fillHeight: true
        }

        // Signing in needs the backend: while it has failed, the way to
        // start it again stands in the login screen's place.
        BackendFailedView {
            visible: !ip.isLoggedIn && ip.backendFailed
            Layout.fillWidth: true
            Layout.fillHeight: true
        }

        TabBar {
            id: tabBar
            objectName: "tabBar"
            visible: ip.isLoggedIn
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
                text: "Status"
                symbol: "arrow.triangle.2.circlepath"
            }
            TabLabel {
                objectName: "settingsTabButton"
                text: "Settings"
                symbol: "gearshape"
            }
        }

        StackLayout {
            objectName: "tabStack"
            visible: ip.isLoggedIn
            Layout.fillWidth: true
            Layout.fillHeight: true
            currentIndex: tabBar.currentIndex

            ContentView {
                objectName: "contentView"
                gracePeriod: view.statusGracePeriod
            }

            Loader {
                id: settingsLoader
                objectName: "settingsLoader"
                // Made when the tab is first opened.
                active: tabBar.currentIndex === 1 || status === Loader.Ready
                source: "SettingsView.qml"

                Text {
                    objectName: "settingsUnavailable"
                    anchors.centerIn: parent
                    visible: settingsLoader.status === Loader.Error
                    text: "The settings could not be shown."
                    color: Theme.secondary
                    font.family: Theme.fontFamily
                    font.pixelSize: Theme.bodySize
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
                visible: app.isMacOS13
                text: "Launch at login"
                checked: launchToggle.readState()
                function readState() {
                    launchToggle.generation
                    return launchAtLogin.isEnabled
                }
                onToggled: {
                    launchAtLogin.isEnabled = checked
                    // Show what the system now says, whatever happened.
                    checked = Qt.binding(readState)
                }
                Connections {
                    target: launchAtLogin
                    function onIsEnabledChanged() {
                        Qt.callLater(function() { launchToggle.generation++ })
                    }
                }
            }
            Item {
                Layout.fillWidth: true
            }
            IconButton {
                objectName: "checkForUpdatesButton"
                visible: app.isMacOS13 && view.updaterConfigured
                symbol: "arrow.down.circle"
                text: "Check for Updates"
                helpText: "Check for app updates"
                onClicked: updater.checkForUpdates()
            }
            IconButton {
                objectName: "logoutButton"
                symbol: "rectangle.portrait.and.arrow.right"
                text: "Logout"
                helpText: "Logout and quit"
                enabled: !ip.isWaiting
                onClicked: {
                    app.closeWindow()
                    ip.logout()
                }
            }
            Item {
                Layout.fillWidth: true
            }
            Text {
                objectName: "versionText"
                text: app.versionText
                color: Theme.secondary
                font.family: Theme.fontFamily
                font.pixelSize: Theme.captionSize
            }
            IconButton {
                objectName: "quitButton"
                text: "Quit"
                onClicked: app.quit()
            }
        }
    }
}
