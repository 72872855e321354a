#include "support/FolderDialogUser.h"
#include "support/MainWindowFixture.h"
#include "support/WindowTestMain.h"
#include "ui/FlatButton.h"
#include "ui/FolderList.h"
#include "ui/RuleRow.h"
#include "ui/StatusItem.h"
#include "ui/Translation.h"

using namespace harbex;
using namespace harbex::test;

namespace
{

const QString noFolder = "/nonexistent";

QString rulesHeading()
{
    return QCoreApplication::translate("harbex::ContentView", "Rules");
}

int leftEdge(const QWidget& widget)
{
    return widget.mapToGlobal(QPoint()).x();
}

/// Returns the texts of the window: all but the names of folders and the contents of fields.
QStringList textsOf(const QWidget& window)
{
    QStringList texts{window.windowTitle()};
    for (const QWidget* widget : window.findChildren<QWidget*>()) {
        texts += widget->accessibleName();
        if (const auto* label = qobject_cast<const QLabel*>(widget)) texts += label->text();
        if (const auto* button = qobject_cast<const QAbstractButton*>(widget)) texts += button->text();
        if (const auto* field = qobject_cast<const QLineEdit*>(widget)) texts += field->placeholderText();
        if (const auto* picker = qobject_cast<const QComboBox*>(widget))
            for (int i = 0; i < picker->count(); ++i)
                texts += picker->itemText(i);
    }
    return texts;
}

QSize sizeOf(const QWidget& widget, const QString& text)
{
    return {widget.fontMetrics().horizontalAdvance(text), widget.fontMetrics().height()};
}

/// Returns the texts of a visible widget that do not fit into their boxes.
QStringList cutTextsOf(const QWidget& widget)
{
    QStringList cut;
    const auto check = [&](const QString& text, const QSize& box) {
        const QSize size = sizeOf(widget, text);
        if (size.width() > box.width() || size.height() > box.height())
            QDebug(&cut.emplace_back()) << text << "needs" << size << "and has" << box;
    };
    if (const auto* label = qobject_cast<const QLabel*>(&widget)) {
        // A path is elided.
        if (label->wordWrap())
            check({}, QSize(0, widget.fontMetrics().height() + label->height() -
                                   label->heightForWidth(label->width())));
        else if (label->toolTip().isEmpty())
            check(label->text(), label->contentsRect().size());
    } else if (const auto* button = qobject_cast<const QAbstractButton*>(&widget)) {
        const QSize frame = button->sizeHint() - sizeOf(widget, button->text());
        if (!button->text().isEmpty()) check(button->text(), button->size() - frame);
    } else if (const auto* picker = qobject_cast<const QComboBox*>(&widget)) {
        QStyleOptionComboBox option;
        option.initFrom(picker);
        const QRect box = picker->style()->subControlRect(QStyle::CC_ComboBox, &option,
                                                          QStyle::SC_ComboBoxEditField, picker);
        for (int i = 0; i < picker->count(); ++i)
            check(picker->itemText(i), box.size());
    } else if (const auto* field = qobject_cast<const QLineEdit*>(&widget)) {
        QStyleOptionFrame option;
        option.initFrom(field);
        option.lineWidth = field->style()->pixelMetric(QStyle::PM_DefaultFrameWidth, &option, field);
        // QLineEdit leaves two pixels on each side.
        check(field->placeholderText(),
              field->style()->subElementRect(QStyle::SE_LineEditContents, &option, field).size() -
                  QSize(4, 0));
    }
    return cut;
}

/// Translates every text into a longer one.
class LongTexts : public QTranslator
{
public:
    [[nodiscard]] bool isEmpty() const override { return false; }
    [[nodiscard]] QString translate(const char* /*context*/, const char* text, const char* /*comment*/,
                                    int /*count*/) const override
    {
        return QString(text) + " and more";
    }
};

} // namespace

