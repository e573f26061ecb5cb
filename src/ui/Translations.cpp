#include "Translations.h"

#include <QCoreApplication>
#include <QLibraryInfo>
#include <QTranslator>

#include <memory>

namespace tarnwick::ui {

namespace {
std::unique_ptr<QTranslator> &installed() {
    static std::unique_ptr<QTranslator> translator;
    return translator;
}

// Qt's own texts (file dialogs, text field menus, standard buttons), from the
// system's Qt translations (Debian: qt6-translations-l10n) where they are installed.
std::unique_ptr<QTranslator> &installedQt() {
    static std::unique_ptr<QTranslator> translator;
    return translator;
}

void installQtTranslation(const QLocale &locale) {
    if (installedQt()) {
        QCoreApplication::removeTranslator(installedQt().get());
        installedQt().reset();
    }
    auto translator = std::make_unique<QTranslator>();
    if (translator->load(locale, QStringLiteral("qt"), QStringLiteral("_"),
                         QLibraryInfo::path(QLibraryInfo::TranslationsPath)) &&
        QCoreApplication::installTranslator(translator.get())) {
        installedQt() = std::move(translator);
    }
}
} // namespace

bool installTranslation(const QLocale &locale) {
    if (installed()) {
        QCoreApplication::removeTranslator(installed().get());
        installed().reset();
    }
    installQtTranslation(locale);
    auto translator = std::make_unique<QTranslator>();
    // :/i18n/tarnwick_<language>[_<territory>].qm, the closest match to the
    // locale's languages.
    if (!translator->load(locale, QStringLiteral("tarnwick"), QStringLiteral("_"),
                          QStringLiteral(":/i18n"))) {
        return false;
    }
    if (!QCoreApplication::installTranslator(translator.get())) {
        return false;
    }
    installed() = std::move(translator);
    return true;
}

} // namespace tarnwick::ui
