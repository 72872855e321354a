#include "support/ContentStateFixture.h"
#include "support/WindowTestMain.h"
#include "ui/ContentView.h"
#include "ui/FolderList.h"
#include "ui/MainWindow.h"
#include "ui/RuleRow.h"

#include <QComboBox>
#include <QDialog>
#include <QFileInfo>
#include <QLineEdit>
#include <QMenu>
#include <QPointer>
#include <QSignalSpy>
#include <QTimer>
#include <QToolBar>
#include <QWindow>
#include <qtestspontaneevent.h>

#include <algorithm>
#include <memory>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// The window over a store that holds folders, not opened yet.
struct WindowBench : ContentStateFixture {
    explicit WindowBench(std::vector<WatchedFolder> folders = {makeFolder(QStringLiteral("A"), 3)})
    {
        store.saveState({std::move(folders), {}});
        window = std::make_unique<MainWindow>(state);
    }

    /// Opens the window and forgets what that saved and started.
    void open()
    {
        window->open();
        QVERIFY(QTest::qWaitForWindowActive(window.get()));
        QVERIFY(!state.folders().empty());
        store.saveState({state.folders(), state.selectedFolderID()});
        (void)restarts();
        loads = std::make_unique<QSignalSpy>(&state, &ContentState::foldersChanged);
        content = savedContent();
    }

    /// Whether the store was read or written since then.
    [[nodiscard]] bool wasLoaded() const { return loads->count() > 0; }
    [[nodiscard]] bool wasWritten() const { return savedContent() != content; }

    /// An edit that only a save brings into the store.
    void edit() { state.setValue(rule(0).id, QStringLiteral("not saved yet")); }

    [[nodiscard]] static QByteArray savedContent()
    {
        QFile file(preferencesPath());
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    std::unique_ptr<MainWindow> window;
    std::unique_ptr<QSignalSpy> loads;
    QByteArray content;
};

/// As the window system tells of something that it did itself.
template <class Event>
void sendFromOutside(QWidget* widget)
{
    Event event;
    QSpontaneKeyEvent::setSpontaneous(&event);
    qApp->notify(widget, &event);
}

} // namespace

class TestMainWindow : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // The window.
    void itIsTitledHarbexAndHoldsTheContent();
    void nothingOfAClosedWindowIsLeft();
    void reopenedAtOnceItIsWhole();
    void closedBehindADialogItKeepsWhatTheDialogAnswersTo();
    void itCannotBeSmallerThan1000By400();
    void itsFirstSizeFitsASmallScreen();
    void everyOpeningBeginsWithTheSameSize();

    // Appearing.
    void nothingIsReadBeforeItIsOpened();
    void openingLoadsShowsAndStarts();
    void openingItWhileItIsOpenLoadsNothingAndShowsTheSameWindow();
    void openingItAgainLoadsAgainAndDoesNotRestart();
    void reopeningWithRowsOnScreenNeitherRestartsNorSaves();
    void aMinimisedWindowIsRestoredWithoutLoading();
    void theActivationTokenIsHandedOn();
    void theFoldersHaveTheFocusAtFirst();

    // Disappearing.
    void closingSavesWithTheEditsMadeBefore();
    void closingItWithAStoreThatCannotBeWrittenShowsNoDialog();
    void closingLeavesTheEngineRunningAndTheProcessAlive();
    void closingAClosedWindowSavesNothing();
    void minimisingNeitherLoadsNorSaves();
    void beingHiddenAndShownFromOutsideNeitherLoadsNorSaves();
    void losingAndGettingTheFocusNeitherLoadsNorSaves();
    void theEndOfTheProgramSavesNothingAndLogsNothing();
    void destroyingTheOpenWindowSavesNothing();
    void theToolBarCannotBeHidden();
};

void TestMainWindow::itIsTitledHarbexAndHoldsTheContent()
{
    WindowBench bench;
    QCOMPARE(bench.window->windowTitle(), QStringLiteral("Harbex"));
    QCOMPARE(bench.window->windowIcon().pixmap(32, 32).toImage().pixelColor(6, 24), QColor(0x27, 0x96, 0xb8));
    QVERIFY(!bench.window->isVisible());
    bench.open();
    QVERIFY(qobject_cast<ContentView*>(bench.window->centralWidget()));
}

