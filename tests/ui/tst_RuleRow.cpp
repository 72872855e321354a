#include "support/ContentStateFixture.h"
#include "support/FolderDialogUser.h"
#include "support/WindowTestMain.h"
#include "ui/DimmedInk.h"
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
#include <QToolButton>
#include <QWheelEvent>
#include <QWindow>
#include <qtestspontaneevent.h>

#include <cstdlib>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// A row on screen that edits the only rule of the only folder.
struct RowFixture : ContentStateFixture {
    explicit RowFixture(const FilterRule& rule = {}, QWidget* parent = nullptr)
    {
        auto folder = test::makeFolder("Watched");
        folder.rules = {rule};
        appearWith({folder}, folder.id);
        row = new RuleRow(state, this->rule(0), parent);
        QObject::connect(&state, &ContentState::ruleChanged, row, [this] { row->showRule(this->rule(0)); });
        row->resize(row->sizeHint());
        row->show();
        row->activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(row->window()));
    }
    ~RowFixture() { delete row; }

    template <class Control>
    [[nodiscard]] Control* control(const char* name) const
    {
        for (QWidget* each : row->controls())
            if (each->accessibleName() == QLatin1String(name)) return qobject_cast<Control*>(each);
        return nullptr;
    }
    [[nodiscard]] QComboBox* picker(const char* name) const { return control<QComboBox>(name); }
    [[nodiscard]] QLineEdit* value() const { return control<QLineEdit>("Value"); }
    [[nodiscard]] QToolButton* deletion() const { return control<QToolButton>("Delete"); }
    [[nodiscard]] DirectorySelector* selector() const { return row->findChild<DirectorySelector*>(); }

    /// Chooses an item with the keyboard in the open list of a picker.
    void choose(const char* name, int index) const
    {
        auto* list = picker(name)->view();
        picker(name)->showPopup();
        list->setCurrentIndex(list->model()->index(index, 0));
        QTest::keyClick(list, Qt::Key_Return);
    }

    /// Returns the names of the visible controls, from left to right.
    [[nodiscard]] QStringList visibleControls() const
    {
        QStringList names;
        for (const QWidget* each : row->controls())
            if (each->isVisible()) names += each->accessibleName();
        return names;
    }

    RuleRow* row = nullptr;
};

const QStringList controlsOfText{QStringLiteral("Field"), QStringLiteral("Operator"), QStringLiteral("Value"),
                                 QStringLiteral("Select destination..."), QStringLiteral("Delete")};
