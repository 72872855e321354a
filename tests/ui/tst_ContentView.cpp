#include "store/Bookmark.h"
#include "support/ContentStateFixture.h"
#include "support/FolderDialogUser.h"
#include "support/WindowTestMain.h"
#include "ui/ContentView.h"
#include "ui/DirectorySelector.h"
#include "ui/FlatButton.h"
#include "ui/FolderList.h"
#include "ui/HeadingLabel.h"
#include "ui/Icons.h"
#include "ui/RuleList.h"
#include "ui/RuleRow.h"

#include <QAccessible>
#include <QComboBox>
#include <QLabel>
#include <QLayout>
#include <QLineEdit>
#include <QPointer>
#include <QPushButton>
#include <QScrollBar>
#include <QSignalSpy>
#include <QSplitter>
#include <QStyle>
#include <QToolBar>
#include <QToolButton>

#include <cstdlib>
#include <memory>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// The content on screen, and its user, who chooses `chosen` in the folder dialog, or cancels it.
struct ViewBench : ContentStateFixture {
    explicit ViewBench(const std::vector<WatchedFolder>& folders, std::optional<QUuid> selected = {})
    {
        appearWith(folders, selected);
        view = std::make_unique<ContentView>(state);
        view->show();
        view->activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(view.get()));
    }

    /// What is on screen and is a Widget with this text.
    template <class Widget>
    [[nodiscard]] Widget* shown(const char* text) const
    {
        for (auto* each : view->findChildren<Widget*>())
            if (each->isVisible() && each->text() == QLatin1String(text)) return each;
        return nullptr;
    }

    /// The rows on screen, from top to bottom.
    [[nodiscard]] QList<RuleRow*> rows() const
    {
        QList<RuleRow*> rows;
        for (auto* each : view->findChildren<RuleRow*>())
            if (each->isVisible()) rows += each;
        return rows;
    }

    [[nodiscard]] QToolBar* toolBar() const { return view->findChild<QToolBar*>(); }
    [[nodiscard]] QToolButton* addition() const { return toolBar()->findChild<FlatButton*>(); }
    [[nodiscard]] FolderList* folderList() const { return view->findChild<FolderList*>(); }
    [[nodiscard]] RuleList* ruleList() const { return view->findChild<RuleList*>(); }

    void addFolder() const { QTest::mouseClick(addition(), Qt::LeftButton); }

    std::optional<FileUrl> chosen;
    FolderDialogUser user{[this](QFileDialog& dialog) {
        if (chosen)
            FolderDialogUser::choose(dialog, QString::fromStdString(chosen->path()));
        else
            FolderDialogUser::cancel(dialog);
    }};
    std::unique_ptr<ContentView> view;
};

int top(const QWidget* widget)
{
    return widget->mapTo(widget->window(), QPoint()).y();
}
int bottom(const QWidget* widget)
{
    return top(widget) + widget->height();
}

constexpr const char* emptyText = "Select a folder from the sidebar";

} // namespace

class TestContentView : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // Structure.
    void theContentCannotBeSmallerThan1000By400();
    void theColumnsCannotBeNarrowedAwayAndTheSidebarKeeps200();
    void theSidebarIsTitledFoldersAndHasOneToolBarItem();
    void aFolderShowsRulesTheRowsAddRuleAndADividerFromTopToBottom();
    void theRuleViewHasTheMarginsOfTheStyle();
    void theRulesTitleIsLargerThanTheTextAndBold();
    void theTitlesGrowWithTheFontOfTheDesktop();
    void atTheSmallestSizeAllOfARowFits();

    // What is shown.
    void withoutFoldersTheEmptyTextIsAllThereIs();
    void foldersWithoutASelectionShowTheRowsAndTheEmptyText();
    void aSelectionThatNamesNoFolderShowsTheEmptyText();
    void theEmptyTextIsDimmedAndCentred();
    void theEmptyTextStaysReadableWhenThePaletteChanges();
    void theRulesOfTheSelectedFolderAreShown();
    void theRuleViewNamesNoFolder();
    void nothingElseIsOnScreen();
    void deletingTheOnlyFolderShowsTheEmptyText();
    void deletingTheOnlyRuleLeavesTitleAndAddRule();

    // Adding.
    void addingAFolderSelectsItShowsOneDefaultRuleAndSaves();
    void cancellingTheFolderDialogChangesNothing();
    void addingTheSameFolderTwiceShowsTwoRowsOfTheSameName();
    void theFolderDialogIsShownOnceEvenIfAskedTwice();
    void theContentMayGoWhileTheDialogIsUp();
    void addRuleAppendsARowNeitherRestartsNorSaves();
    void addRuleBringsTheNewRuleIntoSight();
    void aDestinationIsChosenInTheSameDialog();

    // Access.
    void theTitlesAreHeadings();
    void theTabOrderIsTheOrderOnScreen();
    void theFoldersHaveTheFocusAtFirst();
    void withoutFoldersAddFolderHasTheFocus();
    void theFocusCanBeSeenOnEveryControl();
    void allIsDoneByKeyboard();
    void everyFocusableControlHasANameAndARole();
};

