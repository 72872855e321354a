#include "store/Bookmark.h"
#include "support/ContentStateFixture.h"
#include "support/FolderDialogUser.h"
#include "support/WindowTestMain.h"
#include "ui/DirectorySelector.h"
#include "ui/Icons.h"
#include "ui/RuleRow.h"

#include <QAbstractItemView>
#include <QAccessible>
#include <QComboBox>
#include <QLabel>
#include <QLayout>
#include <QLineEdit>
#include <QPointer>
#include <QScrollArea>
#include <QScrollBar>
#include <QSignalSpy>
#include <QToolButton>
#include <QWheelEvent>
#include <QWindow>
#include <qtestspontaneevent.h>

#include <cstdlib>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// A row on screen that edits the one rule of the one folder.
struct RowBench : ContentStateFixture {
    explicit RowBench(const FilterRule& rule = {}, QWidget* parent = nullptr)
    {
        auto folder = makeFolder(QStringLiteral("Watched"));
        folder.rules = {rule};
        appearWith({folder}, folder.id);
        row = new RuleRow(state, this->rule(0), parent);
        QObject::connect(&state, &ContentState::ruleChanged, row, [this] { row->showRule(this->rule(0)); });
        row->resize(row->sizeHint());
        row->show();
        row->activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(row->window()));
    }
    ~RowBench() { delete row; }

    [[nodiscard]] QComboBox* picker(const char* title) const
    {
        for (auto* each : row->findChildren<QComboBox*>())
            if (each->accessibleName() == QLatin1String(title)) return each;
        return nullptr;
    }
    [[nodiscard]] QLineEdit* value() const { return row->findChild<QLineEdit*>(); }
    [[nodiscard]] DirectorySelector* selector() const { return row->findChild<DirectorySelector*>(); }
    [[nodiscard]] QToolButton* deletion() const
    {
        for (auto* each : row->findChildren<QToolButton*>())
            if (each->accessibleName() == QLatin1String("Delete")) return each;
        return nullptr;
    }

    /// Chooses an item as a person does with the keyboard, in the open list of the picker.
    static void choose(QComboBox* picker, int index)
    {
        picker->showPopup();
        auto* list = picker->view();
        list->setCurrentIndex(picker->model()->index(index, 0));
        QTest::keyClick(list, Qt::Key_Return);
    }

    RuleRow* row = nullptr;
};

QStringList itemsOf(const QComboBox* picker)
{
    QStringList items;
    for (int i = 0; i < picker->count(); ++i)
        items += picker->itemText(i);
    return items;
}

FilterRule ruleOfKind(RuleKind kind)
{
    FilterRule rule;
    rule.field = RuleField::kind;
    rule.kind = kind;
    return rule;
}

} // namespace

class TestRuleRow : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // What a row looks like.
    void aNewRuleShowsItsDefaults();
    void thePickersListTheRawValuesInTheirOrder();
    void theControlsStandInTheStatedOrderAndWidths();
    void aRuleOfKindShowsTheKindInPlaceOfOperatorAndValue();
    void whatFollowsTheValueStandsInOneColumn();
    void theRowIsCentredVertically();
    void theSelectorTakesTheSpaceThatIsLeft();

    // Editing.
    void choosingKindClearsTheValueAndRestartsOnce();
    void choosingExtensionAfterKindShowsTheFormerOperatorAndAnEmptyField();
    void everyPickerChangesTheRuleAndRestartsOnce();
    void choosingTheValueShownDoesNothing();
    void theArrowKeysChangeAPicker();
    void eachKeystrokeIsInTheRuleAtOnceAndRestartsNothing();
    void returnRestarts();
    void theEnterKeyOfTheNumberPadRestarts();
    void leavingTheFieldRestartsNothing();
    void textWrittenByAssistiveTechnologyIsInTheRule();
    void aVeryLongStoredValueIsNotCut();
    void aStoredValueWithALineBreakIsKeptUntilItIsEdited();
    void choosingADestinationChangesTheRuleInALaterTurnAndRestartsOnce();
    void choosingTheSameDestinationRestartsNothingAndRenewsTheBookmark();
    void cancellingTheDestinationChangesNothing();
    void theDeleteButtonDeletesTheRuleWithoutAQuestion();
    void deletingARuleFromItsOwnRowIsSafe();

    // What changes nothing.
    void theWheelOverAPickerScrollsAndChangesNothing();
    void fillingARowRestartsNothing();
    void showingTheRuleAgainKeepsCursorAndSelection();
    void showingAnotherValueReplacesTheText();

    // Access.
    void everyControlHasANameAndARole();
    void aPickerTellsItsChoiceAndOpensForAssistiveTechnology();
    void theHiddenControlsAreHiddenFromAssistiveTechnology();
    void theTabOrderIsTheOrderOnScreen();
};

