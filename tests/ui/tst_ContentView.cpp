#include "support/ContentStateFixture.h"
#include "support/FolderDialogUser.h"
#include "support/Widgets.h"
#include "support/WindowTestMain.h"
#include "ui/ContentView.h"
#include "ui/DimmedInk.h"
#include "ui/DirectorySelector.h"
#include "ui/FlatButton.h"
#include "ui/FolderList.h"
#include "ui/HeadingLabel.h"
#include "ui/Icons.h"
#include "ui/RuleList.h"
#include "ui/RuleRow.h"

using namespace harbex;
using namespace harbex::test;

namespace
{

const std::vector<WatchedFolder> noFolders;

/// The content on screen, and a user who chooses `chosen` in each folder dialog, or cancels it.
struct ViewFixture : ContentStateFixture {
    explicit ViewFixture(const std::vector<WatchedFolder>& folders) : ContentStateFixture(folders)
    {
        view = std::make_unique<ContentView>(state);
        activate(*view);
    }
    /// Shows one folder, which is selected.
    explicit ViewFixture(std::size_t ruleCount = 1) : ViewFixture(std::vector{makeFolder("A", ruleCount)}) {}

    /// Returns the visible widget with this text.
    template <class Widget>
    [[nodiscard]] Widget* shown(const char* text) const
    {
        for (auto* each : view->findChildren<Widget*>())
            if (each->isVisible() && each->text() == text) return each;
        return nullptr;
    }

    /// Returns the visible rows, from top to bottom.
    [[nodiscard]] QList<RuleRow*> rows() const
    {
        QList<RuleRow*> rows;
        for (auto* each : view->findChildren<RuleRow*>())
            if (each->isVisible()) rows += each;
        return rows;
    }

    [[nodiscard]] QSplitter* columns() const { return view->findChild<QSplitter*>(); }
    [[nodiscard]] QToolButton* addFolder() const { return shown<FlatButton>("Add Folder"); }
    [[nodiscard]] QPushButton* addRule() const { return shown<QPushButton>("Add Rule"); }
    [[nodiscard]] FolderList* folderList() const { return view->findChild<FolderList*>(); }
    [[nodiscard]] RuleList* ruleList() const { return view->findChild<RuleList*>(); }

    std::optional<FileUrl> chosen;
    FolderDialogUser user{[this](QFileDialog& dialog) {
        if (chosen)
            FolderDialogUser::choose(dialog, QString::fromStdString(chosen->path()));
        else
            FolderDialogUser::cancel(dialog);
    }};
    std::unique_ptr<ContentView> view;
};

/// Counts the pixels that clearly differ.
int strongDifferences(const QImage& first, const QImage& second)
{
    const auto brightness = [](const Pixel& pixel) { return qGray(pixel.color.rgb()); };
    const std::vector<Pixel> before = pixelsOf(first);
    const std::vector<Pixel> after = pixelsOf(second);
    int count = 0;
    for (std::size_t i = 0; i < before.size(); ++i)
        if (std::abs(brightness(before[i]) - brightness(after[i])) > 30) ++count;
    return count;
}

constexpr const char* emptyText = "Select a folder from the sidebar";

using Edit = std::function<void(ContentStateFixture&)>;

} // namespace