void TestContentView::theContentCannotBeSmallerThan1000By400()
{
    const ViewBench bench({ContentStateFixture::makeFolder(QStringLiteral("A"))});
    QCOMPARE(bench.view->minimumSize(), QSize(1000, 400));
    bench.view->resize(300, 200);
    QCOMPARE(bench.view->size(), QSize(1000, 400));
    QCOMPARE(bench.view->findChild<QSplitter*>()->minimumSize(), QSize(700, 400));
    QCOMPARE(bench.view->maximumSize(), QSize(QWIDGETSIZE_MAX, QWIDGETSIZE_MAX));
}

void TestContentView::theColumnsCannotBeNarrowedAwayAndTheSidebarKeeps200()
{
    const ViewBench bench({ContentStateFixture::makeFolder(QStringLiteral("A"))});
    auto* columns = bench.view->findChild<QSplitter*>();
    QCOMPARE(columns->count(), 2);
    QCOMPARE(columns->orientation(), Qt::Horizontal);
    for (const int width : {0, 100}) {
        columns->setSizes({width, 2000});
        QCOMPARE(columns->widget(0)->width(), 200);
    }
    columns->setSizes({2000, 0});
    QVERIFY(columns->widget(1)->width() >= columns->widget(1)->minimumSizeHint().width());
    QVERIFY(columns->widget(1)->isVisible());
}

void TestContentView::theSidebarIsTitledFoldersAndHasOneToolBarItem()
{
    const ViewBench bench({ContentStateFixture::makeFolder(QStringLiteral("A"))});
    const auto* title = bench.shown<HeadingLabel>("Folders");
    QVERIFY(title);
    QCOMPARE(bench.view->findChildren<QToolBar*>().size(), 1);
    QCOMPARE(bench.toolBar()->actions().size(), 1);
    QCOMPARE(bench.toolBar()->widgetForAction(bench.toolBar()->actions().first()), bench.addition());
    QCOMPARE(bench.addition()->text(), QStringLiteral("Add Folder"));
    QCOMPARE(bench.addition()->icon().pixmap(16).toImage(), symbolIcon(Symbol::plus).pixmap(16).toImage());
    QVERIFY(!bench.toolBar()->isMovable());
    // The toolbar stands at the end of the title's line, the list below.
    QVERIFY(bench.toolBar()->x() > title->geometry().right());
    QVERIFY(bottom(bench.toolBar()) <= top(bench.folderList()));
}

void TestContentView::aFolderShowsRulesTheRowsAddRuleAndADividerFromTopToBottom()
{
    const ViewBench bench({ContentStateFixture::makeFolder(QStringLiteral("A"), 2)});
    const auto* title = bench.shown<HeadingLabel>("Rules");
    const auto* addition = bench.shown<QPushButton>("Add Rule");
    QVERIFY(title && addition);
    QVERIFY(!addition->isFlat());
    const QFrame* divider = nullptr;
    for (const auto* each : bench.view->findChildren<QFrame*>())
        if (each->frameShape() == QFrame::HLine) divider = each;
    QVERIFY(divider && divider->isVisible());

    const auto* list = bench.ruleList();
    QCOMPARE(list->y() - title->geometry().bottom() - 1, 16);
    QCOMPARE(addition->y() - list->geometry().bottom() - 1, 16);
    QCOMPARE(divider->y() - addition->geometry().bottom() - 1, 16);
    for (const QWidget* each : {static_cast<const QWidget*>(title), static_cast<const QWidget*>(list),
                                static_cast<const QWidget*>(addition), static_cast<const QWidget*>(divider)})
        QCOMPARE(each->x(), title->x());
    QCOMPARE(bench.rows().size(), 2);
    QVERIFY(list->isAncestorOf(bench.rows().first()));
    // The list takes the space there is, the button only what it needs.
    QVERIFY(addition->width() < 200);
    QVERIFY(list->height() > 200);
}

