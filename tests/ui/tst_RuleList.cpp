#include "support/ContentStateFixture.h"
#include "support/Widgets.h"
#include "support/WindowTestMain.h"
#include "ui/RuleList.h"
#include "ui/RuleRow.h"

using namespace harbex;
using namespace harbex::test;

namespace
{

/// The list in an active window, wide enough for a row, with a button before and after it.
struct ListFixture : ContentStateFixture {
    explicit ListFixture(std::size_t ruleCount, std::size_t otherRuleCount = 1)
        : ContentStateFixture({makeFolder("Watched", ruleCount), makeFolder("Other", otherRuleCount)})
    {
        before = new QPushButton("before");
        list = new RuleList(state);
        after = new QPushButton("after");
        bar = list->verticalScrollBar();
        auto* layout = new QVBoxLayout(&window);
        layout->addWidget(before);
        layout->addWidget(list);
        layout->addWidget(after);
        window.resize(1000, 400);
        activate(window);
    }

    /// Returns the existing rows, in the order in which assistive technology finds them.
    [[nodiscard]] QList<RuleRow*> rows() const
    {
        QList<RuleRow*> existing;
        for (auto* row : list->widget()->findChildren<RuleRow*>(Qt::FindDirectChildrenOnly))
            if (!row->isHidden()) existing += row;
        return existing;
    }

    /// Returns the row of the rule at a position; null when it does not exist.
    [[nodiscard]] RuleRow* row(std::size_t index) const
    {
        for (RuleRow* each : rows())
            if (each->ruleID() == rule(index).id) return each;
        return nullptr;
    }

    [[nodiscard]] QWidget* deletion(std::size_t index) const { return row(index)->controls().last(); }
    [[nodiscard]] QLineEdit* value(std::size_t index) const { return row(index)->findChild<QLineEdit*>(); }
    /// Returns the distance between the tops of two rows.
    [[nodiscard]] int pitch() const { return row(1)->y() - row(0)->y(); }

    /// Types "invoice" into the value of a row.
    void typeInto(std::size_t index) const
    {
        value(index)->setFocus();
        QTest::keyClicks(value(index), "invoice");
    }

    /// Returns whether the whole row is visible.
    [[nodiscard]] bool isSeen(std::size_t index) const
    {
        const QWidget* shown = row(index);
        return shown && list->viewport()->rect().contains(
                            QRect(shown->mapTo(list->viewport(), QPoint()), shown->size()));
    }

    static void processDeferredDeletes()
    {
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }

    QUuid other = folder(1).id;
    QWidget window;
    QPushButton* before;
    RuleList* list;
    QPushButton* after;
    QScrollBar* bar;
};

} // namespace

