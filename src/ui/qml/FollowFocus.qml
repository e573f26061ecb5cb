import QtQuick
import QtQuick.Window

// Keeps the control with the keyboard focus in sight: when the focus moves
// to an item inside `flickable`'s content (Tab through a long list), the
// content scrolls just enough to show it. Delegates that scroll into view
// are made, so Tab goes on through the whole list.
Item {
    id: follower

    property Flickable flickable
    // Room left above and below the revealed item.
    property real margin: 8

    readonly property Item focusItem: Window.activeFocusItem
    onFocusItemChanged: follower.reveal(follower.focusItem)

    function reveal(item) {
        const f = follower.flickable
        if (item === null || f === null || !f.visible)
            return
        let inside = item
        while (inside !== null && inside !== f.contentItem)
            inside = inside.parent
        if (inside === null)
            return
        const top = item.mapToItem(f.contentItem, 0, 0).y - follower.margin
        const bottom = top + item.height + 2 * follower.margin
        if (top < f.contentY)
            f.contentY = Math.max(top, f.originY - f.topMargin)
        else if (bottom > f.contentY + f.height)
            f.contentY = bottom - f.height
    }
}