void TestContentView::theRuleViewHasTheMarginsOfTheStyle()
{
    const ViewBench bench({ContentStateFixture::makeFolder(QStringLiteral("A"))});
    const QWidget* view = bench.ruleList()->parentWidget();
    const auto metric = [view](QStyle::PixelMetric each) {
        return view->style()->pixelMetric(each, nullptr, view);
    };
    const QMargins margins(metric(QStyle::PM_LayoutLeftMargin), metric(QStyle::PM_LayoutTopMargin),
                           metric(QStyle::PM_LayoutRightMargin), metric(QStyle::PM_LayoutBottomMargin));
    QVERIFY(margins.left() > 0 && margins.top() > 0 && margins.right() > 0 && margins.bottom() > 0);
    QCOMPARE(view->layout()->contentsMargins(), margins);
    // Around it there is nothing more.
    QCOMPARE(view->size(), bench.view->findChild<QSplitter*>()->widget(1)->size());
    QCOMPARE(bench.ruleList()->x(), margins.left());
}

void TestContentView::theRulesTitleIsLargerThanTheTextAndBold()
{
    const ViewBench bench({ContentStateFixture::makeFolder(QStringLiteral("A"))});
    const auto* title = bench.shown<HeadingLabel>("Rules");
    QVERIFY(title->font().bold());
    QVERIFY(title->font().pointSizeF() > QApplication::font().pointSizeF() * 1.2);
}

void TestContentView::theTitlesGrowWithTheFontOfTheDesktop()
{
    const ViewBench bench({ContentStateFixture::makeFolder(QStringLiteral("A"))});
    const auto* title = bench.shown<HeadingLabel>("Rules");
    const qreal size = title->font().pointSizeF();
    const QFont former = QApplication::font();
    QFont larger = former;
    larger.setPointSizeF(former.pointSizeF() * 2);
    QApplication::setFont(larger);
    // Qt tells of it only while the main loop runs.
    QEvent change(QEvent::ApplicationFontChange);
    QApplication::sendEvent(bench.shown<HeadingLabel>("Rules"), &change);
    QApplication::setFont(former);
    QCOMPARE(title->font().pointSizeF(), size * 2);
    QVERIFY(title->font().bold());
}

void TestContentView::atTheSmallestSizeAllOfARowFits()
{
    const ViewBench bench({ContentStateFixture::makeFolder(QStringLiteral("A"), 50)});
    bench.view->resize(1000, 400);
    QVERIFY(bench.ruleList()->verticalScrollBar()->isVisible());
    QVERIFY(!bench.ruleList()->horizontalScrollBar()->isVisible());
    QVERIFY(bench.rows().first()->findChild<DirectorySelector*>()->width() >= 220);
}

void TestContentView::withoutFoldersTheEmptyTextIsAllThereIs()
{
    const ViewBench bench({});
    QVERIFY(bench.shown<QLabel>(emptyText));
    QVERIFY(!bench.shown<QLabel>("Rules"));
    QVERIFY(!bench.shown<QPushButton>("Add Rule"));
    QVERIFY(bench.shown<QLabel>("Folders"));
    QVERIFY(bench.toolBar()->isVisible());
    QCOMPARE(bench.folderList()->count(), 0);
}

void TestContentView::foldersWithoutASelectionShowTheRowsAndTheEmptyText()
{
    ViewBench bench({ContentStateFixture::makeFolder(QStringLiteral("A")),
                     ContentStateFixture::makeFolder(QStringLiteral("B"))});
    bench.state.select(std::nullopt);
    QVERIFY(bench.shown<QLabel>(emptyText));
    QVERIFY(!bench.shown<QPushButton>("Add Rule"));
    QCOMPARE(bench.folderList()->count(), 2);
    QVERIFY(bench.folderList()->selectedItems().isEmpty());
}