void TestRuleRow::aNewRuleShowsItsDefaults()
{
    const RowBench bench;
    QCOMPARE(bench.picker("Field")->currentText(), QStringLiteral("Name"));
    QCOMPARE(bench.picker("Operator")->currentText(), QStringLiteral("contains"));
    QCOMPARE(bench.value()->text(), QString());
    QCOMPARE(bench.value()->placeholderText(), QStringLiteral("Default: All Files"));
    QCOMPARE(bench.selector()->text(), QStringLiteral("Select destination..."));
    QVERIFY(bench.picker("Operator")->isVisible());
    QVERIFY(bench.value()->isVisible());
    QVERIFY(!bench.picker("Kind")->isVisible());
    QVERIFY(bench.deletion()->isVisible());
    QVERIFY(bench.deletion()->text().isEmpty());
    QCOMPARE(bench.deletion()->icon().pixmap(16).toImage(),
             symbolIcon(Symbol::minusCircle).pixmap(16).toImage());
    QVERIFY(bench.deletion()->autoRaise());
}

void TestRuleRow::thePickersListTheRawValuesInTheirOrder()
{
    const RowBench bench;
    QCOMPARE(itemsOf(bench.picker("Field")), QStringLiteral("Name Extension Kind").split(QLatin1Char(' ')));
    QCOMPARE(itemsOf(bench.picker("Operator")), QStringLiteral("contains is").split(QLatin1Char(' ')));
    QCOMPARE(itemsOf(bench.picker("Kind")),
             QStringLiteral("Image Video Document Folder Audio Application").split(QLatin1Char(' ')));
}

void TestRuleRow::theControlsStandInTheStatedOrderAndWidths()
{
    const RowBench bench;
    QCOMPARE(bench.picker("Field")->width(), 120);
    QCOMPARE(bench.picker("Operator")->width(), 120);
    QCOMPARE(bench.picker("Kind")->maximumWidth(), 120);
    QCOMPARE(bench.picker("Kind")->minimumWidth(), 120);
    QCOMPARE(bench.value()->width(), 180);
    QVERIFY(bench.selector()->width() >= 220);

    QLabel* moveTo = nullptr;
    for (auto* each : bench.row->findChildren<QLabel*>(Qt::FindDirectChildrenOnly))
        moveTo = each;
    QVERIFY(moveTo);
    QCOMPARE(moveTo->text(), QStringLiteral("move to"));
    const QList<QWidget*> order{bench.picker("Field"), bench.picker("Operator"), bench.value(), moveTo,
                                bench.selector(),      bench.deletion()};
    for (qsizetype i = 1; i < order.size(); ++i)
        QVERIFY(order.at(i - 1)->geometry().right() < order.at(i)->geometry().left());
}

void TestRuleRow::aRuleOfKindShowsTheKindInPlaceOfOperatorAndValue()
{
    const RowBench bench(ruleOfKind(RuleKind::audio));
    QCOMPARE(bench.picker("Field")->currentText(), QStringLiteral("Kind"));
    QVERIFY(bench.picker("Kind")->isVisible());
    QCOMPARE(bench.picker("Kind")->currentText(), QStringLiteral("Audio"));
    QCOMPARE(bench.picker("Kind")->width(), 120);
    QVERIFY(!bench.picker("Operator")->isVisible());
    QVERIFY(!bench.value()->isVisible());
}

