#include "ui/Translation.h"

#include <QGuiApplication>

namespace harbex
{

Translation::Translation(const QStringList& languages, const QString& qtFolder)
{
    const auto load = [](QTranslator& translator, const QLocale& locale, const char* name,
                         const QString& folder) {
        return translator.load(locale, QString::fromLatin1(name), QStringLiteral("_"), folder);
    };
    QString former;
    for (const QString& language : languages) {
        // After "pt-PT" the list has "pt" as a fallback. QLocale reads "pt" as Brazilian Portuguese and "zh"
        // as Simplified Chinese, which would be wrong here.
        if (former.startsWith(language + u'-')) continue;
        former = language;
        const QLocale locale(language);
        if (locale.language() == QLocale::English) return;
        if (!load(m_program, locale, "harbex", QStringLiteral(":/translations"))) continue;

        QCoreApplication::installTranslator(&m_program);
        if (load(m_qt, locale, "qtbase", qtFolder)) QCoreApplication::installTranslator(&m_qt);
        // Qt itself would mirror only with a translation of its own texts.
        if (locale.textDirection() == Qt::RightToLeft) QGuiApplication::setLayoutDirection(Qt::RightToLeft);
        return;
    }
}

} // namespace harbex