void TestMainWindow::nothingOfAClosedWindowIsLeft()
{
    WindowBench bench;
    for (int opening = 0; opening < 2; ++opening) {
        bench.open();
        bench.window->close();
        QTRY_VERIFY(!bench.window->centralWidget());
        QVERIFY(!bench.window->windowHandle());
        QVERIFY(bench.window->findChildren<QWidget*>().isEmpty());
    }
}

void TestMainWindow::closedBehindADialogItKeepsWhatTheDialogAnswersTo()
{
    WindowBench bench;
    bench.open();
    QDialog dialog(bench.window.get());
    dialog.open();
    const QPointer<QWidget> content = bench.window->centralWidget();
    bench.window->close();
    bench.settle();
    QVERIFY(content);
    bench.window->open();
    QCOMPARE(bench.window->centralWidget(), content.data());
    dialog.reject();
    bench.window->close();
    QTRY_VERIFY(!content);
}

void TestMainWindow::reopenedAtOnceItIsWhole()
{
    WindowBench bench;
    bench.open();
    bench.window->close();
    bench.window->open();
    bench.settle();
    QVERIFY(bench.window->isVisible());
    QVERIFY(bench.window->windowHandle());
    QCOMPARE(bench.window->findChildren<ContentView*>().size(), 1);
    QVERIFY(bench.window->centralWidget()->isVisible());
}

void TestMainWindow::itCannotBeSmallerThan1000By400()
{
    WindowBench bench;
    bench.open();
    bench.window->resize(10, 10);
    QCOMPARE(bench.window->centralWidget()->size(), QSize(1000, 400));
    QVERIFY(bench.window->windowHandle()->minimumSize().width() >= 1000);
    QVERIFY(bench.window->windowHandle()->minimumSize().height() >= 400);
    bench.window->resize(1500, 900);
    QCOMPARE(bench.window->centralWidget()->size(), QSize(1500, 900));
}

void TestMainWindow::itsFirstSizeFitsASmallScreen()
{
    WindowBench bench;
    bench.open();
    // A screen of 1280 by 800 with a panel and a title bar.
    QVERIFY(bench.window->width() <= 1200);
    QVERIFY(bench.window->height() <= 700);
    QVERIFY(bench.window->width() >= 1000);
    QVERIFY(bench.window->height() >= 400);
}

void TestMainWindow::everyOpeningBeginsWithTheSameSize()
{
    WindowBench bench;
    bench.open();
    const QSize size = bench.window->size();
    bench.window->resize(1250, 777);
    bench.window->close();
    bench.window->open();
    QCOMPARE(bench.window->size(), size);
    bench.window->showMaximized();
    QTRY_VERIFY(bench.window->size() != size);
    bench.window->close();
    bench.window->open();
    QVERIFY(!bench.window->isMaximized());
    QCOMPARE(bench.window->size(), size);
    // Bringing it to the front is no opening.
    bench.window->resize(1250, 777);
    bench.window->open();
    QCOMPARE(bench.window->size(), QSize(1250, 777));
}

void TestMainWindow::nothingIsReadBeforeItIsOpened()
{
    WindowBench bench;
    bench.settle();
    QVERIFY(bench.state.folders().empty());
    QVERIFY(!bench.engine.isRunning());
}

void TestMainWindow::openingLoadsShowsAndStarts()
{
    WindowBench bench;
    bench.window->open();
    QVERIFY(bench.window->isVisible());
    QCOMPARE(bench.state.folders().size(), 1U);
    QCOMPARE(bench.window->findChild<FolderList*>()->count(), 1);
    QCOMPARE(bench.window->findChildren<RuleRow*>().size(), 3);
    bench.settle();
    QVERIFY(bench.engine.isRunning());
    QCOMPARE(bench.engine.activeFDs().size(), 1U);
}

