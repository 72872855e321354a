#include "support/ContentStateFixture.h"
#include "support/DocumentFolder.h"
#include "support/Widgets.h"
#include "support/WindowTestMain.h"
#include "ui/FolderList.h"
#include "ui/Icons.h"

using namespace harbex;
using namespace harbex::test;

namespace
{

/// The active list with these folders.
struct ListFixture : ContentStateFixture {
    explicit ListFixture(const std::vector<WatchedFolder>& folders, std::size_t selected = 0)
        : ContentStateFixture(folders, folders.at(selected).id)
    {
        list = std::make_unique<FolderList>(state);
        list->resize(200, 300);
        activate(*list);
        list->setFocus();
    }

    /// With the folders A, B, C and so on.
    explicit ListFixture(int folderCount = 3, std::size_t selected = 0)
        : ListFixture(makeFolders(folderCount), selected)
    {
    }

    static std::vector<WatchedFolder> makeFolders(int count)
    {
        std::vector<WatchedFolder> folders;
        for (int i = 0; i < count; ++i)
            folders.push_back(makeFolder(QByteArray(1, char('A' + i))));
        return folders;
    }

    /// Returns the names of rows, separated by a comma.
    [[nodiscard]] static QByteArray namesOf(const QList<QListWidgetItem*>& rows)
    {
        QStringList names;
        for (const QListWidgetItem* row : rows)
            names += row->text();
        return names.join(u',').toUtf8();
    }
    [[nodiscard]] QByteArray names() const { return namesOf(list->findItems("*", Qt::MatchWildcard)); }
    [[nodiscard]] QByteArray selected() const { return namesOf(list->selectedItems()); }

    [[nodiscard]] QPoint centre(int row) const { return list->visualItemRect(list->item(row)).center(); }

    void click(const QPoint& place, Qt::KeyboardModifiers modifiers = {}) const
    {
        QTest::mouseClick(list->viewport(), Qt::LeftButton, modifiers, place);
    }
    void click(int row, Qt::KeyboardModifiers modifiers = {}) const { click(centre(row), modifiers); }

    void requestMenu(QContextMenuEvent::Reason reason, const QPoint& place) const
    {
        QContextMenuEvent request(reason, place, list->viewport()->mapToGlobal(place));
        QApplication::sendEvent(list->viewport(), &request);
    }

    /// A right click consists of the button and a request for a menu.
    void rightClick(const QPoint& place) const
    {
        QTest::mousePress(list->viewport(), Qt::RightButton, {}, place);
        requestMenu(QContextMenuEvent::Mouse, place);
        QTest::mouseRelease(list->viewport(), Qt::RightButton, {}, place);
    }

    void pressKey(Qt::Key key, Qt::KeyboardModifiers modifiers = {}) const
    {
        QTest::keyClick(list.get(), key, modifiers);
    }

    /// Returns the open menu; null when there is none.
    [[nodiscard]] static QMenu* menu() { return qobject_cast<QMenu*>(QApplication::activePopupWidget()); }

    static void chooseFirstMenuItem()
    {
        QTest::keyClick(menu(), Qt::Key_Down);
        QTest::keyClick(menu(), Qt::Key_Return);
    }

    std::unique_ptr<FolderList> list;
};

/// A place below the three rows of a list.
constexpr QPoint belowTheRows(50, 250);

WatchedFolder folderAt(const char* url)
{
    return {
        .url = FileUrl::fromString(url).value_or(FileUrl::fromPath("/")), .bookmarkData = {}, .rules = {}};
}

} // namespace