void TestContentView::aSelectionThatNamesNoFolderShowsTheEmptyText()
{
    ViewBench bench({ContentStateFixture::makeFolder(QStringLiteral("A"))});
    bench.state.select(QUuid::createUuid());
    QVERIFY(bench.shown<QLabel>(emptyText));
}

void TestContentView::theEmptyTextIsDimmedAndCentred()
{
    const ViewBench bench({});
    const auto* text = bench.shown<QLabel>(emptyText);
    QCOMPARE(text->alignment(), Qt::AlignCenter);
    const QColor ink = text->palette().color(QPalette::WindowText);
    QVERIFY(ink.alphaF() < 0.9F);
    QVERIFY(ink.alphaF() > 0.5F);
    // All of the detail column is its own.
    QCOMPARE(text->size(), bench.view->findChild<QSplitter*>()->widget(1)->size());
}

void TestContentView::theEmptyTextStaysReadableWhenThePaletteChanges()
{
    const ViewBench bench({});
    const auto* text = bench.shown<QLabel>(emptyText);
    QApplication::setPalette(QPalette(Qt::black));
    QCoreApplication::processEvents();
    const int lightness = text->palette().color(QPalette::WindowText).lightness();
    QApplication::setPalette(QPalette());
    QCoreApplication::processEvents();
    QVERIFY(lightness > 200);
    QVERIFY(text->palette().color(QPalette::WindowText).lightness() < 50);
}

void TestContentView::theRulesOfTheSelectedFolderAreShown()
{
    ViewBench bench({ContentStateFixture::makeFolder(QStringLiteral("A"), 2),
                     ContentStateFixture::makeFolder(QStringLiteral("B"), 3)});
    QCOMPARE(bench.rows().size(), 2);
    bench.folderList()->setCurrentRow(1);
    QCOMPARE(bench.rows().size(), 3);
    QVERIFY(bench.wasSaved());
}

void TestContentView::theRuleViewNamesNoFolder()
{
    const ViewBench bench({ContentStateFixture::makeFolder(QStringLiteral("Unmistakable"))});
    for (const auto* label : bench.view->findChildren<QLabel*>())
        QVERIFY(!label->text().contains(QStringLiteral("Unmistakable")));
    for (const auto* widget : bench.view->findChildren<QWidget*>())
        QVERIFY(!widget->toolTip().contains(QStringLiteral("Unmistakable")));
}

void TestContentView::nothingElseIsOnScreen()
{
    ViewBench bench({ContentStateFixture::makeFolder(QStringLiteral("A"), 2)});
    bench.state.setDestination(bench.rule(0).id, FileUrl::fromPath("/srv/Pictures"), {});
    const auto texts = [&bench] {
        QStringList shown;
        for (const auto* label : bench.view->findChildren<QLabel*>())
            if (label->isVisible()) shown += label->text();
        for (const auto* button : bench.view->findChildren<QAbstractButton*>())
            if (button->isVisible() && !button->text().isEmpty()) shown += button->text();
        shown.sort();
        return shown;
    };
    const auto sorted = [](QStringList expected) {
        expected.sort();
        return expected;
    };
    QCOMPARE(texts(),
             sorted({QStringLiteral("Folders"), QStringLiteral("Add Folder"), QStringLiteral("Rules"),
                     QStringLiteral("move to"), QStringLiteral("move to"), QStringLiteral("/srv/Pictures"),
                     QStringLiteral("Select destination..."), QStringLiteral("Add Rule")}));
    bench.state.select(std::nullopt);
    QCOMPARE(texts(), sorted({QStringLiteral("Folders"), QStringLiteral("Add Folder"),
                              QString::fromLatin1(emptyText)}));
}

void TestContentView::deletingTheOnlyFolderShowsTheEmptyText()
{
    ViewBench bench({ContentStateFixture::makeFolder(QStringLiteral("A"))});
    bench.state.deleteFolder(bench.folder(0).id);
    QVERIFY(bench.shown<QLabel>(emptyText));
    QCOMPARE(bench.folderList()->count(), 0);
}

