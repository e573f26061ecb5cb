import QtQuick
import QtQuick.Layouts
import Tarnwick

// One numbered step of a set of instructions: the number in a small accent
// disc, the step's title and, under it, what to do.
RowLayout {
    id: step

    property int number: 1
    property string title
    property string description

    spacing: 12

    Rectangle {
        objectName: "instructionStepNumberDisc"
        Layout.alignment: Qt.AlignTop
        implicitWidth: 24
        implicitHeight: 24
        radius: 12
        color: Theme.accentFill

        Text {
            objectName: "instructionStepNumber"
            anchors.centerIn: parent
            text: step.number
            color: "white"
            font.family: Theme.fontFamily
            font.pointSize: Theme.bodySize - 1
            font.weight: Font.Bold
        }
    }

    ColumnLayout {
        Layout.fillWidth: true
        spacing: 2

        Text {
            objectName: "instructionStepTitle"
            Layout.fillWidth: true
            text: step.title
            wrapMode: Text.Wrap
            color: Theme.primary
            font.family: Theme.fontFamily
            font.pointSize: Theme.bodySize
            font.weight: Font.DemiBold
        }
        Text {
            objectName: "instructionStepDescription"
            Layout.fillWidth: true
            text: step.description
            wrapMode: Text.Wrap
            color: Theme.secondary
            font.family: Theme.fontFamily
            font.pointSize: Theme.bodySize - 1
        }
    }
}
