#include "support/ContentStateFixture.h"
#include "support/WindowTestMain.h"
#include "ui/FolderList.h"
#include "ui/MainWindow.h"
#include "ui/Picker.h"
#include "ui/RuleRow.h"
#include "ui/Translation.h"

#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QTranslator>

#include <algorithm>

using namespace harbex;
using namespace harbex::test;

namespace
{

const QString noFolder = QStringLiteral("/nonexistent");

QString rulesHeading()
{
    return QCoreApplication::translate("harbex::ContentView", "Rules");
}

/// A text of Qt: an entry of the menu of line edits.
QString undo()
{
    return QCoreApplication::translate("QWidgetTextControl", "&Undo");
}

/// The window over one folder with one rule, opened.
struct OpenWindow : ContentStateFixture {
    explicit OpenWindow() : ContentStateFixture({makeFolder(QStringLiteral("A"))})
    {
        window.open();
        QVERIFY(QTest::qWaitForWindowActive(&window));
        folders = window.findChild<FolderList*>();
        folders->setCurrentRow(0);
        row = window.findChild<RuleRow*>();
    }

    template <class Control>
    [[nodiscard]] Control* control(qsizetype index) const
    {
        return qobject_cast<Control*>(row->controls().at(index));
    }

    MainWindow window{state};
    FolderList* folders;
    RuleRow* row;
};

int leftEdge(const QWidget& widget)
{
    return widget.mapToGlobal(QPoint()).x();
}

} // namespace