void TestContentView::deletingTheOnlyRuleLeavesTitleAndAddRule()
{
    ViewBench bench({ContentStateFixture::makeFolder(QStringLiteral("A"))});
    auto* deletion = bench.rows().first()->controls().last();
    QTest::mouseClick(deletion, Qt::LeftButton);
    QVERIFY(bench.folder(0).rules.empty());
    QVERIFY(bench.rows().isEmpty());
    QVERIFY(bench.shown<QLabel>("Rules"));
    QVERIFY(bench.shown<QPushButton>("Add Rule"));
    QVERIFY(bench.shown<QPushButton>("Add Rule")->hasFocus());
}

void TestContentView::addingAFolderSelectsItShowsOneDefaultRuleAndSaves()
{
    ViewBench bench({});
    bench.chosen = ContentStateFixture::makeFolder(QStringLiteral("A")).url;
    bench.addFolder();
    QTRY_COMPARE(bench.user.dialogs(), 1);
    QCOMPARE(bench.folderList()->count(), 1);
    QVERIFY(bench.folderList()->item(0)->isSelected());
    QCOMPARE(bench.rows().size(), 1);
    const auto* row = bench.rows().first();
    QCOMPARE(row->findChildren<QComboBox*>().at(0)->currentText(), QStringLiteral("Name"));
    QCOMPARE(row->findChildren<QComboBox*>().at(1)->currentText(), QStringLiteral("contains"));
    QCOMPARE(row->findChild<QLineEdit*>()->text(), QString());
    QCOMPARE(bench.folder(0).url, bench.chosen);
    QVERIFY(bench.folder(0).bookmarkData);
    QCOMPARE(resolveBookmark(*bench.folder(0).bookmarkData, MountTable()), bench.chosen);
    QCOMPARE(bench.restarts(), 1);
    const auto saved = bench.takeSaved();
    QVERIFY(saved);
    QCOMPARE(saved->selectedFolderID, bench.folder(0).id);
}

void TestContentView::cancellingTheFolderDialogChangesNothing()
{
    ViewBench bench({ContentStateFixture::makeFolder(QStringLiteral("A"))});
    bench.addFolder();
    QTRY_COMPARE(bench.user.dialogs(), 1);
    QCOMPARE(bench.folderList()->count(), 1);
    QCOMPARE(bench.restarts(), 0);
    QVERIFY(!bench.wasSaved());
}

void TestContentView::addingTheSameFolderTwiceShowsTwoRowsOfTheSameName()
{
    ViewBench bench({});
    bench.chosen = ContentStateFixture::makeFolder(QStringLiteral("A")).url;
    bench.addFolder();
    QTRY_COMPARE(bench.folderList()->count(), 1);
    bench.addFolder();
    QTRY_COMPARE(bench.folderList()->count(), 2);
    QCOMPARE(bench.folderList()->item(0)->text(), bench.folderList()->item(1)->text());
    QVERIFY(bench.folderList()->item(1)->isSelected());
}

void TestContentView::theFolderDialogIsShownOnceEvenIfAskedTwice()
{
    ContentStateFixture bench;
    bench.appearWith({ContentStateFixture::makeFolder(QStringLiteral("A"))});
    ContentView view(bench.state);
    view.show();
    // Assistive technology presses buttons behind a modal dialog too.
    const auto press = [&] {
        view.findChild<QToolBar*>()->findChild<FlatButton*>()->click();
        view.findChild<DirectorySelector*>()->findChild<QToolButton*>()->click();
    };
    const FolderDialogUser user([&](QFileDialog& dialog) {
        press();
        FolderDialogUser::cancel(dialog);
        press();
    });
    press();
    // A press is over before the dialog is there.
    QCOMPARE(user.dialogs(), 0);
    bench.settle();
    QCOMPARE(user.dialogs(), 1);
    view.findChild<DirectorySelector*>()->findChild<QToolButton*>()->click();
    bench.settle();
    QCOMPARE(user.dialogs(), 2);
}

