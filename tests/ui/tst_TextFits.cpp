#include "support/ContentStateFixture.h"
#include "support/WindowTestMain.h"
#include "ui/MainWindow.h"
#include "ui/RuleRow.h"
#include "ui/Translation.h"

#include <QAbstractButton>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QStyle>
#include <QStyleOptionComboBox>
#include <QStyleOptionFrame>
#include <QTranslator>

using namespace harbex;
using namespace harbex::test;

namespace
{

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
            cut += QStringLiteral("%1 needs %2x%3, has %4x%5")
                       .arg(text)
                       .arg(size.width())
                       .arg(size.height())
                       .arg(box.width())
                       .arg(box.height());
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
        return QString::fromUtf8(text) + QStringLiteral(" and more");
    }
};

} // namespace

/// No text of the window is cut at the smallest size of the window.
class TestTextFits : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void noTextIsCut_data()
    {
        QTest::addColumn<int>("points");
        QTest::addColumn<QString>("language");
        for (const int points : {9, 14, 22}) {
            QTest::addRow("%d pt, long texts", points) << points << QString();
            for (const char* language :
                 {"en", "ar", "de", "es", "fr", "he", "it", "ja", "pt-BR", "ru", "zh-CN"})
                QTest::addRow("%d pt, %s", points, language) << points << QString::fromLatin1(language);
        }
    }

    void noTextIsCut()
    {
        QFETCH(const int, points);
        QFETCH(const QString, language);
        const Translation translation({language}, {});
        LongTexts longTexts;
        if (language.isEmpty()) QCoreApplication::installTranslator(&longTexts);
        const QFont former = QApplication::font();
        QFont font = former;
        font.setPointSize(points);
        QApplication::setFont(font);

        auto folder = ContentStateFixture::makeFolder(QStringLiteral("A"), 3);
        folder.rules[1].field = RuleField::kind;
        folder.rules[2].destination = FileUrl::fromPath("/srv/Pictures");
        ContentStateFixture fixture;
        fixture.store.saveState({{folder}, folder.id});
        MainWindow window(fixture.state);
        window.open();
        window.resize(window.minimumSize());
        QVERIFY(QTest::qWaitForWindowExposed(&window));

        const auto checkAll = [&] {
            int texts = 0;
            QStringList cut;
            for (const QWidget* widget : window.findChildren<QWidget*>()) {
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

HARBEX_WINDOW_TEST(TestTextFits)
#include "tst_TextFits.moc"
