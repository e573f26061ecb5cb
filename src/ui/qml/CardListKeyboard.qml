import QtQuick
import QtQuick.Window

// Tab and Shift+Tab across the cards of a list in the model's order, whatever
// order the list happens to have made its delegates in: a card hands the
// focus on past its own controls (its tabOut signal calls focusCard), Tab
// into the list from above starts at the first card and Shift+Tab from below
// at the last, and past either end the focus goes to the control before or
// after the list. The card brought the focus is scrolled into view.
Item {
    id: keys

    property ListView list: null
    // Where Tab goes past the last card, and Shift+Tab before the first.
    property Item keyboardBefore: null
    property Item keyboardAfter: null
    // The delegate's property that holds its card ("": the delegate is the card).
    property string cardProperty: ""

    function inside(item, ancestor) {
        for (let p = item; p !== null; p = p.parent) {
            if (p === ancestor)
                return true
        }
        return false
    }
    function inList(item) {
        return keys.list !== null && keys.inside(item, keys.list.contentItem)
    }
    function takesTab(item) {
        return item.activeFocusOnTab && item.visible && item.enabled
    }
    // The card's first and last controls that Tab stops at (null: none).
    function firstControl(card) {
        if (keys.takesTab(card))
            return card
        const next = card.nextItemInFocusChain(true)
        return next !== null && keys.inside(next, card) ? next : null
    }
    function lastControl(card) {
        let last = keys.firstControl(card)
        for (let i = 0; last !== null && i < 1000; ++i) {
            const next = last.nextItemInFocusChain(true)
            if (next === null || next === last || !keys.inside(next, card))
                break
            last = next
        }
        return last
    }
    function cardAt(index) {
        const row = keys.list.itemAtIndex(index)
        if (row === null || keys.cardProperty === "")
            return row
        return row[keys.cardProperty]
    }

    // The card at `index` (its first or, going back, its last control),
    // brought into view; a card with nothing to stop at is passed over.
    function focusCard(index, forward) {
        for (; index >= 0 && index < keys.list.count; index += forward ? 1 : -1) {
            keys.list.positionViewAtIndex(index, ListView.Contain)
            keys.list.forceLayout()
            const card = keys.cardAt(index)
            const target = card === null ? null : forward ? keys.firstControl(card)
                                                            : keys.lastControl(card)
            if (target !== null) {
                target.forceActiveFocus(forward ? Qt.TabFocusReason : Qt.BacktabFocusReason)
                return
            }
        }
        keys.leaveList(forward)
    }
    function leaveList(forward) {
        const target = forward ? keys.keyboardAfter : keys.keyboardBefore
        if (target === null)
            return
        const next = keys.takesTab(target) ? target : target.nextItemInFocusChain(forward)
        if (next !== null)
            next.forceActiveFocus(forward ? Qt.TabFocusReason : Qt.BacktabFocusReason)
    }
    // Tab pressed on a card's control: on to the next card (or out of the
    // list) when the focus chain would leave the card; otherwise as usual.
    function tabFrom(card, index, event, forward) {
        const from = keys.Window.activeFocusItem
        const next = from !== null ? from.nextItemInFocusChain(forward) : null
        if (next !== null && next !== from && keys.inside(next, card)) {
            event.accepted = false
            return
        }
        event.accepted = true
        keys.focusCard(index + (forward ? 1 : -1), forward)
    }

    // Tab into the list from above lands on its first card, Shift+Tab from
    // below on its last. (The focus is moved once the change that brought it
    // has finished.)
    property Item previousFocus: null
    Connections {
        target: keys.Window.window
        function onActiveFocusItemChanged() {
            const now = keys.Window.activeFocusItem
            const previous = keys.previousFocus
            keys.previousFocus = now
            if (now === null || previous === null || !keys.inList(now) || keys.inList(previous)
                    || keys.list.count === 0)
                return
            const fromAbove = previous.mapToItem(keys.list, 0, 0).y < 0
            const card = keys.cardAt(fromAbove ? 0 : keys.list.count - 1)
            // Already there.
            if (card !== null && now === (fromAbove ? keys.firstControl(card)
                                                    : keys.lastControl(card)))
                return
            // Qt 6.4's type information lists Qt.callLater as a plain
            // property, so the linter cannot tell that it is callable.
            Qt.callLater(keys.focusCard, fromAbove ? 0 : keys.list.count - 1, fromAbove) // qmllint disable type
        }
    }
}