class TestContentView : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // Structure.
    void theSmallestSizeIs1000By400AndShowsWholeRows()
    {
        const ViewFixture fixture(50);
        QCOMPARE(fixture.columns()->minimumSize(), QSize(700, 400));
        fixture.view->resize(300, 200);
        QCOMPARE(fixture.view->size(), QSize(1000, 400));
        QVERIFY(fixture.ruleList()->verticalScrollBar()->isVisible());
        QVERIFY(!fixture.ruleList()->horizontalScrollBar()->isVisible());
        QVERIFY(fixture.rows().first()->findChild<DirectorySelector*>()->width() >= 220);
    }

    void theColumnsCannotBeCollapsedAndTheSidebarKeeps200()
    {
        const ViewFixture fixture;
        auto* columns = fixture.columns();
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

    void theSidebarHasATitleAButtonAndTheFolders()
    {
        const ViewFixture fixture;
        const auto* title = fixture.shown<HeadingLabel>("Folders");
        QVERIFY(title);
        const QToolButton* button = fixture.addFolder();
        QVERIFY(button);
        QCOMPARE(button->icon().pixmap(16).toImage(), symbolIcon(Symbol::plus).pixmap(16).toImage());
        // All are children of the sidebar.
        QVERIFY(button->x() > title->geometry().right());
        QVERIFY(button->geometry().bottom() < fixture.folderList()->y());
        QCOMPARE(button->geometry().right(), fixture.folderList()->geometry().right());
    }

    void addFolderIsInTheMiddleOfItsButton()
    {
        const ViewFixture fixture;
        fixture.view->activateWindow();
        for (const auto direction : {Qt::LeftToRight, Qt::RightToLeft}) {
            fixture.view->setLayoutDirection(direction);
            QCoreApplication::processEvents();
            const QImage image = fixture.addFolder()->grab().toImage();
            QRect ink;
            for (const Pixel& pixel : pixelsOf(image))
                if (qGray(pixel.color.rgb()) < 100) ink |= QRect(pixel.place, QSize(1, 1));
            QVERIFY(ink.width() > 50);
            // The icon has a margin.
            QVERIFY(std::abs(ink.center().x() - image.rect().center().x()) <= 2);
            QVERIFY(std::abs(ink.center().y() - image.rect().center().y()) <= 2);
        }
    }

    void theRuleViewHasATitleTheRulesAddRuleAndADivider()
    {
        const ViewFixture fixture(2);
        const auto* title = fixture.shown<HeadingLabel>("Rules");
        const auto* list = fixture.ruleList();
        const auto* addRule = fixture.addRule();
        const QFrame* divider = nullptr;
        for (const auto* each : fixture.view->findChildren<QFrame*>())
            if (each->frameShape() == QFrame::HLine) divider = each;
        QVERIFY(title && addRule && divider);
        QVERIFY(divider->isVisible());
        QVERIFY(!addRule->isFlat());

        const QWidget* view = list->parentWidget();
        QWidget plain(fixture.view.get());
        const QMargins margins = QVBoxLayout(&plain).contentsMargins();
        QVERIFY(margins.left() > 0 && margins.top() > 0 && margins.right() > 0 && margins.bottom() > 0);
        QCOMPARE(view->layout()->contentsMargins(), margins);
        QCOMPARE(view->size(), fixture.columns()->widget(1)->size());

        QCOMPARE(list->y() - title->geometry().bottom() - 1, 16);
        QCOMPARE(addRule->y() - list->geometry().bottom() - 1, 16);
        QCOMPARE(divider->y() - addRule->geometry().bottom() - 1, 16);
        for (const int left : {title->x(), list->x(), addRule->x(), divider->x()})
            QCOMPARE(left, margins.left());
        QCOMPARE(fixture.rows().size(), 2);
        QVERIFY(list->isAncestorOf(fixture.rows().first()));
        // The list takes the remaining space, the button only what it needs.
        QVERIFY(addRule->width() < 200);
        QVERIFY(list->height() > 200);
    }

    void theTitlesAreBoldHeadingsAndFollowTheFontOfTheDesktop()
    {
        const ViewFixture fixture;
        for (const char* title : {"Folders", "Rules"}) {
            auto* label = fixture.shown<HeadingLabel>(title);
            QCOMPARE(accessible(label).role(), QAccessible::Heading);
            QCOMPARE(accessibleName(label), title);
            QVERIFY(label->font().bold());
        }
        auto* title = fixture.shown<HeadingLabel>("Rules");
        const qreal size = title->font().pointSizeF();
        const QFont former = QApplication::font();
        QVERIFY(size > former.pointSizeF() * 1.2);

        QFont larger = former;
        larger.setPointSizeF(former.pointSizeF() * 2);
        QApplication::setFont(larger);
        // Qt sends this event only while the main loop runs.
        QEvent change(QEvent::ApplicationFontChange);
        QApplication::sendEvent(title, &change);
        QApplication::setFont(former);
        QCOMPARE(title->font().pointSizeF(), size * 2);
        QVERIFY(title->font().bold());
    }

    void headingsAndButtonsAreOnTheLeadingSide()
    {
        const ViewFixture fixture;
        for (const auto direction : {Qt::LeftToRight, Qt::RightToLeft}) {
            fixture.view->setLayoutDirection(direction);
            QCoreApplication::processEvents();
            for (const char* title : {"Folders", "Rules"}) {
                const auto* label = fixture.shown<HeadingLabel>(title);
                // The label is as wide as its text.
                QCOMPARE(label->width(), label->sizeHint().width());
                QCOMPARE(label->geometry().center().x() > label->parentWidget()->rect().center().x(),
                         direction == Qt::RightToLeft);
            }
            QCOMPARE(fixture.addRule()->x() > fixture.addRule()->parentWidget()->rect().center().x(),
                     direction == Qt::RightToLeft);
        }
    }

    // What is shown.
    void theDetailViewShowsTheseTextsOnly()
    {
        const std::pair<const char*, Edit> rows[] = {
            {"Rules, move to, Select destination..., Add Rule", [](auto& /*fixture*/) {}},
            {"Rules, move to, /srv/Pictures, move to, Select destination..., Add Rule",
             [](auto& fixture) {
                 fixture.state.addRule();
                 fixture.state.setDestination(fixture.rule(0).id, FileUrl::fromPath("/srv/Pictures"), {});
             }},
            {"Rules, Add Rule", [](auto& fixture) { fixture.state.deleteRule(fixture.rule(0).id); }},
            {emptyText, [](auto& fixture) { fixture.state.select(std::nullopt); }},
            {emptyText, [](auto& fixture) { fixture.state.select(QUuid::createUuid()); }},
            {emptyText, [](auto& fixture) { fixture.state.deleteFolder(fixture.folder(0).id); }},
        };
        for (const auto& [texts, edit] : rows) {
            ViewFixture fixture({makeFolder("Unmistakable")});
            edit(fixture);
            QStringList shown;
            for (const auto* each : fixture.view->findChildren<QWidget*>()) {
                if (!each->isVisible()) continue;
                if (const auto* label = qobject_cast<const QLabel*>(each)) shown += label->text();
                if (const auto* button = qobject_cast<const QAbstractButton*>(each)) shown += button->text();
                // Only a path has a tooltip.
                QVERIFY(each->toolTip().isEmpty() || each->toolTip().contains(u'/'));
            }
            shown.removeAll(QString());
            shown.sort();
            QStringList expected = QString(texts).split(", ");
            expected += {"Folders", "Add Folder"};
            expected.sort();
            QCOMPARE(shown, expected);
            QCOMPARE(std::size_t(fixture.folderList()->count()), fixture.state.folders().size());
        }
    }

    void theEmptyTextIsDimmedCentredAndFollowsThePalette()
    {
        const ViewFixture fixture(noFolders);
        const auto* text = fixture.shown<QLabel>(emptyText);
        QVERIFY(text);
        QCOMPARE(text->alignment(), Qt::AlignCenter);
        QCOMPARE(text->size(), fixture.columns()->widget(1)->size());
        const auto isDimmed = [&] {
            return text->palette().color(QPalette::WindowText) ==
                   dimmedInk(fixture.view->palette(), QPalette::WindowText, QPalette::Window);
        };
        QVERIFY(isDimmed());
        for (const QPalette& palette : {QPalette(Qt::black), QPalette()}) {
            QApplication::setPalette(palette);
            QCoreApplication::processEvents();
            QVERIFY(isDimmed());
        }
    }

    // Adding.
    void addFolderAsksForAFolderAndShowsItWithOneRule()
    {
        ViewFixture fixture(noFolders);
        QTest::mouseClick(fixture.addFolder(), Qt::LeftButton);
        // The click returns before the dialog opens.
        QCOMPARE(fixture.user.dialogs(), 0);
        QTRY_COMPARE(fixture.user.dialogs(), 1);
        QVERIFY2(fixture.state.folders().empty(), "the dialog was cancelled");
        QCOMPARE(fixture.restarts(), 0);
        QVERIFY(!fixture.wasSaved());

        fixture.chosen = makeFolder("A").url;
        QTest::mouseClick(fixture.addFolder(), Qt::LeftButton);
        QTRY_COMPARE(fixture.user.dialogs(), 2);
        QCOMPARE(fixture.folderList()->count(), 1);
        QVERIFY(fixture.folderList()->item(0)->isSelected());
        QCOMPARE(fixture.rows().size(), 1);
        QCOMPARE(fixture.folder(0).url, fixture.chosen);
        QCOMPARE(folderOf(fixture.folder(0).bookmarkData), fixture.chosen);
        QCOMPARE(fixture.restarts(), 1);
    }

    void theContentMayBeDestroyedWhileTheDialogIsOpen()
    {
        ContentStateFixture fixture(noFolders);
        QWidget window;
        QPointer view = new ContentView(fixture.state, &window);
        const FolderDialogUser user([&](QFileDialog& dialog) {
            delete view;
            FolderDialogUser::choose(dialog, QDir::homePath());
        });
        view->findChild<FlatButton*>("addFolder")->click();
        QTRY_VERIFY(!view);
        QCOMPARE(fixture.restarts(), 0);
        QVERIFY(fixture.state.folders().empty());
    }

    void addRuleAppendsARuleAndScrollsToIt()
    {
        ViewFixture fixture(100);
        QTest::mouseClick(fixture.addRule(), Qt::LeftButton);
        QCOMPARE(fixture.folder(0).rules.size(), 101U);
        const auto* row = fixture.rows().last();
        QCOMPARE(row->ruleID(), fixture.rule(100).id);
        QCOMPARE(row->visibleRegion().boundingRect(), row->rect());
    }

    // Keyboard and accessibility.
    void tabVisitsEveryControlInTheOrderOnScreen()
    {
        const ViewFixture fixture(2);
        QList<QWidget*> expected{fixture.addFolder(), fixture.folderList()};
        for (const auto* row : fixture.rows())
            for (QWidget* control : row->controls())
                if (control->isVisible()) expected += control;
        expected += fixture.addRule();
        QCOMPARE(expected.size(), 13);

        expected.first()->setFocus();
        for (QWidget* control : expected) {
            QVERIFY2(control->hasFocus(), control->metaObject()->className());
            QTest::keyClick(control, Qt::Key_Tab);
        }
        QVERIFY(expected.first()->hasFocus());
    }

    void theFocusBeginsAtTheFoldersOrElseAtAddFolder()
    {
        const ViewFixture withFolder;
        QVERIFY(withFolder.folderList()->hasFocus());

        ViewFixture fixture(noFolders);
        QVERIFY(fixture.addFolder()->hasFocus());
        QTest::keyClick(fixture.addFolder(), Qt::Key_Tab);
        QVERIFY(fixture.addFolder()->hasFocus());

        fixture.state.addFolder(makeFolder("A").url, {});
        fixture.folderList()->setFocus();
        QVERIFY(fixture.folderList()->hasFocus());
        fixture.state.deleteFolder(fixture.folder(0).id);
        QVERIFY(fixture.addFolder()->hasFocus());
    }

    void theFocusIsVisibleOnEveryControl()
    {
        const ViewFixture fixture;
        fixture.addFolder()->setFocus();
        // Only keyboard focus has a ring.
        QTest::keyClick(qApp->focusWidget(), Qt::Key_Tab);
        QTest::keyClick(qApp->focusWidget(), Qt::Key_Backtab);
        for (int i = 0; i < 8; ++i) {
            QWidget* control = qApp->focusWidget();
            // Hides the blinking cursor, which would count as a difference.
            if (auto* field = qobject_cast<QLineEdit*>(control)) field->setReadOnly(true);
            const auto picture = [&] {
                const QPoint corner = control->mapTo(fixture.view.get(), QPoint());
                return fixture.view->grab(QRect(corner, control->size())).toImage();
            };
            const QImage focused = picture();
            QTest::keyClick(control, Qt::Key_Tab);
            QVERIFY2(strongDifferences(focused, picture()) > 30, control->metaObject()->className());
        }
    }
};

HARBEX_WINDOW_TEST(TestContentView)
#include "tst_ContentView.moc"