class TestTranslation : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanup() { QGuiApplication::setLayoutDirection(Qt::LayoutDirectionAuto); }

    void theFirstLanguageTheProgramSpeaksIsTaken()
    {
        const std::pair<const char*, const char*> rows[] = {
            {"", "Rules"},
            {"C", "Rules"},
            {"ar", "القواعد"},
            {"de", "Regeln"},
            {"es", "Reglas"},
            {"fr", "Règles"},
            {"he", "כללים"},
            {"it", "Regole"},
            {"ja", "ルール"},
            {"pt-BR", "Regras"},
            {"ru", "Правила"},
            {"zh-CN", "规则"},

            {"de-AT", "Regeln"},
            {"es-Latn-MX", "Reglas"},
            {"zh-Hans-CN", "规则"},
            {"zh-TW", "Rules"},
            {"zh-Hant-TW", "Rules"},
            {"zh-TW zh-Hant-TW zh", "Rules"},
            {"zh-TW zh-CN", "规则"},
            {"zh zh-Hans-CN", "规则"},
            {"pt-PT", "Rules"},
            {"pt-PT pt", "Rules"},
            {"pt-PT pt-BR", "Regras"},
            {"nl de fr", "Regeln"},
            {"tlh C de", "Regeln"},
            {"en de", "Rules"},
            {"en-GB de", "Rules"},
            {"nl en-US de", "Rules"},
        };
        for (const auto& [languages, rules] : rows) {
            {
                const Translation translation(QString(languages).split(u' '), noFolder);
                QVERIFY2(rulesHeading() == rules, languages);
            }
            QCOMPARE(rulesHeading(), "Rules");
        }
    }

    void qtsOwnTextsHaveTheSameLanguage()
    {
        const QString qtFolder = QLibraryInfo::path(QLibraryInfo::TranslationsPath);
        if (!QFile::exists(qtFolder + "/qtbase_de.qm")) QSKIP("the translations of Qt are not installed");
        // An entry of the menu of line edits.
        const auto undoIn = [](const char* languages) {
            const Translation translation(QString(languages).split(u' '));
            return QCoreApplication::translate("QWidgetTextControl", "&Undo");
        };
        QCOMPARE(undoIn("de"), "&Rückgängig");
        QCOMPARE(undoIn("nl de"), "&Rückgängig");
        QCOMPARE(undoIn("en de"), "&Undo");
        // Qt speaks Dutch, but the program does not.
        QCOMPARE(undoIn("nl"), "&Undo");
    }

    void everyTextIsTranslated()
    {
        const Translation translation({"ja"}, noFolder);
        const StatusItem item(QDBusConnection("no such connection"));
        const MainWindowFixture fixture({makeFolder("A", 2)});
        MainWindow& window = *fixture.window;
        fixture.open();
        const auto choose = [&](qsizetype picker, int index) {
            auto* chosen = window.findChildren<QComboBox*>().at(picker);
            chosen->setCurrentIndex(index);
            Q_EMIT chosen->activated(index);
        };
        choose(1, 1);
        choose(3, 2);
        choose(5, 4);
        QStringList texts = textsOf(window);
        QTest::keyClick(window.findChild<FolderList*>(), Qt::Key_Menu);
        for (const QWidget* widget : QApplication::topLevelWidgets())
            if (const auto* menu = qobject_cast<const QMenu*>(widget))
                for (const QAction* entry : menu->actions())
                    texts += entry->text();
        QApplication::activePopupWidget()->close();
        const FolderDialogUser user([&](QFileDialog& dialog) {
            texts += {dialog.windowTitle(), dialog.labelText(QFileDialog::Accept)};
            dialog.reject();
        });
        window.findChild<FlatButton*>("addFolder")->click();
        QTRY_COMPARE(texts.count("フォルダーを選択"), 2);

        texts.removeAll(QString());
        texts.removeAll("Harbex");
        for (const QString& text : std::as_const(texts))
            QVERIFY2(std::ranges::any_of(text, [](QChar each) { return each > u'\u2fff'; }),
                     qPrintable(text));
        for (const char* text :
             {"フォルダー", "フォルダーを追加", "ルール", "ルールを追加", "移動先", "項目", "名前",
              "が次を含む", "音声", "既定: すべてのファイル", "移動先を選択...", "一覧から削除", "削除",
              "サイドバーでフォルダーを選択してください", "Harbex を開く", "終了"})
            QVERIFY2(texts.contains(text), text);

        // Choices work as in English.
        QCOMPARE(fixture.rule(0).operatorType, RuleOperator::isEqual);
        QCOMPARE(fixture.rule(1).field, RuleField::kind);
        QCOMPARE(fixture.rule(1).kind, RuleKind::audio);
    }

    void theScriptOfTheLanguageDecidesTheDirection()
    {
        const auto isMirrored = [](const char* language) {
            // Without the translations of Qt, which would set the direction too.
            const Translation translation({language}, noFolder);
            const MainWindowFixture fixture;
            fixture.open();
            const auto* row = fixture.window->findChild<RuleRow*>();
            const QList<QWidget*> controls = row->controls();
            const bool isRowMirrored = leftEdge(*controls.first()) > leftEdge(*controls.last());
            const bool isListRight = leftEdge(*fixture.window->findChild<FolderList*>()) > leftEdge(*row);
            QGuiApplication::setLayoutDirection(Qt::LayoutDirectionAuto);
            if (isRowMirrored != isListRight) qFatal("a half-mirrored window");
            return isRowMirrored;
        };
        QVERIFY(isMirrored("ar-EG"));
        QVERIFY(isMirrored("he"));
        QVERIFY(!isMirrored("de"));
        QVERIFY2(!isMirrored("fa"), "a language the program does not speak");
    }

    // At the smallest size of the window.
    void noTextIsCut_data()
    {
        QTest::addColumn<int>("points");
        QTest::addColumn<QString>("language");
        for (const int points : {9, 14, 22})
            for (const char* language :
                 {"", "en", "ar", "de", "es", "fr", "he", "it", "ja", "pt-BR", "ru", "zh-CN"})
                QTest::addRow("%d pt, %s", points, language) << points << language;
    }

    void noTextIsCut()
    {
        QFETCH(const int, points);
        QFETCH(const QString, language);
        const Translation translation({language}, {});
        // Texts that are longer than all translations.
        LongTexts longTexts;
        if (language.isEmpty()) QCoreApplication::installTranslator(&longTexts);
        const QFont former = QApplication::font();
        QFont font = former;
        font.setPointSize(points);
        QApplication::setFont(font);

        auto folder = makeFolder("A", 3);
        folder.rules[1].field = RuleField::kind;
        folder.rules[2].destination = FileUrl::fromPath("/srv/Pictures");
        MainWindowFixture fixture({folder});
        fixture.window->open();
        fixture.window->resize(fixture.window->minimumSize());
        QVERIFY(QTest::qWaitForWindowExposed(fixture.window.get()));

        const auto checkAll = [&] {
            int texts = 0;
            QStringList cut;
            for (const QWidget* widget : fixture.window->findChildren<QWidget*>()) {
                if (!widget->isVisible()) continue;
                cut += cutTextsOf(*widget);
                ++texts;
            }
            QVERIFY2(cut.isEmpty(), qPrintable(cut.join(u'\n')));
            QVERIFY(texts > 5);
        };
        checkAll();
        fixture.state.select(std::nullopt);
        fixture.settle();
        checkAll();
        QApplication::setFont(former);
    }
};

HARBEX_WINDOW_TEST(TestTranslation)
#include "tst_Translation.moc"