void TestContentView::theContentMayGoWhileTheDialogIsUp()
{
    ContentStateFixture bench;
    bench.appearWith({});
    QWidget window;
    QPointer view = new ContentView(bench.state, &window);
    const FolderDialogUser user([&](QFileDialog& dialog) {
        delete view;
        FolderDialogUser::choose(dialog, QDir::homePath());
    });
    view->findChild<QToolBar*>()->findChild<FlatButton*>()->click();
    QTRY_VERIFY(!view);
    QCOMPARE(bench.restarts(), 0);
    QVERIFY(bench.state.folders().empty());
}

void TestContentView::addRuleAppendsARowNeitherRestartsNorSaves()
{
    ViewBench bench({ContentStateFixture::makeFolder(QStringLiteral("A"))});
    QTest::mouseClick(bench.shown<QPushButton>("Add Rule"), Qt::LeftButton);
    QTest::mouseClick(bench.shown<QPushButton>("Add Rule"), Qt::LeftButton);
    QCOMPARE(bench.rows().size(), 3);
    QVERIFY(bench.rows().at(1)->ruleID() != bench.rows().at(2)->ruleID());
    QCOMPARE(bench.restarts(), 0);
    QVERIFY(!bench.wasSaved());
}

void TestContentView::addRuleBringsTheNewRuleIntoSight()
{
    ViewBench bench({ContentStateFixture::makeFolder(QStringLiteral("A"), 100)});
    QTest::mouseClick(bench.shown<QPushButton>("Add Rule"), Qt::LeftButton);
    const auto* row = bench.rows().last();
    QCOMPARE(row->ruleID(), bench.rule(100).id);
    QCOMPARE(row->visibleRegion().boundingRect(), row->rect());
}

void TestContentView::aDestinationIsChosenInTheSameDialog()
{
    ViewBench bench({ContentStateFixture::makeFolder(QStringLiteral("A"))});
    bench.chosen = ContentStateFixture::makeFolder(QStringLiteral("Pictures")).url;
    bench.rows().first()->findChild<DirectorySelector*>()->findChild<QToolButton*>()->click();
    QTRY_COMPARE(bench.user.dialogs(), 1);
    QCOMPARE(bench.restarts(), 1);
    QCOMPARE(bench.rule(0).destination, bench.chosen);
}

void TestContentView::theTitlesAreHeadings()
{
    const ViewBench bench({ContentStateFixture::makeFolder(QStringLiteral("A"))});
    for (const char* title : {"Folders", "Rules"}) {
        QAccessibleInterface* spoken =
            QAccessible::queryAccessibleInterface(bench.shown<HeadingLabel>(title));
        QCOMPARE(spoken->role(), QAccessible::Heading);
        QCOMPARE(spoken->text(QAccessible::Name), QString::fromLatin1(title));
    }
}

void TestContentView::theTabOrderIsTheOrderOnScreen()
{
    const ViewBench bench({ContentStateFixture::makeFolder(QStringLiteral("A"), 2)});
    QList<QWidget*> expected{bench.addition(), bench.folderList()};
    for (const auto* row : bench.rows())
        for (QWidget* control : row->controls())
            if (control->isVisible()) expected += control;
    expected += bench.shown<QPushButton>("Add Rule");
    QCOMPARE(expected.size(), 13);

    expected.first()->setFocus();
    for (QWidget* control : expected) {
        QVERIFY2(control->hasFocus(), control->metaObject()->className());
        QTest::keyClick(control, Qt::Key_Tab);
    }
    QVERIFY(expected.first()->hasFocus());
}

void TestContentView::theFoldersHaveTheFocusAtFirst()
{
    const ViewBench bench({ContentStateFixture::makeFolder(QStringLiteral("A"))});
    QVERIFY(bench.folderList()->hasFocus());
}

void TestContentView::withoutFoldersAddFolderHasTheFocus()
{
    ViewBench bench({});
    QVERIFY(bench.addition()->hasFocus());
    QTest::keyClick(bench.addition(), Qt::Key_Tab);
    QVERIFY(bench.addition()->hasFocus());

    // So it does when the last folder goes.
    bench.state.addFolder(ContentStateFixture::makeFolder(QStringLiteral("A")).url, {});
    bench.folderList()->setFocus();
    QVERIFY(bench.folderList()->hasFocus());
    bench.state.deleteFolder(bench.folder(0).id);
    QVERIFY(bench.addition()->hasFocus());
}

