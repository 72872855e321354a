#pragma once

#include <QLibraryInfo>
#include <QLocale>
#include <QString>
#include <QStringList>
#include <QTranslator>

namespace harbex
{

/// The language of the window, the tray and Qt's own dialogs and menus, while this object exists. Log lines
/// and standard output are always English, and so are stored values. Create one per application, before any
/// widget. Main thread only.
///
/// The language is the first of the desktop's languages that the program speaks. English is one of them: it
/// needs no translation and ends the search. Brazilian Portuguese does not stand in for European Portuguese,
/// nor Simplified for Traditional Chinese. Qt's own texts get the same language if Qt's translations are
/// installed; otherwise they stay English. Arabic and Hebrew mirror the layout.
class Translation
{
public:
    /// `languages` are names such as "de-AT" or "zh-Hans-CN", the preferred one first. The default is the
    /// list of the desktop, which LANGUAGE or the locale sets. `qtFolder` is where Qt's own translations may
    /// be.
    explicit Translation(const QStringList& languages = QLocale::system().uiLanguages(),
                         const QString& qtFolder = QLibraryInfo::path(QLibraryInfo::TranslationsPath));

private:
    QTranslator m_program;
    QTranslator m_qt;
};

} // namespace harbex