void TestRuleRow::whatFollowsTheValueStandsInOneColumn()
{
    RowBench bench;
    const QRect selector = bench.selector()->geometry();
    const QRect operatorPlace = bench.picker("Operator")->geometry();
    bench.state.setField(bench.rule(0).id, RuleField::kind);
    bench.row->layout()->activate();
    QCOMPARE(bench.picker("Kind")->geometry(), operatorPlace);
    QCOMPARE(bench.selector()->geometry(), selector);
}

void TestRuleRow::theRowIsCentredVertically()
{
    const RowBench bench;
    const int centre = bench.row->rect().center().y();
    for (const QWidget* each : {static_cast<QWidget*>(bench.picker("Field")), bench.row->controls().at(3),
                                static_cast<QWidget*>(bench.selector())})
        QVERIFY(std::abs(each->geometry().center().y() - centre) <= 1);
}

void TestRuleRow::theSelectorTakesTheSpaceThatIsLeft()
{
    const RowBench bench;
    const int width = bench.selector()->width();
    bench.row->resize(bench.row->width() + 100, bench.row->height());
    QCOMPARE(bench.selector()->width(), width + 100);
    bench.row->resize(bench.row->minimumSizeHint());
    QCOMPARE(bench.selector()->width(), 220);
}

void TestRuleRow::choosingKindClearsTheValueAndRestartsOnce()
{
    RowBench bench;
    QTest::keyClicks(bench.value(), QStringLiteral("invoice"));
    RowBench::choose(bench.picker("Field"), 2);
    QCOMPARE(bench.rule(0).field, RuleField::kind);
    QCOMPARE(bench.rule(0).value, QString());
    QCOMPARE(bench.value()->text(), QString());
    QVERIFY(bench.picker("Kind")->isVisible());
    QVERIFY(!bench.picker("Operator")->isVisible());
    QVERIFY(!bench.value()->isVisible());
    QCOMPARE(bench.restarts(), 1);
    QVERIFY(!bench.wasSaved());
}

void TestRuleRow::choosingExtensionAfterKindShowsTheFormerOperatorAndAnEmptyField()
{
    RowBench bench;
    RowBench::choose(bench.picker("Operator"), 1);
    QTest::keyClicks(bench.value(), QStringLiteral("pdf"));
    RowBench::choose(bench.picker("Field"), 2);
    RowBench::choose(bench.picker("Field"), 1);
    QVERIFY(bench.picker("Operator")->isVisible());
    QCOMPARE(bench.picker("Operator")->currentText(), QStringLiteral("is"));
    QVERIFY(bench.value()->isVisible());
    QCOMPARE(bench.value()->text(), QString());
    QVERIFY(!bench.picker("Kind")->isVisible());
}

void TestRuleRow::everyPickerChangesTheRuleAndRestartsOnce()
{
    RowBench bench;
    RowBench::choose(bench.picker("Operator"), 1);
    QCOMPARE(bench.rule(0).operatorType, RuleOperator::isEqual);
    QCOMPARE(bench.restarts(), 1);
    RowBench::choose(bench.picker("Field"), 2);
    QCOMPARE(bench.restarts(), 1);
    RowBench::choose(bench.picker("Kind"), 5);
    QCOMPARE(bench.rule(0).kind, RuleKind::application);
    QCOMPARE(bench.restarts(), 1);
    QVERIFY(!bench.wasSaved());
}

void TestRuleRow::choosingTheValueShownDoesNothing()
{
    RowBench bench;
    for (const char* title : {"Field", "Operator"})
        RowBench::choose(bench.picker(title), 0);
    QCOMPARE(bench.restarts(), 0);
    bench.state.setField(bench.rule(0).id, RuleField::kind);
    QCOMPARE(bench.restarts(), 1);
    RowBench::choose(bench.picker("Kind"), 0);
    QCOMPARE(bench.restarts(), 0);
}

void TestRuleRow::theArrowKeysChangeAPicker()
{
    RowBench bench;
    QTest::keyClick(bench.picker("Field"), Qt::Key_Down);
    QCOMPARE(bench.rule(0).field, RuleField::fileExtension);
    QCOMPARE(bench.restarts(), 1);
}

