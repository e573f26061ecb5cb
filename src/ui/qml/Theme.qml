pragma Singleton
import QtQuick

// Colours by role and the few metrics every screen shares, taken from the
// desktop: the application palette (light or dark, followed live) and the
// system font with its point size. The roles map onto the palette: the window
// background is Window, a control's or card's background is Base, primary
// text is Text, the accent is Highlight (the desktop's accent where it sets
// one). The named hues (blue, red, green, orange, gray) have a light and a
// dark variant. Wherever a colour is used for text, the *Text roles and
// textOn() darken or lighten it until it reads against its background with
// at least the 4.5:1 contrast small text needs.
QtObject {
    id: theme

    readonly property SystemPalette system: SystemPalette {
        colorGroup: SystemPalette.Active
    }
    readonly property bool dark: luminance(system.window) < 0.5

    readonly property color windowBackground: system.window
    readonly property color controlBackground: system.base
    readonly property color primary: textOnBoth(system.text, system.base, system.window)
    readonly property color secondary: textOnBoth(mix(system.text, system.window, 0.45),
                                                  system.base, system.window)
    // The desktop's accent, darkened (light scheme) or lightened (dark scheme)
    // just enough to read as text on the window, on a card and on its own
    // tint (a badge).
    readonly property color accent: readableHue(system.highlight)
    // The accent as a fill under white text and symbols (the primary
    // button): the accent itself where white reads on it, else deepened
    // until it does (a light accent of a dark scheme).
    readonly property color accentFill: fillUnder(accent, Qt.rgba(1, 1, 1, 1))
    readonly property color gray: readableHue(dark ? "#98989d" : "#8e8e93")
    readonly property color blue: dark ? "#0a84ff" : "#007aff"
    readonly property color red: dark ? "#ff453a" : "#ff3b30"
    readonly property color green: dark ? "#30d158" : "#34c759"
    readonly property color orange: dark ? "#ff9f0a" : "#ff9500"
    readonly property color separator: mix(system.text, system.window, 0.8)
    // The keyboard focus outline.
    readonly property color focusRing: dark ? lighten(system.highlight, 0.25) : system.highlight

    // The system font, and sizes in points relative to its size. Qt 6.4's
    // type information gives Qt.application the type without its font, so
    // the linter does not know the property the engine has.
    // qmllint disable type
    readonly property font systemFont: Qt.application.font
    // qmllint enable type
    readonly property string fontFamily: systemFont.family
    readonly property real bodySize: systemFont.pointSize > 0 ? systemFont.pointSize : 10
    readonly property real captionSize: Math.max(7, bodySize - 2.5)
    readonly property real headlineSize: bodySize + 1.5
    readonly property real titleSize: bodySize + 5

    // The same colour at a given opacity ("accent at 0.15").
    function withOpacity(c, opacity) {
        return Qt.rgba(c.r, c.g, c.b, c.a * opacity)
    }
    // `top` at its own opacity laid over the opaque `bottom`.
    function over(top, bottom) {
        return Qt.rgba(top.r * top.a + bottom.r * (1 - top.a),
                       top.g * top.a + bottom.g * (1 - top.a),
                       top.b * top.a + bottom.b * (1 - top.a), 1)
    }
    // a and b mixed, t of the way from a to b.
    function mix(a, b, t) {
        return Qt.rgba(a.r + (b.r - a.r) * t, a.g + (b.g - a.g) * t,
                       a.b + (b.b - a.b) * t, 1)
    }
    function lighten(c, t) {
        return mix(c, Qt.rgba(1, 1, 1, 1), t)
    }
    // The relative luminance and contrast ratio of the WCAG.
    function channel(v) {
        return v <= 0.03928 ? v / 12.92 : Math.pow((v + 0.055) / 1.055, 2.4)
    }
    function luminance(c) {
        return 0.2126 * channel(c.r) + 0.7152 * channel(c.g) + 0.0722 * channel(c.b)
    }
    function contrast(a, b) {
        const la = luminance(a)
        const lb = luminance(b)
        return (Math.max(la, lb) + 0.05) / (Math.min(la, lb) + 0.05)
    }
    // `c` as text on `background`: itself when it reads well enough, else
    // moved step by step towards black (on a light background) or white (on
    // a dark one) until it does.
    function textOn(c, background) {
        return textOnBoth(c, background, background)
    }
    function textOnBoth(c, first, second) {
        const target = 4.6
        const lightBackground = luminance(first) + luminance(second) >= 1.0
        const towards = lightBackground ? Qt.rgba(0, 0, 0, 1) : Qt.rgba(1, 1, 1, 1)
        let result = Qt.rgba(c.r, c.g, c.b, 1)
        for (let i = 0; i < 30; ++i) {
            if (contrast(result, first) >= target && contrast(result, second) >= target)
                return result
            result = mix(result, towards, 0.12)
        }
        return towards
    }
    // A fill under text of colour `textColor`: `c` itself when the text reads
    // on it, else moved away from the text's lightness until it does.
    function fillUnder(c, textColor) {
        const towards = luminance(textColor) >= 0.5 ? Qt.rgba(0, 0, 0, 1) : Qt.rgba(1, 1, 1, 1)
        let result = Qt.rgba(c.r, c.g, c.b, 1)
        for (let i = 0; i < 30 && contrast(result, textColor) < 4.6; ++i)
            result = mix(result, towards, 0.08)
        return result
    }
    // A hue used for text and as its own faint tint behind that text (the
    // badge): readable on the window, on a card and on the tint over a card.
    function readableHue(c) {
        const target = 4.6
        const towards = dark ? Qt.rgba(1, 1, 1, 1) : Qt.rgba(0, 0, 0, 1)
        let result = Qt.rgba(c.r, c.g, c.b, 1)
        for (let i = 0; i < 30; ++i) {
            const tint = over(withOpacity(result, 0.15), system.base)
            if (contrast(result, system.window) >= target && contrast(result, system.base) >= target
                    && contrast(result, tint) >= target)
                return result
            result = mix(result, towards, 0.08)
        }
        return towards
    }
}