void TestContentView::theFocusCanBeSeenOnEveryControl()
{
    const ViewBench bench({ContentStateFixture::makeFolder(QStringLiteral("A"))});
    bench.addition()->setFocus();
    // The ring is for those who use the keyboard.
    QTest::keyClick(qApp->focusWidget(), Qt::Key_Tab);
    QTest::keyClick(qApp->focusWidget(), Qt::Key_Backtab);
    for (int i = 0; i < 8; ++i) {
        QWidget* control = qApp->focusWidget();
        // A text cursor that blinks is no difference.
        if (auto* field = qobject_cast<QLineEdit*>(control)) field->setReadOnly(true);
        const auto picture = [&] {
            const QPoint corner = control->mapTo(bench.view.get(), QPoint());
            return bench.view->grab(QRect(corner, control->size())).toImage();
        };
        const QImage focused = picture();
        QTest::keyClick(control, Qt::Key_Tab);
        const QImage unfocused = picture();
        int strong = 0;
        for (int y = 0; y < focused.height(); ++y) {
            for (int x = 0; x < focused.width(); ++x) {
                const QColor a = focused.pixelColor(x, y);
                const QColor b = unfocused.pixelColor(x, y);
                const int difference = std::abs(a.red() - b.red()) + std::abs(a.green() - b.green()) +
                                       std::abs(a.blue() - b.blue());
                if (difference > 90) ++strong;
            }
        }
        QVERIFY2(strong > 30, control->metaObject()->className());
    }
}

void TestContentView::allIsDoneByKeyboard()
{
    ViewBench bench({});
    bench.chosen = ContentStateFixture::makeFolder(QStringLiteral("A")).url;
    const auto press = [](Qt::Key key) { QTest::keyClick(qApp->focusWidget(), key); };
    press(Qt::Key_Space);
    QTRY_COMPARE(bench.state.folders().size(), 1U);
    QTRY_VERIFY(bench.view->isActiveWindow());
    // From the toolbar over the list to the field picker.
    press(Qt::Key_Tab);
    press(Qt::Key_Tab);
    press(Qt::Key_Down);
    QCOMPARE(bench.rule(0).field, RuleField::fileExtension);
    press(Qt::Key_Tab);
    press(Qt::Key_Down);
    QCOMPARE(bench.rule(0).operatorType, RuleOperator::isEqual);
    press(Qt::Key_Tab);
    QTest::keyClicks(qApp->focusWidget(), QStringLiteral("pdf"));
    press(Qt::Key_Return);
    QCOMPARE(bench.rule(0).value, QStringLiteral("pdf"));
    press(Qt::Key_Tab);
    bench.chosen = ContentStateFixture::makeFolder(QStringLiteral("Papers")).url;
    press(Qt::Key_Space);
    QTRY_COMPARE(bench.rule(0).destination, bench.chosen);
    QTRY_VERIFY(bench.view->isActiveWindow());
    press(Qt::Key_Tab);
    press(Qt::Key_Tab);
    press(Qt::Key_Space);
    QCOMPARE(bench.folder(0).rules.size(), 2U);
    press(Qt::Key_Backtab);
    press(Qt::Key_Space);
    QCOMPARE(bench.folder(0).rules.size(), 1U);
}

void TestContentView::everyFocusableControlHasANameAndARole()
{
    const ViewBench bench({ContentStateFixture::makeFolder(QStringLiteral("A"), 2)});
    int controls = 0;
    for (auto* widget : bench.view->findChildren<QWidget*>()) {
        if (!widget->isVisible() || !(widget->focusPolicy() & Qt::TabFocus)) continue;
        if (qobject_cast<QAbstractScrollArea*>(widget->parentWidget())) continue;
        QAccessibleInterface* spoken = QAccessible::queryAccessibleInterface(widget);
        QVERIFY2(!spoken->text(QAccessible::Name).isEmpty(), widget->metaObject()->className());
        QVERIFY2(spoken->role() != QAccessible::NoRole && spoken->role() != QAccessible::Client,
                 widget->metaObject()->className());
        ++controls;
    }
    QCOMPARE(controls, 13);
}

HARBEX_WINDOW_TEST_MAIN(TestContentView)
#include "tst_ContentView.moc"