void TestRuleRow::eachKeystrokeIsInTheRuleAtOnceAndRestartsNothing()
{
    RowBench bench;
    QTest::keyClicks(bench.value(), QStringLiteral("in"));
    QCOMPARE(bench.rule(0).value, QStringLiteral("in"));
    QTest::keyClick(bench.value(), Qt::Key_Backspace);
    QCOMPARE(bench.rule(0).value, QStringLiteral("i"));
    QTest::keyClick(bench.value(), Qt::Key_Z, Qt::ControlModifier);
    QCOMPARE(bench.rule(0).value, bench.value()->text());
    QCOMPARE(bench.restarts(), 0);
    QVERIFY(!bench.wasSaved());
}

void TestRuleRow::returnRestarts()
{
    RowBench bench;
    QTest::keyClicks(bench.value(), QStringLiteral("invoice"));
    QTest::keyClick(bench.value(), Qt::Key_Return);
    QCOMPARE(bench.restarts(), 1);
    QCOMPARE(bench.rule(0).value, QStringLiteral("invoice"));
    QVERIFY(!bench.wasSaved());
}

void TestRuleRow::theEnterKeyOfTheNumberPadRestarts()
{
    RowBench bench;
    QTest::keyClick(bench.value(), Qt::Key_Enter, Qt::KeypadModifier);
    QCOMPARE(bench.restarts(), 1);
}

void TestRuleRow::leavingTheFieldRestartsNothing()
{
    RowBench bench;
    bench.value()->setFocus();
    QTest::keyClicks(bench.value(), QStringLiteral("invoice"));
    QTest::keyClick(bench.value(), Qt::Key_Tab);
    QVERIFY(!bench.value()->hasFocus());
    QCOMPARE(bench.restarts(), 0);
}

void TestRuleRow::textWrittenByAssistiveTechnologyIsInTheRule()
{
    RowBench bench;
    QAccessibleInterface* spoken = QAccessible::queryAccessibleInterface(bench.value());
    spoken->editableTextInterface()->insertText(0, QStringLiteral("invoice"));
    QCOMPARE(bench.rule(0).value, QStringLiteral("invoice"));
    QCOMPARE(bench.restarts(), 0);
}

void TestRuleRow::aVeryLongStoredValueIsNotCut()
{
    FilterRule rule;
    rule.value = QString(100000, QLatin1Char('x'));
    RowBench bench(rule);
    QTest::keyClick(bench.value(), Qt::Key_End);
    QTest::keyClicks(bench.value(), QStringLiteral("y"));
    QCOMPARE(bench.rule(0).value.size(), 100001);
}

void TestRuleRow::aStoredValueWithALineBreakIsKeptUntilItIsEdited()
{
    FilterRule rule;
    rule.value = QStringLiteral("a\nb");
    RowBench bench(rule);
    bench.row->showRule(bench.rule(0));
    QCOMPARE(bench.rule(0).value, QStringLiteral("a\nb"));
}

void TestRuleRow::choosingADestinationChangesTheRuleInALaterTurnAndRestartsOnce()
{
    RowBench bench;
    const FileUrl pictures = ContentStateFixture::makeFolder(QStringLiteral("Pictures")).url;
    const FolderDialogUser user(FolderDialogUser::chooser(pictures));
    bench.selector()->findChild<QToolButton*>()->click();
    QVERIFY(!bench.rule(0).destination);
    bench.settle();
    QCOMPARE(bench.rule(0).destination, pictures);
    QVERIFY(bench.rule(0).destinationBookmarkData);
    QCOMPARE(resolveBookmark(*bench.rule(0).destinationBookmarkData, MountTable()), pictures);
    QCOMPARE(bench.selector()->text(), QStringLiteral("~/Pictures"));
    QCOMPARE(bench.restarts(), 1);
    QVERIFY(!bench.wasSaved());
}

void TestRuleRow::choosingTheSameDestinationRestartsNothingAndRenewsTheBookmark()
{
    FilterRule rule;
    const FileUrl pictures = ContentStateFixture::makeFolder(QStringLiteral("Pictures")).url;
    rule.destination = pictures;
    rule.destinationBookmarkData = QByteArray("old");
    RowBench bench(rule);
    const FolderDialogUser user(FolderDialogUser::chooser(pictures));
    bench.selector()->findChild<QToolButton*>()->click();
    QCOMPARE(bench.restarts(), 0);
    QVERIFY(bench.rule(0).destinationBookmarkData);
    QCOMPARE(resolveBookmark(*bench.rule(0).destinationBookmarkData, MountTable()), pictures);
}