const QStringList controlsOfKind{QStringLiteral("Field"), QStringLiteral("Kind"),
                                 QStringLiteral("Select destination..."), QStringLiteral("Delete")};

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
    // What a row shows.
    void aNewRuleShowsItsDefaults()
    {
        const RowFixture fixture;
        QCOMPARE(fixture.picker("Field")->currentText(), QStringLiteral("Name"));
        QCOMPARE(fixture.picker("Operator")->currentText(), QStringLiteral("contains"));
        QCOMPARE(fixture.value()->text(), QString());
        QCOMPARE(fixture.value()->placeholderText(), QStringLiteral("Default: All Files"));
        QCOMPARE(fixture.selector()->text(), QStringLiteral("Select destination..."));
        QCOMPARE(fixture.visibleControls(), controlsOfText);
        QVERIFY(fixture.deletion()->text().isEmpty());
        QCOMPARE(fixture.deletion()->icon().pixmap(16).toImage(),
                 symbolIcon(Symbol::minusCircle).pixmap(16).toImage());
        QVERIFY(fixture.deletion()->autoRaise());
    }

    void aRuleOfKindShowsTheKindInsteadOfOperatorAndValue()
    {
        const RowFixture fixture(ruleOfKind(RuleKind::audio));
        QCOMPARE(fixture.picker("Field")->currentText(), QStringLiteral("Kind"));
        QCOMPARE(fixture.picker("Kind")->currentText(), QStringLiteral("Audio"));
        QCOMPARE(fixture.visibleControls(), controlsOfKind);
    }

    void thePickersListAllChoices()
    {
        const RowFixture fixture;
        const auto itemsOf = [&](const char* name) {
            QStringList items;
            for (int i = 0; i < fixture.picker(name)->count(); ++i)
                items += fixture.picker(name)->itemText(i);
            return items.join(QLatin1Char(' '));
        };
        QCOMPARE(itemsOf("Field"), QStringLiteral("Name Extension Kind"));
        QCOMPARE(itemsOf("Operator"), QStringLiteral("contains is"));
        QCOMPARE(itemsOf("Kind"), QStringLiteral("Image Video Document Folder Audio Application"));
    }

    void theControlsHaveTheirOrderAndWidths()
    {
        RowFixture fixture;
        QCOMPARE(fixture.picker("Field")->width(), 120);
        QCOMPARE(fixture.picker("Operator")->width(), 120);
        QCOMPARE(fixture.value()->width(), 180);
        const auto* moveTo = fixture.row->findChild<QLabel*>(QString(), Qt::FindDirectChildrenOnly);
        QVERIFY(moveTo);
        QCOMPARE(moveTo->text(), QStringLiteral("move to"));
        const QList<const QWidget*> order{fixture.picker("Field"), fixture.picker("Operator"),
                                          fixture.value(),         moveTo,
                                          fixture.selector(),      fixture.deletion()};
        int right = -1;
        for (const QWidget* each : order) {
            QVERIFY(each->geometry().left() > right);
            right = each->geometry().right();
            QVERIFY(std::abs(each->geometry().center().y() - fixture.row->rect().center().y()) <= 1);
        }

        // The kind takes the place of the operator. What follows stays in its column.
        const QRect selector = fixture.selector()->geometry();
        const QRect operatorPlace = fixture.picker("Operator")->geometry();
        fixture.state.setField(fixture.rule(0).id, RuleField::kind);
        fixture.row->layout()->activate();
        QCOMPARE(fixture.picker("Kind")->geometry(), operatorPlace);
        QCOMPARE(fixture.selector()->geometry(), selector);

        // The selector takes the remaining space.
        fixture.row->resize(fixture.row->width() + 100, fixture.row->height());
        QCOMPARE(fixture.selector()->width(), selector.width() + 100);
        fixture.row->resize(fixture.row->minimumSizeHint());
        QCOMPARE(fixture.selector()->width(), 220);
    }

    void widthsAndIconsGrowWithTheFont()
    {
        RowFixture fixture;
        const QSize icon = fixture.deletion()->iconSize();
        QFont font = fixture.row->font();
        font.setPixelSize(24);
        fixture.row->setFont(font);
        fixture.row->resize(fixture.row->minimumSizeHint());
        QCOMPARE(fixture.picker("Field")->width(), 240);
        QCOMPARE(fixture.picker("Operator")->width(), 240);
        QCOMPARE(fixture.picker("Kind")->width(), 240);
        QCOMPARE(fixture.value()->width(), 360);
        QCOMPARE(fixture.selector()->width(), 440);
        QCOMPARE(fixture.deletion()->iconSize(), icon * 2);
        QCOMPARE(fixture.control<QToolButton>("Select destination...")->iconSize(), icon * 2);
        // They do not become smaller than at the normal size.
        font.setPixelSize(9);
        fixture.row->setFont(font);
        QCOMPARE(fixture.picker("Field")->width(), 120);
        QCOMPARE(fixture.deletion()->iconSize(), icon);
    }

    void thePlaceholderIsDimmedOnEveryPalette()
    {
        const RowFixture fixture;
        for (const QPalette& palette : {QPalette(QColor(0x1b1e20)), QPalette(Qt::white)}) {
            QApplication::setPalette(palette);
            QCoreApplication::processEvents();
            const QPalette& shown = fixture.value()->palette();
            QCOMPARE(shown.color(QPalette::PlaceholderText),
                     dimmedInk(shown, QPalette::Text, QPalette::Base));
            QCOMPARE(shown.color(QPalette::Base), palette.color(QPalette::Base));
        }
        QApplication::setPalette(QPalette());
    }

    // Editing.
    void everyPickerChangesTheRuleAndRestartsOnce()
    {
        RowFixture fixture;
        fixture.choose("Operator", 1);
        QCOMPARE(fixture.rule(0).operatorType, RuleOperator::isEqual);
        QCOMPARE(fixture.restarts(), 1);

        QTest::keyClicks(fixture.value(), QStringLiteral("invoice"));
        fixture.choose("Field", 2);
        QCOMPARE(fixture.rule(0).field, RuleField::kind);
        QCOMPARE(fixture.rule(0).value, QString());
        QCOMPARE(fixture.value()->text(), QString());
        QCOMPARE(fixture.visibleControls(), controlsOfKind);
        QCOMPARE(fixture.restarts(), 1);

        fixture.choose("Kind", 5);
        QCOMPARE(fixture.rule(0).kind, RuleKind::application);
        QCOMPARE(fixture.restarts(), 1);

        fixture.choose("Field", 1);
        QCOMPARE(fixture.visibleControls(), controlsOfText);
        QCOMPARE(fixture.picker("Operator")->currentText(), QStringLiteral("is"));
        QCOMPARE(fixture.value()->text(), QString());
        QCOMPARE(fixture.restarts(), 1);

        QTest::keyClick(fixture.picker("Field"), Qt::Key_Up);
        QCOMPARE(fixture.rule(0).field, RuleField::name);
        QCOMPARE(fixture.restarts(), 1);
        QVERIFY(!fixture.wasSaved());
    }

    void typedTextIsInTheRuleAtOnceAndReturnRestarts()
    {
        RowFixture fixture;
        fixture.value()->setFocus();
        QTest::keyClicks(fixture.value(), QStringLiteral("in"));
        QCOMPARE(fixture.rule(0).value, QStringLiteral("in"));
        QTest::keyClick(fixture.value(), Qt::Key_Backspace);
        QCOMPARE(fixture.rule(0).value, QStringLiteral("i"));
        QTest::keyClick(fixture.value(), Qt::Key_Z, Qt::ControlModifier);
        QVERIFY(fixture.value()->text() != QStringLiteral("i"));
        QCOMPARE(fixture.rule(0).value, fixture.value()->text());
        QTest::keyClick(fixture.value(), Qt::Key_Tab);
        QVERIFY(!fixture.value()->hasFocus());
        QCOMPARE(fixture.restarts(), 0);

        QTest::keyClick(fixture.value(), Qt::Key_Return);
        QCOMPARE(fixture.restarts(), 1);
        QTest::keyClick(fixture.value(), Qt::Key_Enter, Qt::KeypadModifier);
        QCOMPARE(fixture.restarts(), 1);
        QCOMPARE(fixture.rule(0).value, fixture.value()->text());
        QVERIFY(!fixture.wasSaved());
    }

    void textFromAssistiveTechnologyIsInTheRule()
    {
        RowFixture fixture;
        QAccessibleInterface* accessible = QAccessible::queryAccessibleInterface(fixture.value());
        accessible->editableTextInterface()->insertText(0, QStringLiteral("invoice"));
        QCOMPARE(fixture.rule(0).value, QStringLiteral("invoice"));
        QCOMPARE(fixture.restarts(), 0);
    }

    void aLongStoredValueIsNotCut()
    {
        FilterRule rule;
        rule.value = QString(100000, QLatin1Char('x'));
        const RowFixture fixture(rule);
        QTest::keyClick(fixture.value(), Qt::Key_End);
        QTest::keyClicks(fixture.value(), QStringLiteral("y"));
        QCOMPARE(fixture.rule(0).value.size(), 100001);
    }

    void aStoredValueWithALineBreakIsKeptUntilItIsEdited()
    {
        FilterRule rule;
        rule.value = QStringLiteral("a\nb");
        const RowFixture fixture(rule);
        fixture.row->showRule(fixture.rule(0));
        QCOMPARE(fixture.rule(0).value, QStringLiteral("a\nb"));
    }

    void aChosenDestinationIsSetLaterAndRestartsOnce()
    {
        RowFixture fixture;
        const FileUrl pictures = makeFolder("Pictures").url;
        const FolderDialogUser user(FolderDialogUser::chooser(pictures));
        fixture.selector()->findChild<QToolButton*>()->click();
        QVERIFY(!fixture.rule(0).destination);
        fixture.settle();
        QCOMPARE(fixture.rule(0).destination, pictures);
        QCOMPARE(folderOf(fixture.rule(0).destinationBookmarkData), pictures);
        QCOMPARE(fixture.selector()->text(), QStringLiteral("~/Pictures"));
        QCOMPARE(fixture.restarts(), 1);
        QVERIFY(!fixture.wasSaved());
    }

    void theDeleteButtonDeletesTheRuleAtOnce()
    {
        RowFixture fixture;
        QTest::mouseClick(fixture.deletion(), Qt::LeftButton);
        QVERIFY(fixture.folder(0).rules.empty());
        QCOMPARE(fixture.restarts(), 1);
        QVERIFY(!fixture.wasSaved());
    }

    void deletingARuleMayDeleteItsRow()
    {
        RowFixture fixture;
        connect(&fixture.state, &ContentState::rulesChanged, fixture.row,
                [&] { fixture.row->deleteLater(); });
        const QPointer<RuleRow> row = fixture.row;
        QTest::keyClick(fixture.deletion(), Qt::Key_Space);
        QVERIFY(fixture.folder(0).rules.empty());
        fixture.settle();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QVERIFY(!row);
        fixture.row = nullptr;
    }

    // What changes nothing.
    void theWheelOverAPickerScrollsAndChangesNothing_data()
    {
        QTest::addColumn<QByteArray>("picker");
        QTest::addColumn<RuleField>("field");
        QTest::newRow("field") << QByteArray("Field") << RuleField::fileExtension;
        QTest::newRow("operator") << QByteArray("Operator") << RuleField::fileExtension;
        QTest::newRow("kind") << QByteArray("Kind") << RuleField::kind;
    }

    void theWheelOverAPickerScrollsAndChangesNothing()
    {
        QFETCH(const QByteArray, picker);
        QFETCH(const RuleField, field);
        QScrollArea around;
        auto* content = new QWidget;
        around.setWidget(content);
        content->resize(1200, 5000);
        around.resize(1250, 300);
        around.show();
        FilterRule rule = ruleOfKind(RuleKind::document);
        rule.field = field;
        rule.operatorType = RuleOperator::isEqual;
        RowFixture fixture(rule, content);
        fixture.row->move(0, 150);

        auto* box = fixture.picker(picker.constData());
        QVERIFY(box->isVisible());
        for (const int delta : {-120, 120}) {
            box->setFocus();
            const int before = around.verticalScrollBar()->value();
            const QPoint place = box->mapTo(&around, box->rect().center());
            QWheelEvent wheel(place, around.mapToGlobal(place), {}, {0, delta}, Qt::NoButton, Qt::NoModifier,
                              Qt::NoScrollPhase, false);
            // The parent gets an ignored event only if it is spontaneous.
            QSpontaneKeyEvent::setSpontaneous(&wheel);
            qApp->notify(around.windowHandle(), &wheel);
            QVERIFY(around.verticalScrollBar()->value() != before);
        }
        QCOMPARE(fixture.rule(0), rule);
        QCOMPARE(fixture.restarts(), 0);
    }

    void showingARuleChangesNothingInTheState()
    {
        RowFixture fixture;
        FilterRule other = ruleOfKind(RuleKind::video);
        other.id = fixture.rule(0).id;
        other.operatorType = RuleOperator::isEqual;
        other.value = QStringLiteral("receipt");
        other.destination = FileUrl::fromPath("/srv");
        const FilterRule before = fixture.rule(0);
        fixture.row->showRule(other);
        QCOMPARE(fixture.picker("Kind")->currentText(), QStringLiteral("Video"));
        QCOMPARE(fixture.value()->text(), QStringLiteral("receipt"));
        QCOMPARE(fixture.rule(0), before);
        QCOMPARE(fixture.restarts(), 0);
    }

    void showingAnUnchangedValueKeepsCursorAndSelection()
    {
        RowFixture fixture;
        QTest::keyClicks(fixture.value(), QStringLiteral("invoice"));
        fixture.value()->setSelection(2, 3);
        fixture.row->showRule(fixture.rule(0));
        QCOMPARE(fixture.value()->selectedText(), QStringLiteral("voi"));
        QCOMPARE(fixture.value()->cursorPosition(), 5);
    }

    // Accessibility.
    void everyControlHasANameAndARole()
    {
        const RowFixture fixture;
        const auto check = [](QWidget* control, QAccessible::Role role, const char* name) {
            QAccessibleInterface* accessible = QAccessible::queryAccessibleInterface(control);
            QCOMPARE(accessible->role(), role);
            QCOMPARE(accessible->text(QAccessible::Name), QString::fromLatin1(name));
            QCOMPARE(bool(accessible->state().invisible), qstrcmp(name, "Kind") == 0);
        };
        const auto controls = fixture.row->controls();
        QCOMPARE(controls.size(), 6);
        check(controls.at(0), QAccessible::ComboBox, "Field");
        check(controls.at(1), QAccessible::ComboBox, "Operator");
        check(controls.at(2), QAccessible::ComboBox, "Kind");
        check(controls.at(3), QAccessible::EditableText, "Value");
        check(controls.at(4), QAccessible::Button, "Select destination...");
        check(controls.at(5), QAccessible::Button, "Delete");
    }

    void assistiveTechnologyReadsAndOpensAPicker()
    {
        RowFixture fixture;
        auto* picker = fixture.picker("Operator");
        QAccessibleInterface* accessible = QAccessible::queryAccessibleInterface(picker);
        QCOMPARE(accessible->text(QAccessible::Value), QStringLiteral("contains"));
        QCOMPARE(accessible->textInterface()->text(0, accessible->textInterface()->characterCount()),
                 QStringLiteral("contains"));
        QVERIFY(accessible->state().expandable);
        QVERIFY(!accessible->state().expanded);

        QCOMPARE(accessible->childCount(), 1);
        QAccessibleInterface* list = accessible->child(0);
        QCOMPARE(accessible->indexOfChild(list), 0);
        QCOMPARE(list->childCount(), 2);
        QCOMPARE(list->child(1)->text(QAccessible::Name), QStringLiteral("is"));

        auto* actions = accessible->actionInterface();
        QVERIFY(actions->actionNames().contains(QAccessibleActionInterface::pressAction()));
        actions->doAction(QAccessibleActionInterface::pressAction());
        QVERIFY(picker->view()->isVisible());
        QVERIFY(accessible->state().expanded);
        QTest::keyClick(picker->view(), Qt::Key_Down);
        QTest::keyClick(picker->view(), Qt::Key_Return);
        QCOMPARE(fixture.rule(0).operatorType, RuleOperator::isEqual);
        QCOMPARE(accessible->text(QAccessible::Value), QStringLiteral("is"));
        QCOMPARE(fixture.restarts(), 1);
    }
};

HARBEX_WINDOW_TEST(TestRuleRow)
#include "tst_RuleRow.moc"
