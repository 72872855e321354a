#include "support/ContentStateFixture.h"
#include "support/DocumentFolder.h"
#include "support/FolderDialogUser.h"
#include "support/Widgets.h"
#include "support/WindowTestMain.h"
#include "ui/DimmedInk.h"
#include "ui/DirectorySelector.h"
#include "ui/Icons.h"
#include "ui/RuleRow.h"

#include <qtestspontaneevent.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// A row on screen that edits the only rule of the only folder.
struct RowFixture : ContentStateFixture {
    explicit RowFixture(const FilterRule& rule = {}, QWidget* parent = nullptr)
        : ContentStateFixture({{.url = makeFolder("Watched").url, .bookmarkData = {}, .rules = {rule}}})
    {
        row = std::make_unique<RuleRow>(state, this->rule(0), parent);
        QObject::connect(&state, &ContentState::ruleChanged, row.get(),
                         [this] { row->showRule(this->rule(0)); });
        row->resize(row->sizeHint());
        activate(*row);
    }

    template <class Control>
    [[nodiscard]] Control* control(const char* name) const
    {
        for (QWidget* each : row->controls())
            if (each->accessibleName() == name) return qobject_cast<Control*>(each);
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

    /// Returns the visible controls and labels as a sentence, for example "[Name] [is] [invoice] move to
    /// [~/A]".
    [[nodiscard]] QByteArray shown() const
    {
        QStringList words;
        for (int i = 0; i < row->layout()->count(); ++i) {
            const QWidget* each = row->layout()->itemAt(i)->widget();
            if (!each->isVisible()) continue;
            if (const auto* label = qobject_cast<const QLabel*>(each)) words += label->text();
            if (const auto* box = qobject_cast<const QComboBox*>(each))
                words += u'[' + box->currentText() + u']';
            if (const auto* field = qobject_cast<const QLineEdit*>(each))
                words += u'[' + field->text() + u']';
        }
        return (words.join(u' ') + " [" + selector()->text() + u']').toUtf8();
    }

    /// Returns the rule of the state in the same form, with all its parts.
    [[nodiscard]] QByteArray stored() const
    {
        const FilterRule& stored = rule(0);
        const QStringList words{rawValue(stored.field), rawValue(stored.operatorType), stored.value,
                                rawValue(stored.kind)};
        return words.join(u' ').toUtf8();
    }

    std::unique_ptr<RuleRow> row;
};

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
    void aRowReadsAsASentence()
    {
        const RowFixture fixture;
        QCOMPARE(fixture.shown(), "[Name] [contains] [] move to [Select destination...]");
        QCOMPARE(fixture.value()->placeholderText(), "Default: All Files");
        QVERIFY(fixture.deletion()->isVisible());
        QVERIFY(fixture.deletion()->text().isEmpty());
        QCOMPARE(fixture.deletion()->icon().pixmap(16).toImage(),
                 symbolIcon(Symbol::minusCircle).pixmap(16).toImage());
        QVERIFY(fixture.deletion()->autoRaise());
        QCOMPARE(RowFixture(ruleOfKind(RuleKind::audio)).shown(),
                 "[Kind] [Audio] move to [Select destination...]");
    }

    void thePickersListAllChoices()
    {
        const RowFixture fixture;
        const auto itemsOf = [&](const char* name) {
            QStringList items;
            for (int i = 0; i < fixture.picker(name)->count(); ++i)
                items += fixture.picker(name)->itemText(i);
            return items.join(u' ');
        };
        QCOMPARE(itemsOf("Field"), "Name Extension Kind");
        QCOMPARE(itemsOf("Operator"), "contains is");
        QCOMPARE(itemsOf("Kind"), "Image Video Document Folder Audio Application");
    }