void TestRuleRow::cancellingTheDestinationChangesNothing()
{
    FilterRule rule;
    rule.destination = FileUrl::fromPath("/srv/Pictures");
    rule.destinationBookmarkData = QByteArray("old");
    RowBench bench(rule);
    const FolderDialogUser user(FolderDialogUser::cancel);
    bench.selector()->findChild<QToolButton*>()->click();
    QCOMPARE(bench.restarts(), 0);
    QCOMPARE(user.dialogs(), 1);
    QCOMPARE(bench.rule(0).destination, rule.destination);
    QCOMPARE(bench.rule(0).destinationBookmarkData, rule.destinationBookmarkData);
}

void TestRuleRow::theDeleteButtonDeletesTheRuleWithoutAQuestion()
{
    RowBench bench;
    QTest::mouseClick(bench.deletion(), Qt::LeftButton);
    QVERIFY(bench.folder(0).rules.empty());
    QCOMPARE(bench.restarts(), 1);
    QVERIFY(!bench.wasSaved());
}

void TestRuleRow::deletingARuleFromItsOwnRowIsSafe()
{
    RowBench bench;
    connect(&bench.state, &ContentState::rulesChanged, bench.row, [&] { bench.row->deleteLater(); });
    const QPointer<RuleRow> row = bench.row;
    QTest::keyClick(bench.deletion(), Qt::Key_Space);
    QVERIFY(bench.folder(0).rules.empty());
    bench.settle();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QVERIFY(!row);
    bench.row = nullptr;
}

void TestRuleRow::theWheelOverAPickerScrollsAndChangesNothing()
{
    QScrollArea around;
    auto* content = new QWidget;
    around.setWidget(content);
    content->resize(1200, 5000);
    around.resize(1250, 300);
    around.show();
    FilterRule rule;
    rule.operatorType = RuleOperator::isEqual;
    RowBench bench(rule, content);
    bench.row->move(0, 150);
    const auto turnWheelOver = [&](const char* title) {
        for (const int delta : {-120, 120}) {
            auto* picker = bench.picker(title);
            picker->setFocus();
            const int before = around.verticalScrollBar()->value();
            const QPoint place = picker->mapTo(&around, picker->rect().center());
            QWheelEvent wheel(place, around.mapToGlobal(place), {}, {0, delta}, Qt::NoButton, Qt::NoModifier,
                              Qt::NoScrollPhase, false);
            // Only an event from outside is handed on by a widget that ignores it.
            QSpontaneKeyEvent::setSpontaneous(&wheel);
            qApp->notify(around.windowHandle(), &wheel);
            QVERIFY(around.verticalScrollBar()->value() != before);
        }
    };
    turnWheelOver("Field");
    turnWheelOver("Operator");
    QCOMPARE(bench.rule(0), bench.folder(0).rules.at(0));
    QCOMPARE(bench.rule(0).field, RuleField::name);
    QCOMPARE(bench.rule(0).operatorType, RuleOperator::isEqual);
    QCOMPARE(bench.restarts(), 0);

    bench.state.setField(bench.rule(0).id, RuleField::kind);
    bench.state.setKind(bench.rule(0).id, RuleKind::document);
    bench.row->layout()->activate();
    (void)bench.restarts();
    turnWheelOver("Kind");
    QCOMPARE(bench.rule(0).kind, RuleKind::document);
    QCOMPARE(bench.restarts(), 0);
}

void TestRuleRow::fillingARowRestartsNothing()
{
    RowBench bench;
    FilterRule other = ruleOfKind(RuleKind::video);
    other.id = bench.rule(0).id;
    other.operatorType = RuleOperator::isEqual;
    other.value = QStringLiteral("x");
    other.destination = FileUrl::fromPath("/srv");
    bench.row->showRule(other);
    QCOMPARE(bench.picker("Kind")->currentText(), QStringLiteral("Video"));
    QCOMPARE(bench.rule(0).value, QString());
    QCOMPARE(bench.rule(0).field, RuleField::name);
    QCOMPARE(bench.restarts(), 0);
}