class TestTranslation : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanup() { QGuiApplication::setLayoutDirection(Qt::LayoutDirectionAuto); }

    void theFirstLanguageTheProgramSpeaksIsTaken_data()
    {
        QTest::addColumn<QString>("languages");
        QTest::addColumn<QString>("rules");
        const auto row = [](const char* languages, const char* rules) {
            QTest::newRow(languages) << QString::fromLatin1(languages) << QString::fromUtf8(rules);
        };
        row("", "Rules");
        row("C", "Rules");
        row("ar", "القواعد");
        row("de", "Regeln");
        row("es", "Reglas");
        row("fr", "Règles");
        row("he", "כללים");
        row("it", "Regole");
        row("ja", "ルール");
        row("pt-BR", "Regras");
        row("ru", "Правила");
        row("zh-CN", "规则");

        row("de-AT", "Regeln");
        row("es-Latn-MX", "Reglas");
        row("zh-Hans-CN", "规则");
        row("zh-TW", "Rules");
        row("zh-Hant-TW", "Rules");
        row("zh-TW zh-Hant-TW zh", "Rules");
        row("zh-TW zh-CN", "规则");
        row("zh zh-Hans-CN", "规则");
        row("pt-PT", "Rules");
        row("pt-PT pt", "Rules");
        row("pt-PT pt-BR", "Regras");
        row("nl de fr", "Regeln");
        row("tlh C de", "Regeln");
        row("en de", "Rules");
        row("en-GB de", "Rules");
        row("nl en-US de", "Rules");
    }

    void theFirstLanguageTheProgramSpeaksIsTaken()
    {
        QFETCH(const QString, languages);
        const Translation translation(languages.split(u' '), noFolder);
        QTEST(rulesHeading(), "rules");
    }

    void theLanguageLastsAsLongAsTheObject()
    {
        {
            const Translation translation({QStringLiteral("de")}, noFolder);
            QCOMPARE(rulesHeading(), QStringLiteral("Regeln"));
        }
        QCOMPARE(rulesHeading(), QStringLiteral("Rules"));
    }

    void qtsOwnTextsHaveTheSameLanguage()
    {
        const QString qtFolder = QLibraryInfo::path(QLibraryInfo::TranslationsPath);
        if (!QFile::exists(qtFolder + QStringLiteral("/qtbase_de.qm")))
            QSKIP("the translations of Qt are not installed");
        const auto undoIn = [](const QStringList& languages) {
            const Translation translation(languages);
            return undo();
        };
        QCOMPARE(undoIn({QStringLiteral("de")}), QString::fromUtf8("&Rückgängig"));
        QCOMPARE(undoIn({QStringLiteral("nl"), QStringLiteral("de")}), QString::fromUtf8("&Rückgängig"));
        QCOMPARE(undoIn({QStringLiteral("en"), QStringLiteral("de")}), QStringLiteral("&Undo"));
        // Qt speaks Dutch, but the program does not.
        QCOMPARE(undoIn({QStringLiteral("nl")}), QStringLiteral("&Undo"));
    }

    void aGermanWindowStoresEnglishValues()
    {
        const Translation translation({QStringLiteral("de")}, noFolder);
        OpenWindow open;
        const auto choose = [&](qsizetype control, const char* text) {
            auto* picker = open.control<Picker>(control);
            picker->setCurrentIndex(picker->findText(QString::fromUtf8(text)));
            Q_EMIT picker->activated(picker->currentIndex());
            return picker->currentText();
        };

        QStringList shown{open.control<QLineEdit>(3)->placeholderText()};
        for (const QLabel* label : open.window.findChildren<QLabel*>())
            shown += label->text();
        for (const QPushButton* button : open.window.findChildren<QPushButton*>())
            shown += button->text();
        for (const char* text : {"Ordner", "Regeln", "Regel hinzufügen", "verschieben nach",
                                 "Ziel auswählen...", "Standard: alle Dateien"})
            QVERIFY2(shown.contains(QString::fromUtf8(text)), text);
        QCOMPARE(choose(0, "Typ"), QStringLiteral("Typ"));
        QCOMPARE(choose(1, "ist"), QStringLiteral("ist"));
        QCOMPARE(choose(2, "Ordner"), QStringLiteral("Ordner"));

        open.window.close();
        QFile file(preferencesPath());
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray stored = file.readAll();
        for (const char* value : {"\"Kind\"", "\"is\"", "\"Folder\""})
            QVERIFY2(stored.contains(value), stored.constData());
        for (const char* text : {"\"Typ\"", "\"ist\"", "\"Ordner\""})
            QVERIFY2(!stored.contains(text), stored.constData());
    }

    void everyRawValueHasATranslation()
    {
        QTranslator japanese;
        QVERIFY(japanese.load(QStringLiteral(":/translations/harbex_ja.qm")));
        const auto isTranslated = [&](auto value) {
            return !japanese.translate("harbex::RuleRow", rawValue(value).toUtf8().constData()).isEmpty();
        };
        QVERIFY(std::ranges::all_of(allRuleFields, isTranslated));
        QVERIFY(std::ranges::all_of(allRuleOperators, isTranslated));
        QVERIFY(std::ranges::all_of(allRuleKinds, isTranslated));
    }

    void theScriptOfTheLanguageDecidesTheDirection_data()
    {
        QTest::addColumn<QString>("language");
        QTest::addColumn<bool>("isMirrored");
        QTest::newRow("Arabic") << QStringLiteral("ar-EG") << true;
        QTest::newRow("Hebrew") << QStringLiteral("he") << true;
        QTest::newRow("German") << QStringLiteral("de") << false;
        QTest::newRow("a language the program does not speak") << QStringLiteral("fa") << false;
    }

    void theScriptOfTheLanguageDecidesTheDirection()
    {
        QFETCH(const QString, language);
        // Without the translations of Qt, which would set the direction too.
        const Translation translation({language}, noFolder);
        const OpenWindow open;
        const bool isListRight = leftEdge(*open.folders) > leftEdge(*open.row);
        const QList<QWidget*> controls = open.row->controls();
        const bool isRowMirrored = leftEdge(*controls.first()) > leftEdge(*controls.last());
        QTEST(isListRight, "isMirrored");
        QTEST(isRowMirrored, "isMirrored");
    }
};

HARBEX_WINDOW_TEST(TestTranslation)
#include "tst_Translation.moc"