    void theControlsHaveTheirOrderAndWidths()
    {
        RowFixture fixture;
        QCOMPARE(fixture.picker("Field")->width(), 120);
        QCOMPARE(fixture.picker("Operator")->width(), 120);
        QCOMPARE(fixture.value()->width(), 180);
        const auto* moveTo = fixture.row->findChild<QLabel*>(QString(), Qt::FindDirectChildrenOnly);
        QVERIFY(moveTo);
        QCOMPARE(moveTo->text(), "move to");
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
        const auto check = [&](const QByteArray& stored, const QByteArray& shown) {
            QCOMPARE(fixture.stored(), stored);
            QCOMPARE(fixture.shown(), shown + " move to [Select destination...]");
            QCOMPARE(fixture.restarts(), 1);
            QVERIFY(!fixture.wasSaved());
        };
        fixture.choose("Operator", 1);
        check("Name is  Image", "[Name] [is] []");
        QTest::keyClicks(fixture.value(), "invoice");
        fixture.choose("Field", 2);
        check("Kind is  Image", "[Kind] [Image]");
        fixture.choose("Kind", 5);
        check("Kind is  Application", "[Kind] [Application]");
        fixture.choose("Field", 1);
        check("Extension is  Application", "[Extension] [is] []");
        QTest::keyClick(fixture.picker("Field"), Qt::Key_Up);
        check("Name is  Application", "[Name] [is] []");
    }

    void typedTextIsInTheRuleAtOnceAndReturnRestarts()
    {
        RowFixture fixture;
        fixture.value()->setFocus();
        QTest::keyClicks(fixture.value(), "in");
        QCOMPARE(fixture.rule(0).value, "in");
        QTest::keyClick(fixture.value(), Qt::Key_Backspace);
        QCOMPARE(fixture.rule(0).value, "i");
        QTest::keyClick(fixture.value(), Qt::Key_Z, Qt::ControlModifier);
        QVERIFY(fixture.value()->text() != "i");
        QCOMPARE(fixture.rule(0).value, fixture.value()->text());
        QTest::keyClick(fixture.value(), Qt::Key_Tab);
        QVERIFY(!fixture.value()->hasFocus());
        // As assistive technology writes it.
        accessible(fixture.value()).editableTextInterface()->insertText(0, "x");
        QVERIFY(fixture.rule(0).value.startsWith(u'x'));
        QCOMPARE(fixture.restarts(), 0);

        QTest::keyClick(fixture.value(), Qt::Key_Return);
        QCOMPARE(fixture.restarts(), 1);
        QTest::keyClick(fixture.value(), Qt::Key_Enter, Qt::KeypadModifier);
        QCOMPARE(fixture.restarts(), 1);
        QCOMPARE(fixture.rule(0).value, fixture.value()->text());
        QVERIFY(!fixture.wasSaved());
    }

    void aStoredValueIsKeptUntilItIsEdited()
    {
        FilterRule rule;
        rule.value = "a\nb";
        const RowFixture twoLines(rule);
        twoLines.row->showRule(twoLines.rule(0));
        QCOMPARE(twoLines.rule(0).value, "a\nb");

        rule.value = QString(100000, u'x');
        const RowFixture fixture(rule);
        QTest::keyClick(fixture.value(), Qt::Key_End);
        QTest::keyClicks(fixture.value(), "y");
        QCOMPARE(fixture.rule(0).value.size(), 100001);
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
        QCOMPARE(fixture.selector()->text(), "~/Pictures");
        QCOMPARE(fixture.restarts(), 1);
        QVERIFY(!fixture.wasSaved());
    }

    // What changes nothing.
    void theWheelOverAPickerScrollsAndChangesNothing()
    {
        QScrollArea around;
        auto* content = new QWidget;
        around.setWidget(content);
        content->resize(1200, 5000);
        around.resize(1250, 300);
        around.show();
        const FilterRule rule = ruleOfKind(RuleKind::document);
        RowFixture fixture(rule, content);
        fixture.row->move(0, 150);
        for (const char* name : {"Field", "Kind"}) {
            auto* picker = fixture.picker(name);
            QVERIFY2(picker->isVisible(), name);
            for (const int delta : {-120, 120}) {
                picker->setFocus();
                const int before = around.verticalScrollBar()->value();
                const QPoint place = picker->mapTo(&around, picker->rect().center());
                QWheelEvent wheel(place, around.mapToGlobal(place), {}, {0, delta}, Qt::NoButton,
                                  Qt::NoModifier, Qt::NoScrollPhase, false);
                // The parent gets an ignored event only if it is spontaneous.
                QSpontaneKeyEvent::setSpontaneous(&wheel);
                qApp->notify(around.windowHandle(), &wheel);
                QVERIFY2(around.verticalScrollBar()->value() != before, name);
            }
            QCOMPARE(fixture.rule(0), rule);
            QCOMPARE(fixture.restarts(), 0);
        }
    }

