pragma Singleton
import QtQuick

// Colours by role and the few metrics every screen shares. The named colours
// are the desktop's usual system hues; the text roles follow the window's
// light appearance.
QtObject {
    readonly property color accent: "#007aff"
    readonly property color primary: "#1d1d1f"
    readonly property color secondary: "#6e6e73"
    readonly property color gray: "#8e8e93"
    readonly property color blue: "#007aff"
    readonly property color red: "#ff3b30"
    readonly property color green: "#34c759"
    readonly property color orange: "#ff9500"
    readonly property color controlBackground: "#ffffff"
    readonly property color windowBackground: "#ececec"
    readonly property color separator: "#d1d1d6"

    readonly property string fontFamily: "DejaVu Sans"
    readonly property int bodySize: 13
    readonly property int captionSize: 10
    readonly property int headlineSize: 15
    readonly property int titleSize: 20

    // The same colour at a given opacity ("accent at 0.15").
    function withOpacity(c, opacity) {
        return Qt.rgba(c.r, c.g, c.b, c.a * opacity)
    }
}
