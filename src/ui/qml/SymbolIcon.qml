import QtQuick
import Tarnwick

// One bundled symbol, by name ("arrow.clockwise"), drawn in one colour at a
// square size in points. An unknown name draws nothing (logged once).
SymbolIconItem {
    property real size: 16

    implicitWidth: size
    implicitHeight: size
    color: Theme.primary
}