    void showingARuleChangesNothingInTheState()
    {
        RowFixture fixture;
        FilterRule other = ruleOfKind(RuleKind::video);
        other.id = fixture.rule(0).id;
        other.operatorType = RuleOperator::isEqual;
        other.value = "receipt";
        other.destination = FileUrl::fromPath("/srv");
        const FilterRule before = fixture.rule(0);
        fixture.row->showRule(other);
        QCOMPARE(fixture.shown(), "[Kind] [Video] move to [/srv]");
        QCOMPARE(fixture.value()->text(), "receipt");
        QCOMPARE(fixture.rule(0), before);
        QCOMPARE(fixture.restarts(), 0);
    }

    void aDestinationOfThePortalIsShownWithItsRealPath()
    {
        for (const char* hostPath : {"/srv/Scans", ""}) {
            const DocumentFolder document(hostPath);
            if (!document.isPossible()) QSKIP("the file system keeps no attributes");
            RowFixture fixture;
            FilterRule rule = fixture.rule(0);
            rule.destination = document.url();
            rule.destinationBookmarkData = document.bookmark();
            fixture.row->showRule(rule);
            // Without a known path, the name is all that can be shown.
            const QString shown = *hostPath ? hostPath : "Scans";
            QCOMPARE(fixture.selector()->text(), shown);
            QVERIFY(fixture.selector()->button()->toolTip().contains(u'>' + shown + u'<'));
            QCOMPARE(fixture.selector()->button()->accessibleDescription(), shown);
        }
    }

    // Accessibility.
    void assistiveTechnologyReadsAndOpensAPicker()
    {
        RowFixture fixture;
        auto* picker = fixture.picker("Operator");
        QAccessibleInterface& spoken = accessible(picker);
        QCOMPARE(spoken.role(), QAccessible::ComboBox);
        QCOMPARE(spoken.text(QAccessible::Name), "Operator");
        QCOMPARE(spoken.text(QAccessible::Value), "contains");
        QCOMPARE(spoken.textInterface()->text(0, spoken.textInterface()->characterCount()), "contains");
        int start = -1;
        int end = -1;
        QCOMPARE(spoken.textInterface()->attributes(3, &start, &end), QString());
        QCOMPARE(QPoint(start, end), QPoint(0, 8));
        QVERIFY(spoken.state().expandable);
        QVERIFY(!spoken.state().expanded);

        QCOMPARE(spoken.childCount(), 1);
        QAccessibleInterface* list = spoken.child(0);
        QCOMPARE(spoken.indexOfChild(list), 0);
        QCOMPARE(list->childCount(), 2);
        QCOMPARE(list->child(1)->text(QAccessible::Name), "is");

        auto* actions = spoken.actionInterface();
        QVERIFY(actions->actionNames().contains(QAccessibleActionInterface::pressAction()));
        actions->doAction(QAccessibleActionInterface::pressAction());
        QVERIFY(picker->view()->isVisible());
        QVERIFY(spoken.state().expanded);
        QTest::keyClick(picker->view(), Qt::Key_Down);
        QTest::keyClick(picker->view(), Qt::Key_Return);
        QCOMPARE(fixture.rule(0).operatorType, RuleOperator::isEqual);
        QCOMPARE(spoken.text(QAccessible::Value), "is");
        QCOMPARE(fixture.restarts(), 1);
    }
};

HARBEX_WINDOW_TEST(TestRuleRow)
#include "tst_RuleRow.moc"