class TestRuleList : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void rowsHaveTheOrderOfTheRulesAndTheirSpacing()
    {
        const ListFixture fixture(3);
        QCOMPARE(fixture.rows().size(), 3);
        for (std::size_t i = 0; i < 3; ++i)
            QVERIFY(fixture.isSeen(i));
        QCOMPARE(fixture.row(0)->geometry().topLeft(), QPoint(0, 0));
        for (std::size_t i = 1; i < 3; ++i) {
            QCOMPARE(fixture.row(i)->y() - fixture.row(i - 1)->geometry().bottom() - 1, 12);
            QCOMPARE(fixture.row(i)->size(), fixture.row(0)->size());
        }
        QCOMPARE(fixture.list->widget()->height(), fixture.row(2)->geometry().bottom() + 1);
        QVERIFY(fixture.row(0)->height() >= fixture.row(0)->sizeHint().height());
    }

    void withoutAFolderOrRulesThereAreNoRows()
    {
        ListFixture fixture(3, 0);
        fixture.state.select(fixture.other);
        QVERIFY(fixture.rows().isEmpty());
        QCOMPARE(fixture.list->widget()->height(), 0);
        fixture.state.select(fixture.folder(0).id);
        QCOMPARE(fixture.rows().size(), 3);
        fixture.state.select(std::nullopt);
        QVERIFY(fixture.rows().isEmpty());
    }

    // Only the rows near the visible ones exist.
    void ofAThousandRulesOnlyTheRowsInSightExist()
    {
        const ListFixture fixture(1000);
        const int pitch = fixture.pitch();
        const int inSight = fixture.list->viewport()->height() / pitch + 1;
        QCOMPARE(fixture.list->widget()->height(), 1000 * pitch - 12);
        const QPointer<RuleRow> former = fixture.row(5);
        QVERIFY(former);
        for (const std::size_t index : {0U, 150U, 990U, 77U, 78U, 76U, 500U}) {
            fixture.bar->setValue(static_cast<int>(index) * pitch);
            QVERIFY(fixture.isSeen(index));
            QCOMPARE(fixture.row(index)->y(), static_cast<int>(index) * pitch);
            const QList<RuleRow*> rows = fixture.rows();
            QVERIFY2(rows.size() >= inSight && rows.size() <= inSight + 10,
                     qPrintable(QString::number(rows.size())));
            QVERIFY(std::ranges::is_sorted(rows, {}, &QWidget::y));
            // The focus enters through these two.
            QVERIFY(fixture.row(0) && fixture.row(999));
        }
        ListFixture::processDeferredDeletes();
        QVERIFY(!former);
        QVERIFY(!fixture.row(5));
    }

    void theRowWithTheFocusOrAnOpenPickerStaysWhenScrolledAway()
    {
        const ListFixture fixture(300);
        const QPointer<RuleRow> row = fixture.row(5);
        fixture.typeInto(5);
        fixture.value(5)->setSelection(2, 3);
        fixture.bar->setValue(5000);
        fixture.settle();
        QCOMPARE(fixture.row(5), row.data());
        QVERIFY(fixture.value(5)->hasFocus());
        QVERIFY2(fixture.row(4) && fixture.row(6), "Tab and Backtab lead there");
        fixture.bar->setValue(0);
        QCOMPARE(fixture.row(5), row.data());
        QCOMPARE(fixture.value(5)->selectedText(), "voi");
        QVERIFY(fixture.isSeen(5));

        auto* picker = row->findChild<QComboBox*>();
        picker->setFocus();
        picker->showPopup();
        fixture.bar->setValue(5000);
        fixture.settle();
        QVERIFY(row);
        picker->hidePopup();
    }

    void tabGoesThroughAllRulesAndMakesThemVisible()
    {
        for (const auto key : {Qt::Key_Tab, Qt::Key_Backtab}) {
            const bool isDownwards = key == Qt::Key_Tab;
            const ListFixture fixture(60);
            (isDownwards ? fixture.before : fixture.after)->setFocus();
            for (std::size_t step = 0; step < 60; ++step) {
                const std::size_t i = isDownwards ? step : 59 - step;
                for (int control = 0; control < 5; ++control) {
                    QTest::keyClick(qApp->focusWidget(), key);
                    QVERIFY2(fixture.row(i) && fixture.row(i)->isAncestorOf(qApp->focusWidget()),
                             qPrintable(QString::number(i)));
                }
                QVERIFY(fixture.isSeen(i));
            }
            QTest::keyClick(qApp->focusWidget(), key);
            QVERIFY((isDownwards ? fixture.after : fixture.before)->hasFocus());
        }
    }

    void aTallerListShowsMoreRowsAndALargerFontHigherOnes()
    {
        ListFixture fixture(300);
        fixture.window.resize(4000, 900);
        fixture.settle();
        for (std::size_t i = 0; i < 20; ++i)
            QVERIFY(fixture.isSeen(i));

        const int height = fixture.row(0)->height();
        // The size of the list does not change: it is wide enough, and the buttons keep their font.
        QFont font = fixture.list->font();
        font.setPointSize(font.pointSize() * 3);
        fixture.list->setFont(font);
        fixture.settle();
        QVERIFY(fixture.row(0)->height() > height);
        QVERIFY(fixture.row(0)->height() >= fixture.row(0)->sizeHint().height());
        QCOMPARE(fixture.row(1)->y(), fixture.row(0)->height() + 12);
    }

    // Rows belong to rules.
    void aRowStaysWhenRulesAreDeletedAndAdded()
    {
        ListFixture fixture(5);
        RuleRow* row = fixture.row(3);
        const QPoint place = fixture.row(2)->pos();
        fixture.typeInto(3);
        fixture.value(3)->setCursorPosition(2);
        fixture.state.deleteRule(fixture.rule(1).id);
        QCOMPARE(fixture.rows().size(), 4);
        QCOMPARE(row->pos(), place);
        fixture.state.addRule();
        QCOMPARE(fixture.rows().size(), 5);
        QVERIFY(fixture.row(4));
        QCOMPARE(fixture.row(2), row);
        QVERIFY(fixture.value(2)->hasFocus());
        QCOMPARE(fixture.value(2)->cursorPosition(), 2);
        QCOMPARE(fixture.value(2)->text(), "invoice");
    }

    void rowsStayAndShowTheirRulesWhenTheStoreIsReadAgain()
    {
        ListFixture fixture(300);
        fixture.bar->setValue(100);
        RuleRow* row = fixture.row(5);
        fixture.typeInto(5);
        fixture.value(5)->setCursorPosition(3);
        auto folders = fixture.state.folders();
        FilterRule& changed = folders.at(0).rules.at(4);
        changed.field = RuleField::fileExtension;
        changed.value = "pdf";
        fixture.store.saveState({folders, folders.at(0).id});
        fixture.state.appear();
        QCOMPARE(fixture.row(5), row);
        QCOMPARE(fixture.value(5)->cursorPosition(), 3);
        QCOMPARE(fixture.bar->value(), 100);
        QCOMPARE(fixture.value(4)->text(), "pdf");
        QCOMPARE(fixture.row(4)->findChild<QComboBox*>()->currentText(), "Extension");
    }

    void anotherFolderReplacesAllRowsAndBeginsAtTheTop()
    {
        ListFixture fixture(100, 100);
        const QPointer<RuleRow> former = fixture.row(0);
        fixture.bar->setValue(1000);
        fixture.state.select(fixture.other);
        QCOMPARE(fixture.bar->value(), 0);
        QVERIFY(fixture.isSeen(0));
        ListFixture::processDeferredDeletes();
        QVERIFY(!former);
        for (const RuleRow* row : fixture.rows())
            QVERIFY(std::ranges::any_of(fixture.folder(1).rules,
                                        [&](const auto& rule) { return rule.id == row->ruleID(); }));
    }

    void rulesWithTheSameIdAreAllShown()
    {
        ListFixture fixture(3);
        auto folders = fixture.state.folders();
        auto& rules = folders.at(0).rules;
        for (std::size_t i = 0; i < 3; ++i) {
            rules.at(i).id = rules.at(0).id;
            rules.at(i).value = QString::number(i);
        }
        fixture.store.saveState({folders, folders.at(0).id});
        for (int again = 0; again < 2; ++again) {
            fixture.state.appear();
            const auto rows = fixture.rows();
            QCOMPARE(rows.size(), 3);
            for (int i = 0; i < 3; ++i) {
                QCOMPARE(rows.at(i)->findChild<QLineEdit*>()->text(), QString::number(i));
                QCOMPARE(rows.at(i)->y(), i * (rows.at(0)->height() + 12));
            }
        }
        fixture.state.deleteRule(rules.at(0).id);
        QCOMPARE(fixture.rows().size(), 2);
        QCOMPARE(fixture.rows().at(0)->findChild<QLineEdit*>()->text(), "1");
    }

    // Deleting from inside a row.
    // The focus goes to the next row, then to the previous one, then past the list.
    void allRulesCanBeDeletedWithOneKey()
    {
        const ListFixture fixture(40);
        fixture.deletion(5)->setFocus();
        for (std::size_t left = 40; left-- > 0;) {
            QTest::keyClick(qApp->focusWidget(), Qt::Key_Space);
            QCOMPARE(fixture.folder(0).rules.size(), left);
            fixture.settle();
        }
        QVERIFY(fixture.after->hasFocus());
    }

    void deletingARuleWithoutTheFocusLeavesTheFocus()
    {
        const ListFixture fixture(3);
        fixture.after->setFocus();
        // As assistive technology presses it.
        static_cast<QAbstractButton*>(fixture.deletion(1))->click();
        QCOMPARE(fixture.folder(0).rules.size(), 2U);
        QVERIFY(fixture.after->hasFocus());
    }

    // Scrolling.
    void deletingFarDownKeepsThePlace()
    {
        ListFixture fixture(300);
        fixture.bar->setValue(5000);
        const auto index = static_cast<std::size_t>(5000 / (fixture.row(0)->height() + 12)) + 3;
        const int y = fixture.deletion(index)->mapTo(&fixture.window, QPoint()).y();
        const QPointer<RuleRow> deleted = fixture.row(index);
        QTest::mouseClick(fixture.deletion(index), Qt::LeftButton);
        QVERIFY2(deleted && deleted->isHidden(), "the row still handles the click");
        ListFixture::processDeferredDeletes();
        QVERIFY(!deleted);
        QCOMPARE(fixture.bar->value(), 5000);
        QVERIFY(fixture.deletion(index)->hasFocus());
        QCOMPARE(fixture.deletion(index)->mapTo(&fixture.window, QPoint()).y(), y);
    }

    void aClickIntoAPartlyVisibleRowDoesNotScroll()
    {
        const ListFixture fixture(100);
        const int pitch = fixture.pitch();
        const int height = fixture.list->viewport()->height();
        fixture.bar->setValue((height / pitch + 1) * pitch - 16 - height + pitch / 2);
        const int value = fixture.bar->value();
        for (std::size_t i = 0; i < 100; ++i) {
            if (!fixture.row(i) || fixture.isSeen(i)) continue;
            QLineEdit* field = fixture.value(i);
            const QRect seen = field->visibleRegion().boundingRect();
            if (seen.isEmpty()) continue;
            QTest::mousePress(field, Qt::LeftButton, {}, seen.center());
            QVERIFY(field->hasFocus());
            QCOMPARE(fixture.bar->value(), value);
            QTest::mouseRelease(field, Qt::LeftButton, {}, seen.center());
            return;
        }
        QFAIL("no row is cut through");
    }

    void rowsLeaveRoomForTheScrollBar()
    {
        const ListFixture fixture(100);
        QVERIFY(fixture.bar->isVisible());
        QCOMPARE(fixture.list->viewport()->width() - fixture.row(0)->width(), 16);
        QVERIFY(!fixture.list->horizontalScrollBar()->isVisible());
    }

    void aNarrowListCanBeScrolledSideways()
    {
        ListFixture fixture(3);
        fixture.list->setMinimumWidth(100);
        fixture.settle();
        fixture.window.resize(500, 400);
        fixture.settle();
        QVERIFY(fixture.list->horizontalScrollBar()->isVisible());
        QVERIFY(fixture.row(0)->width() >= fixture.row(0)->minimumSizeHint().width());
    }
};

HARBEX_WINDOW_TEST(TestRuleList)
#include "tst_RuleList.moc"