void TestMainWindow::openingItWhileItIsOpenLoadsNothingAndShowsTheSameWindow()
{
    WindowBench bench;
    bench.open();
    bench.edit();
    bench.window->open();
    QVERIFY(!bench.wasLoaded());
    QVERIFY(!bench.wasWritten());
    QCOMPARE(bench.rule(0).value, QStringLiteral("not saved yet"));
    QCOMPARE(bench.restarts(), 0);
    QVERIFY(bench.window->isVisible());
    QVERIFY(bench.window->isActiveWindow());
}

void TestMainWindow::openingItAgainLoadsAgainAndDoesNotRestart()
{
    WindowBench bench;
    bench.open();
    bench.window->close();
    auto folders = bench.state.folders();
    folders.push_back(ContentStateFixture::makeFolder(QStringLiteral("B")));
    bench.store.saveState({folders, folders.at(0).id});
    bench.window->open();
    QVERIFY(bench.wasLoaded());
    QCOMPARE(bench.window->findChild<FolderList*>()->count(), 2);
    QCOMPARE(bench.restarts(), 0);
    QVERIFY(bench.engine.isRunning());
}

void TestMainWindow::reopeningWithRowsOnScreenNeitherRestartsNorSaves()
{
    std::vector<WatchedFolder> folders{ContentStateFixture::makeFolder(QStringLiteral("A"), 200)};
    for (FilterRule& rule : folders.at(0).rules) {
        rule.field = RuleField::kind;
        rule.kind = RuleKind::audio;
        rule.operatorType = RuleOperator::isEqual;
        rule.value = QStringLiteral("x");
        rule.destination = FileUrl::fromPath("/srv/Music");
    }
    WindowBench bench(folders);
    bench.open();
    bench.window->close();
    const QByteArray before = WindowBench::savedContent();
    QSignalSpy logs(&bench.engine, &DownloadImageRedirector::logsChanged);
    bench.window->open();
    QVERIFY(QTest::qWaitForWindowActive(bench.window.get()));
    QCOMPARE(bench.restarts(), 0);
    QCOMPARE(logs.count(), 0);
    QCOMPARE(WindowBench::savedContent(), before);
    QCOMPARE(bench.folder(0).rules, folders.at(0).rules);
}

void TestMainWindow::aMinimisedWindowIsRestoredWithoutLoading()
{
    WindowBench bench;
    bench.open();
    bench.window->showMinimized();
    QVERIFY(bench.window->isMinimized());
    bench.window->open();
    QVERIFY(!bench.window->isMinimized());
    QVERIFY(!bench.wasLoaded());
    // A maximised one stays so.
    bench.window->showMaximized();
    bench.window->open();
    QVERIFY(bench.window->isMaximized());
}

void TestMainWindow::theActivationTokenIsHandedOn()
{
    WindowBench bench;
    qunsetenv("XDG_ACTIVATION_TOKEN");
    bench.window->open();
    QVERIFY(!qEnvironmentVariableIsSet("XDG_ACTIVATION_TOKEN"));
    bench.window->open(QStringLiteral("token-1"));
    QCOMPARE(qgetenv("XDG_ACTIVATION_TOKEN"), QByteArray("token-1"));
    qunsetenv("XDG_ACTIVATION_TOKEN");
}

void TestMainWindow::theFoldersHaveTheFocusAtFirst()
{
    WindowBench bench;
    bench.open();
    QVERIFY(bench.window->findChild<FolderList*>()->hasFocus());
}

void TestMainWindow::closingSavesWithTheEditsMadeBefore()
{
    WindowBench bench;
    bench.open();
    bench.edit();
    QVERIFY(!bench.wasWritten());
    bench.window->close();
    QVERIFY(!bench.window->isVisible());
    const auto saved = bench.takeSaved();
    QVERIFY(saved);
    QCOMPARE(saved->folders.at(0).rules.at(0).value, QStringLiteral("not saved yet"));
}

