#include "Translations.h"

#include <QCoreApplication>
#include <QTranslator>

#include <memory>

namespace tarnwick::ui {

namespace {
std::unique_ptr<QTranslator> &installed() {
    static std::unique_ptr<QTranslator> translator;
    return translator;
}
} // namespace

bool installTranslation(const QLocale &locale) {
    if (installed()) {
        QCoreApplication::removeTranslator(installed().get());
        installed().reset();
    }
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
