#pragma once

#include <QLocale>

namespace tarnwick::ui {

// Puts the client's translation for a locale into effect: the screens' and
// the tray's texts in the locale's language when the client has a
// translation for it; otherwise (English, the texts' own language, among
// them) the texts as written. Qt's own texts (dialogs, standard buttons)
// follow the locale too where the system has Qt's translations. A translation
// installed before goes first.
// Returns whether a translation is now in effect. Screens already built
// show the new texts once their engine is retranslated.
bool installTranslation(const QLocale &locale = QLocale());

} // namespace tarnwick::ui
