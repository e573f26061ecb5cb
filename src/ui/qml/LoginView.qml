import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import QtQuick.Window
import Tarnwick

// Signing in: the e-mail address (the model's userName), a button that has a
// 6-digit code mailed to it, the code and "Login". Progress and failure come
// through the model's error text, shown in a status box whose symbol and
// colour follow the text's English words (the same in every language).
Rectangle {
    id: view
    objectName: "loginView"

    // The code as typed, and whether the e-mail field is being edited.
    property string password: ""
    property bool editingMode: emailField.activeFocus

    // The status box's look: the first rule that matches the text wins.
    function statusSymbol(text) {
        if (text.indexOf("Authenticating") >= 0)
            return "arrow.triangle.2.circlepath"
        if (text.indexOf("failed") >= 0)
            return "exclamationmark.triangle.fill"
        if (text.indexOf("sent") >= 0)
            return "checkmark.circle.fill"
        return "info.circle.fill"
    }
    function statusColor(text) {
        if (text.indexOf("Authenticating") >= 0)
            return Theme.blue
        if (text.indexOf("failed") >= 0)
            return Theme.red
        if (text.indexOf("sent") >= 0)
            return Theme.green
        return Theme.blue
    }

    // Sends the code as typed; the model shows "Authenticating ..." and,
    // without a sign-in 5 s later, the failure text.
    function performLogin() {
        ItemsProvider.performLogin(view.password)
    }

    // The e-mail field has the focus whenever the screen appears.
    // (Once everything around it is built: the window content takes the
    // focus as it completes.) Qt 6.4's type information lists Qt.callLater as
    // a plain property, so qmllint cannot tell that it is callable.
    function focusEmail() {
        if (view.visible)
            emailField.forceActiveFocus()
    }
    readonly property bool shownOnScreen: visible && Window.window !== null
                                          && Window.window.visible
    onShownOnScreenChanged: focusEmail()
    Component.onCompleted: Qt.callLater(focusEmail) // qmllint disable type

    color: Theme.windowBackground
    implicitWidth: 450
    implicitHeight: column.implicitHeight + 24

    FollowFocus {
        flickable: scroller
    }

    Flickable {
        id: scroller
        anchors.fill: parent
        contentHeight: column.implicitHeight + 24
        clip: true
        boundsBehavior: Flickable.StopAtBounds

        ColumnLayout {
            id: column
            x: 12
            y: 12
            width: view.width - 24
            spacing: 14

            // Header
            RowLayout {
                spacing: 10
                SymbolIcon {
                    objectName: "loginHeaderIcon"
                    name: "internaldrive"
                    size: 34
                    color: Theme.accent
                }
                ColumnLayout {
                    spacing: 2
                    Text {
                        objectName: "loginTitle"
                        text: AppController.appName
                        color: Theme.primary
                        font.family: Theme.fontFamily
                        font.pointSize: Theme.titleSize
                        font.weight: Font.Bold
                    }
                    Text {
                        objectName: "loginSubtitle"
                        text: qsTr("Secure file sync")
                        color: Theme.secondary
                        font.family: Theme.fontFamily
                        font.pointSize: Theme.bodySize
                    }
                }
            }

            // E-mail
            ColumnLayout {
                Layout.fillWidth: true
                spacing: 4
                Text {
                    id: emailLabel
                    objectName: "emailLabel"
                    text: qsTr("Email")
                    color: Theme.secondary
                    font.family: Theme.fontFamily
                    font.pointSize: Theme.bodySize - 1
                }
                ModernTextField {
                    id: emailField
                    objectName: "emailField"
                    Layout.fillWidth: true
                    placeholderText: qsTr("you@tarnwick.app")
                    text: ItemsProvider.userName
                    inputMethodHints: Qt.ImhEmailCharactersOnly | Qt.ImhNoPredictiveText
                                      | Qt.ImhNoAutoUppercase
                    onTextEdited: ItemsProvider.userName = text
                    // Enter sends the code, as the button below does.
                    onAccepted: sendCodeButton.clicked()
                    Accessible.name: emailLabel.text
                }
            }

            IconButton {
                id: sendCodeButton
                objectName: "sendCodeButton"
                symbol: "envelope"
                text: qsTr("Send 6-digit code via email")
                onClicked: ItemsProvider.requestCodeViaEmail(ItemsProvider.userName)
            }

            // The code and "Login", once there is an address.
            ColumnLayout {
                objectName: "codeBlock"
                Layout.fillWidth: true
                visible: ItemsProvider.userName !== ""
                spacing: 4
                Text {
                    id: codeLabel
                    objectName: "codeLabel"
                    text: qsTr("6-Digit Code")
                    color: Theme.secondary
                    font.family: Theme.fontFamily
                    font.pointSize: Theme.bodySize - 1
                }
                ModernTextField {
                    id: codeField
                    objectName: "codeField"
                    Layout.fillWidth: true
                    placeholderText: qsTr("Enter code")
                    echoMode: TextInput.Password
                    inputMethodHints: Qt.ImhSensitiveData | Qt.ImhNoPredictiveText
                    text: view.password
                    onTextEdited: view.password = text
                    onAccepted: if (loginButton.enabled) view.performLogin()
                    Accessible.name: codeLabel.text
                }
                PrimaryButton {
                    id: loginButton
                    objectName: "loginButton"
                    Layout.topMargin: 8
                    text: qsTr("Login")
                    symbol: "arrow.right.circle.fill"
                    busy: ItemsProvider.isWaiting
                    enabled: !ItemsProvider.isWaiting
                    onClicked: view.performLogin()
                }
            }

            // The status box, while there is something to say.
            Rectangle {
                id: statusBox
                objectName: "statusBox"
                Layout.fillWidth: true
                visible: ItemsProvider.error !== ""
                readonly property string symbol: view.statusSymbol(ItemsProvider.errorSourceText)
                readonly property color tint: view.statusColor(ItemsProvider.errorSourceText)
                implicitHeight: statusRow.implicitHeight + 24
                radius: 8
                color: Theme.withOpacity(tint, 0.1)
                border.width: 1
                border.color: Theme.withOpacity(tint, 0.3)

                RowLayout {
                    id: statusRow
                    anchors.fill: parent
                    anchors.margins: 12
                    spacing: 8
                    SymbolIcon {
                        objectName: "statusBoxIcon"
                        Layout.alignment: Qt.AlignTop
                        name: statusBox.symbol
                        size: 16
                        color: statusBox.tint
                    }
                    Text {
                        objectName: "statusBoxText"
                        Layout.fillWidth: true
                        text: ItemsProvider.error
                        wrapMode: Text.Wrap
                        color: Theme.primary
                        font.family: Theme.fontFamily
                        font.pointSize: Theme.bodySize
                    }
                }
            }

            IconButton {
                objectName: "loginQuitButton"
                symbol: "power"
                text: qsTr("Quit")
                helpText: qsTr("Quit (Ctrl+Q)")
                onClicked: AppController.quit()
            }
        }
    }

    Shortcut {
        // StandardKey is the enumeration of a value type, which qmllint of
        // Qt 6.4 does not look up (the engine does).
        sequences: [StandardKey.Quit, "Ctrl+Q"] // qmllint disable unqualified
        context: Qt.WindowShortcut
        onActivated: AppController.quit()
    }
}
