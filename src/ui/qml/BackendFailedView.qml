import QtQuick
import QtQuick.Layouts
import Tarnwick

// The sync engine stopped after crashing again and again: what the model
// says about it, and a button that starts it once more.
Item {
    id: view
    objectName: "backendFailedState"

    implicitWidth: 450
    implicitHeight: column.implicitHeight + 48

    ColumnLayout {
        id: column
        anchors.centerIn: parent
        width: parent.width - 48
        spacing: 16

        InfoPanel {
            objectName: "backendFailedPanel"
            Layout.fillWidth: true
            type: "error"
            icon: "exclamationmark.triangle.fill"
            title: qsTr("Syncing has stopped")
            message: ItemsProvider.error !== "" ? ItemsProvider.error : qsTr("The sync engine is not running.")
        }
        PrimaryButton {
            objectName: "restartBackendButton"
            Layout.alignment: Qt.AlignHCenter
            text: qsTr("Restart backend")
            symbol: "arrow.clockwise"
            onClicked: ItemsProvider.restartBackend()
        }
    }
}