void TestRuleRow::showingTheRuleAgainKeepsCursorAndSelection()
{
    RowBench bench;
    QTest::keyClicks(bench.value(), QStringLiteral("invoice"));
    bench.value()->setSelection(2, 3);
    bench.row->showRule(bench.rule(0));
    QCOMPARE(bench.value()->selectedText(), QStringLiteral("voi"));
    QCOMPARE(bench.value()->cursorPosition(), 5);
}

void TestRuleRow::showingAnotherValueReplacesTheText()
{
    RowBench bench;
    FilterRule changed = bench.rule(0);
    changed.value = QStringLiteral("receipt");
    bench.row->showRule(changed);
    QCOMPARE(bench.value()->text(), QStringLiteral("receipt"));
}

void TestRuleRow::everyControlHasANameAndARole()
{
    const RowBench bench;
    const auto check = [](QWidget* control, QAccessible::Role role, const char* name) {
        QAccessibleInterface* spoken = QAccessible::queryAccessibleInterface(control);
        QCOMPARE(spoken->role(), role);
        QCOMPARE(spoken->text(QAccessible::Name), QString::fromLatin1(name));
    };
    const auto controls = bench.row->controls();
    QCOMPARE(controls.size(), 6);
    check(controls.at(0), QAccessible::ComboBox, "Field");
    check(controls.at(1), QAccessible::ComboBox, "Operator");
    check(controls.at(2), QAccessible::ComboBox, "Kind");
    check(controls.at(3), QAccessible::EditableText, "Value");
    check(controls.at(4), QAccessible::Button, "Select destination...");
    check(controls.at(5), QAccessible::Button, "Delete");
}

void TestRuleRow::aPickerTellsItsChoiceAndOpensForAssistiveTechnology()
{
    RowBench bench;
    auto* picker = bench.picker("Operator");
    QAccessibleInterface* spoken = QAccessible::queryAccessibleInterface(picker);
    QCOMPARE(spoken->text(QAccessible::Value), QStringLiteral("contains"));
    QCOMPARE(spoken->textInterface()->text(0, spoken->textInterface()->characterCount()),
             QStringLiteral("contains"));
    QVERIFY(spoken->state().expandable);
    QVERIFY(!spoken->state().expanded);

    QCOMPARE(spoken->childCount(), 1);
    QAccessibleInterface* list = spoken->child(0);
    QCOMPARE(spoken->indexOfChild(list), 0);
    QCOMPARE(list->childCount(), 2);
    QCOMPARE(list->child(1)->text(QAccessible::Name), QStringLiteral("is"));

    auto* actions = spoken->actionInterface();
    QVERIFY(actions->actionNames().contains(QAccessibleActionInterface::pressAction()));
    actions->doAction(QAccessibleActionInterface::pressAction());
    QVERIFY(picker->view()->isVisible());
    QVERIFY(spoken->state().expanded);
    QTest::keyClick(picker->view(), Qt::Key_Down);
    QTest::keyClick(picker->view(), Qt::Key_Return);
    QCOMPARE(bench.rule(0).operatorType, RuleOperator::isEqual);
    QCOMPARE(spoken->text(QAccessible::Value), QStringLiteral("is"));
    QCOMPARE(bench.restarts(), 1);
}

void TestRuleRow::theHiddenControlsAreHiddenFromAssistiveTechnology()
{
    const RowBench bench;
    QVERIFY(QAccessible::queryAccessibleInterface(bench.picker("Kind"))->state().invisible);
    QVERIFY(!QAccessible::queryAccessibleInterface(bench.picker("Operator"))->state().invisible);
}

void TestRuleRow::theTabOrderIsTheOrderOnScreen()
{
    const RowBench bench;
    QList<QWidget*> expected;
    for (QWidget* control : bench.row->controls())
        if (control->isVisible()) expected += control;
    QCOMPARE(expected.size(), 5);
    expected.first()->setFocus();
    for (QWidget* control : expected) {
        QVERIFY2(control->hasFocus(), qPrintable(control->accessibleName()));
        QTest::keyClick(control, Qt::Key_Tab);
    }
}

HARBEX_WINDOW_TEST_MAIN(TestRuleRow)
#include "tst_RuleRow.moc"