class TestFolderList : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanup()
    {
        if (QWidget* menu = QApplication::activePopupWidget()) menu->close();
        QApplication::setPalette(QPalette());
    }

    // Rows.
    void aFolderOfThePortalIsShownWithItsRealPath()
    {
        const DocumentFolder document("/srv/My Scans");
        if (!document.isPossible()) QSKIP("the file system keeps no attributes");
        const WatchedFolder folder{.url = document.url(), .bookmarkData = document.bookmark(), .rules = {}};
        const ListFixture fixture({folder});
        const QListWidgetItem* row = fixture.list->item(0);
        QCOMPARE(row->text(), "My Scans");
        QVERIFY(row->toolTip().contains(">/srv/My Scans<"));
        QCOMPARE(row->data(Qt::AccessibleDescriptionRole).toString(), "/srv/My Scans");
    }

    void aRowShowsTheReadableNameOfTheFolderAndTellsItsPath()
    {
        const ListFixture fixture({folderAt("file:///Users/someone/Downloads"),
                                   folderAt("file:///srv/%3Cb%3E%26/My%20Scans/"),
                                   folderAt("file:///srv/caf%E9%0A")});
        QCOMPARE(fixture.names(), "Downloads,My Scans,caf\xef\xbf\xbd\\n");
        QCOMPARE(fixture.list->item(0)->icon().pixmap(16).toImage(),
                 symbolIcon(Symbol::folder).pixmap(16).toImage());
        int row = 0;
        for (const char* path : {"/Users/someone/Downloads", "/srv/<b>&/My Scans"}) {
            QTextDocument shown;
            shown.setHtml(fixture.list->item(row)->toolTip());
            QCOMPARE(shown.toPlainText(), path);
            QCOMPARE(accessible(fixture.list.get()).child(row)->text(QAccessible::Description), path);
            ++row;
        }
    }

    void aScreenReaderGetsTheNames()
    {
        const ListFixture fixture;
        const QAccessibleInterface& spoken = accessible(fixture.list.get());
        QCOMPARE(spoken.text(QAccessible::Name), "Folders");
        QCOMPARE(spoken.role(), QAccessible::List);
        QCOMPARE(spoken.childCount(), 3);
        QCOMPARE(spoken.child(1)->text(QAccessible::Name), "B");
        QVERIFY(spoken.child(0)->state().selected);
    }

    void anIconHasTheColourOfTheTextInActiveAndInactiveWindows()
    {
        QPalette palette;
        for (const auto role : {QPalette::Text, QPalette::WindowText, QPalette::HighlightedText}) {
            palette.setColor(QPalette::Active, role, Qt::red);
            palette.setColor(QPalette::Inactive, role, Qt::green);
        }
        for (const auto role : {QPalette::Highlight, QPalette::Base, QPalette::AlternateBase})
            palette.setColor(role, Qt::black);
        QApplication::setPalette(palette);
        const ListFixture fixture;
        // The sums of the red and of the green of all pixels.
        const auto redAndGreen = [&] {
            const QRect selectedAndNext = fixture.list->visualItemRect(fixture.list->item(0)) |
                                          fixture.list->visualItemRect(fixture.list->item(1));
            std::pair<int, int> sums;
            for (const Pixel& pixel : pixelsOf(fixture.list->viewport()->grab(selectedAndNext).toImage())) {
                sums.first += pixel.color.red();
                sums.second += pixel.color.green();
            }
            return sums;
        };
        const auto [red, noGreen] = redAndGreen();
        QVERIFY(red > 0);
        QCOMPARE(noGreen, 0);

        QWidget other;
        activate(other);
        const auto [noRed, green] = redAndGreen();
        QCOMPARE(noRed, 0);
        QCOMPARE(green, red);
    }

    // Selecting.
    void theSelectedFolderIsTheSelectedRow()
    {
        ListFixture fixture(3, 1);
        QCOMPARE(fixture.selected(), "B");
        fixture.state.select(fixture.folder(2).id);
        QCOMPARE(fixture.selected(), "C");
        QCOMPARE(fixture.list->currentRow(), 2);
        fixture.state.select(std::nullopt);
        QCOMPARE(fixture.selected(), "");

        fixture.state.select(fixture.folder(2).id);
        const QUuid unknown = QUuid::createUuid();
        fixture.state.select(unknown);
        QCOMPARE(fixture.selected(), "");
        QCOMPARE(fixture.state.selectedFolderID(), unknown);

        fixture.state.select(fixture.folder(1).id);
        const QSignalSpy selections(&fixture.state, &ContentState::selectionChanged);
        fixture.state.deleteFolder(fixture.folder(1).id);
        QCOMPARE(selections.count(), 1);
        QCOMPARE(fixture.selected(), "A");
    }

    void clicksAndArrowKeysSelectAndSave()
    {
        ListFixture fixture;
        const auto isSavedSelection = [&](const QByteArray& name) {
            const WatchedFolder* folder = fixture.state.selectedFolder();
            const auto stateName = folder ? folder->url.lastPathComponent() : std::string();
            return fixture.selected() == name && stateName == name.toStdString() && fixture.wasSaved();
        };
        fixture.click(0);
        QVERIFY2(!fixture.wasSaved(), "a click on the selected row");
        fixture.click(2);
        QVERIFY(isSavedSelection("C"));
        fixture.pressKey(Qt::Key_Up);
        QVERIFY(isSavedSelection("B"));
        fixture.click(belowTheRows);
        QVERIFY(isSavedSelection(""));
        fixture.click(0);
        QVERIFY(isSavedSelection("A"));
        fixture.click(0, Qt::ControlModifier);
        QVERIFY(isSavedSelection(""));
        // Never more than one.
        fixture.click(0);
        fixture.click(1, Qt::ShiftModifier);
        QVERIFY(isSavedSelection("B"));
        fixture.click(2, Qt::ControlModifier);
        QVERIFY(isSavedSelection("C"));
        fixture.pressKey(Qt::Key_A, Qt::ControlModifier);
        QCOMPARE(fixture.selected(), "C");
    }

    void reloadingTheStoreShowsItsFoldersAndKeepsTheSelection()
    {
        ListFixture fixture(3, 1);
        fixture.state.disappear();
        QSignalSpy selections(&fixture.state, &ContentState::selectionChanged);
        fixture.state.appear();
        QCOMPARE(fixture.selected(), "B");

        auto folders = fixture.state.folders();
        const QUuid selected = folders.at(1).id;
        folders.erase(folders.begin());
        folders.at(1).url = FileUrl::fromPath("/srv/Renamed");
        folders.push_back(makeFolder("New"));
        fixture.store.saveState({folders, selected});
        fixture.state.appear();
        QCOMPARE(fixture.names(), "B,Renamed,New");
        QCOMPARE(fixture.selected(), "B");
        QCOMPARE(selections.count(), 0);
    }

    void deletingAnotherFolderKeepsSelectionAndScrollPosition()
    {
        ListFixture fixture(26, 25);
        QScrollBar* bar = fixture.list->verticalScrollBar();
        fixture.list->scrollToTop();
        bar->setValue(3);
        const int place = bar->value();
        QVERIFY(place > 0);
        fixture.state.deleteFolder(fixture.folder(10).id);
        QCOMPARE(fixture.selected(), "Z");
        QCOMPARE(bar->value(), place);
    }

    void ofTwoFoldersWithOneIdTheClickedRowStaysSelected()
    {
        auto folders = ListFixture::makeFolders(2);
        folders.at(1).id = folders.at(0).id;
        ListFixture fixture(folders);
        fixture.state.select(std::nullopt);
        fixture.click(1);
        QCOMPARE(fixture.names(), "A,B");
        QCOMPARE(fixture.selected(), "B");
    }

    // The menu.
    void theMenuOfARightClickDeletesThatRowAndSelectsNothing()
    {
        ListFixture fixture;
        QSignalSpy selections(&fixture.state, &ContentState::selectionChanged);
        QSignalSpy rowSelections(fixture.list.get(), &FolderList::itemSelectionChanged);
        QSignalSpy currents(fixture.list.get(), &FolderList::currentRowChanged);
        fixture.rightClick(fixture.centre(2));
        QVERIFY(ListFixture::menu());
        QCOMPARE(selections.count() + rowSelections.count() + currents.count(), 0);

        const auto actions = ListFixture::menu()->actions();
        QCOMPARE(actions.size(), 1);
        QCOMPARE(actions.first()->text(), "Delete");
        QCOMPARE(actions.first()->icon().pixmap(16).toImage(),
                 symbolIcon(Symbol::trash).pixmap(16).toImage());
        QVERIFY(actions.first()->isIconVisibleInMenu());

        ListFixture::chooseFirstMenuItem();
        QCOMPARE(fixture.names(), "A,B");
        QCOMPARE(fixture.selected(), "A");
    }

    void theRowOfAnOpenMenuIsOutlined()
    {
        ListFixture fixture;
        const auto imageOf = [&](int row) {
            const QRect place = fixture.list->visualItemRect(fixture.list->item(row));
            return fixture.list->viewport()->grab(place).toImage();
        };
        for (const int meant : {0, 2}) {
            const std::vector<QImage> before = {imageOf(0), imageOf(1), imageOf(2)};
            fixture.rightClick(fixture.centre(meant));
            for (int row = 0; row < 3; ++row)
                QCOMPARE(imageOf(row) != before.at(static_cast<std::size_t>(row)), row == meant);
            QCOMPARE(fixture.selected(), "A");
            ListFixture::menu()->close();
            QCOMPARE(imageOf(meant), before.at(static_cast<std::size_t>(meant)));
        }
        // The row can be deleted while the menu is open.
        fixture.rightClick(fixture.centre(2));
        fixture.state.deleteFolder(fixture.folder(2).id);
        ListFixture::menu()->close();
        QCOMPARE(fixture.names(), "A,B");
    }

    void aClosedMenuDeletesNothing()
    {
        ListFixture fixture;
        fixture.rightClick(belowTheRows);
        QVERIFY2(!ListFixture::menu(), "no row, no menu");
        fixture.rightClick(fixture.centre(1));
        QTest::keyClick(ListFixture::menu(), Qt::Key_Escape);
        QVERIFY(!ListFixture::menu());
        QCOMPARE(fixture.names(), "A,B,C");
    }

    void theMenuKeyOpensTheMenuOfTheCurrentRowOnce()
    {
        ListFixture fixture(3, 1);
        // Some window systems also request a menu for the key.
        fixture.requestMenu(QContextMenuEvent::Keyboard, fixture.centre(1));
        fixture.pressKey(Qt::Key_Menu);
        QCOMPARE(fixture.list->findChildren<QMenu*>().size(), 1);
        ListFixture::chooseFirstMenuItem();
        QCOMPARE(fixture.names(), "A,C");
    }

    void shiftF10OpensTheMenuOfTheCurrentRowAndShowsTheRow()
    {
        ListFixture fixture(26, 25);
        fixture.list->scrollToTop();
        fixture.pressKey(Qt::Key_F10, Qt::ShiftModifier);
        QVERIFY(ListFixture::menu());
        QVERIFY(fixture.list->viewport()->rect().contains(fixture.centre(25)));
        ListFixture::chooseFirstMenuItem();
        QCOMPARE(fixture.list->count(), 25);
        QVERIFY(fixture.names().endsWith(",Y"));

        fixture.state.select(fixture.folder(0).id);
        fixture.pressKey(Qt::Key_F10);
        QVERIFY2(!ListFixture::menu(), "F10 without Shift");
        fixture.state.select(std::nullopt);
        fixture.pressKey(Qt::Key_F10, Qt::ShiftModifier);
        QVERIFY2(!ListFixture::menu(), "no current row");
    }

    void otherButtonsAndKeysNeitherSelectNorEditNorDelete()
    {
        ListFixture fixture;
        for (const auto button : {Qt::RightButton, Qt::MiddleButton, Qt::BackButton}) {
            QTest::mouseClick(fixture.list->viewport(), button, {}, fixture.centre(2));
            QTest::mouseDClick(fixture.list->viewport(), button, {}, fixture.centre(2));
            QCOMPARE(fixture.selected(), "A");
        }
        for (const auto key : {Qt::Key_Delete, Qt::Key_Backspace, Qt::Key_F2}) {
            fixture.pressKey(key);
            fixture.pressKey(key, Qt::ControlModifier);
        }
        QTest::mouseDClick(fixture.list->viewport(), Qt::LeftButton, {}, fixture.centre(0));
        QVERIFY(fixture.list->findChildren<QWidget*>("qt_editing_widget").isEmpty());
        QCOMPARE(fixture.list->dragDropMode(), QAbstractItemView::NoDragDrop);
        QCOMPARE(fixture.names(), "A,B,C");
    }
};

HARBEX_WINDOW_TEST(TestFolderList)
#include "tst_FolderList.moc"
