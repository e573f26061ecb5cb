import QtQuick
import QtQuick.Controls.Basic
import Tarnwick

// The text field style of the forms: a rounded field on the control
// background with a thin border that turns accent-coloured while editing.
TextField {
    id: field

    leftPadding: 10
    rightPadding: 10
    topPadding: 7
    bottomPadding: 7
    font.family: Theme.fontFamily
    font.pointSize: Theme.bodySize
    color: Theme.primary
    placeholderTextColor: Theme.secondary
    selectByMouse: true
    // The caret and the selection in the window's colours (the style's own
    // are light ones).
    palette.text: Theme.primary
    palette.highlight: Theme.accentFill
    palette.highlightedText: "white"
    selectionColor: Theme.accentFill
    selectedTextColor: "white"
    Accessible.role: Accessible.EditableText

    background: Rectangle {
        implicitWidth: 200
        implicitHeight: 30
        radius: 6
        color: Theme.controlBackground
        border.width: field.activeFocus ? 2 : 1
        border.color: field.activeFocus ? Theme.withOpacity(Theme.accent, 0.7)
                                        : Theme.withOpacity(Theme.gray, 0.4)

        FocusRing {
            shown: field.activeFocus
        }
    }
}