void TestMainWindow::closingItWithAStoreThatCannotBeWrittenShowsNoDialog()
{
    WindowBench bench;
    bench.open();
    bench.edit();
    const QString folder = QFileInfo(preferencesPath()).path();
    const QString aside = folder + QStringLiteral("-aside");
    QVERIFY(QFile::rename(folder, aside));
    {
        // Where a file stands, no folder can be made.
        QFile inTheWay(folder);
        QVERIFY(inTheWay.open(QIODevice::WriteOnly));
    }
    bench.window->close();
    bench.settle();
    const QWidgetList windows = QApplication::topLevelWidgets();
    const bool isAnyShown =
        std::ranges::any_of(windows, [](const QWidget* each) { return each->isVisible(); });
    bench.window->open();
    const QString value = bench.rule(0).value;
    QVERIFY(QFile::remove(folder));
    QVERIFY(QFile::rename(aside, folder));
    QVERIFY(!isAnyShown);
    // Nothing was lost.
    QCOMPARE(value, QStringLiteral("not saved yet"));
    QVERIFY(!bench.wasWritten());
}

void TestMainWindow::closingLeavesTheEngineRunningAndTheProcessAlive()
{
    WindowBench bench;
    QApplication::setQuitOnLastWindowClosed(false);
    bench.open();
    const QSignalSpy ends(qApp, &QApplication::aboutToQuit);
    bench.window->close();
    QCOMPARE(bench.restarts(), 0);
    QVERIFY(bench.engine.isRunning());
    QCOMPARE(ends.count(), 0);
}

void TestMainWindow::closingAClosedWindowSavesNothing()
{
    WindowBench bench;
    bench.open();
    bench.window->close();
    QVERIFY(bench.wasSaved());
    bench.window->close();
    QVERIFY(!bench.wasSaved());
}

void TestMainWindow::minimisingNeitherLoadsNorSaves()
{
    WindowBench bench;
    bench.open();
    bench.edit();
    bench.window->showMinimized();
    bench.settle();
    bench.window->showNormal();
    bench.settle();
    QVERIFY(!bench.wasLoaded());
    QVERIFY(!bench.wasWritten());
    QCOMPARE(bench.rule(0).value, QStringLiteral("not saved yet"));
}

void TestMainWindow::beingHiddenAndShownFromOutsideNeitherLoadsNorSaves()
{
    WindowBench bench;
    bench.open();
    bench.edit();
    // Another workspace, a locked screen.
    sendFromOutside<QHideEvent>(bench.window.get());
    bench.settle();
    QVERIFY(!bench.wasWritten());
    bench.window->open();
    QVERIFY(!bench.wasLoaded());
    sendFromOutside<QShowEvent>(bench.window.get());
    bench.settle();
    QVERIFY(!bench.wasLoaded());
    QVERIFY(!bench.wasWritten());
    QCOMPARE(bench.restarts(), 0);
}

void TestMainWindow::losingAndGettingTheFocusNeitherLoadsNorSaves()
{
    WindowBench bench;
    bench.open();
    bench.edit();
    QWidget other;
    other.show();
    other.activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(&other));
    bench.window->activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(bench.window.get()));
    QVERIFY(!bench.wasLoaded());
    QVERIFY(!bench.wasWritten());
}

void TestMainWindow::theEndOfTheProgramSavesNothingAndLogsNothing()
{
    WindowBench bench;
    bench.open();
    bench.edit();
    QSignalSpy logs(&bench.engine, &DownloadImageRedirector::logsChanged);
    QTimer::singleShot(0, qApp, [] { QApplication::exit(0); });
    QCOMPARE(QApplication::exec(), 0);
    QVERIFY(bench.engine.isRunning());
    bench.window.reset();
    QVERIFY(!bench.wasWritten());
    QCOMPARE(logs.count(), 0);
}

void TestMainWindow::destroyingTheOpenWindowSavesNothing()
{
    WindowBench bench;
    bench.open();
    bench.edit();
    // With the focus in a row, which goes with it.
    auto* field = bench.window->findChild<QLineEdit*>();
    field->setFocus();
    QVERIFY(field->hasFocus());
    bench.window.reset();
    bench.settle();
    QVERIFY(!bench.wasWritten());
}

void TestMainWindow::theToolBarCannotBeHidden()
{
    // A main window offers to hide its toolbars where it is clicked with the right button.
    WindowBench bench;
    bench.open();
    const std::unique_ptr<QMenu> menu(bench.window->createPopupMenu());
    QVERIFY(!menu || menu->isEmpty());
}

HARBEX_WINDOW_TEST_MAIN(TestMainWindow)
#include "tst_MainWindow.moc"
