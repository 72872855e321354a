#include "support/MainWindowFixture.h"
#include "support/WindowTestMain.h"
#include "ui/ContentView.h"
#include "ui/FolderList.h"
#include "ui/RuleRow.h"

using namespace harbex;
using namespace harbex::test;

class TestMainWindow : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // The window.
    void openingLoadsShowsAndStarts()
    {
        MainWindowFixture fixture;
        QCOMPARE(fixture.window->windowTitle(), "Harbex");
        QCOMPARE(fixture.window->windowIcon().pixmap(32, 32).toImage().pixelColor(6, 24),
                 QColor(0x27, 0x96, 0xb8));
        fixture.settle();
        QVERIFY(!fixture.window->isVisible());
        QVERIFY(fixture.state.folders().empty());
        QVERIFY(!fixture.engine.isRunning());
        fixture.open();
        QVERIFY(qobject_cast<ContentView*>(fixture.window->centralWidget()));
        QVERIFY(fixture.window->findChild<FolderList*>()->hasFocus());
        QCOMPARE(fixture.window->findChild<FolderList*>()->count(), 1);
        QCOMPARE(fixture.window->findChildren<RuleRow*>().size(), 3);
        QCOMPARE(fixture.engine.activeFDs().size(), 1U);
    }

    void closingReleasesTheContentAndReopeningMakesItAgain()
    {
        MainWindowFixture fixture;
        for (int opening = 0; opening < 2; ++opening) {
            fixture.open();
            QTest::keyClick(fixture.window.get(), Qt::Key_W, Qt::ControlModifier);
            QTRY_VERIFY(!fixture.window->centralWidget());
            QVERIFY(!fixture.window->windowHandle());
            QVERIFY(fixture.window->findChildren<QWidget*>().isEmpty());
        }
        // At once, before the content is released.
        fixture.open();
        fixture.window->close();
        fixture.window->open();
        fixture.settle();
        QVERIFY(fixture.window->isVisible());
        QVERIFY(fixture.window->windowHandle());
        QCOMPARE(fixture.window->findChildren<ContentView*>().size(), 1);
        QVERIFY(fixture.window->centralWidget()->isVisible());
    }

    void closingBehindADialogKeepsTheContentOfTheDialog()
    {
        MainWindowFixture fixture;
        fixture.open();
        QDialog dialog(fixture.window.get());
        dialog.open();
        const QPointer<QWidget> content = fixture.window->centralWidget();
        fixture.window->close();
        fixture.settle();
        QVERIFY(content);
        fixture.window->open();
        QCOMPARE(fixture.window->centralWidget(), content.data());
        dialog.reject();
        fixture.window->close();
        QTRY_VERIFY(!content);
    }

    void itFirstFitsASmallScreen()
    {
        const MainWindowFixture fixture;
        fixture.open();
        // A screen of 1280 by 800 with a panel and a title bar.
        QVERIFY(fixture.window->width() <= 1200);
        QVERIFY(fixture.window->height() <= 700);
    }

    void sizeColumnsAndStateAreKeptFromClosingToOpening()
    {
        MainWindowFixture fixture;
        fixture.open();
        const auto reopen = [&] {
            fixture.window->close();
            fixture.settle();
            QVERIFY(!fixture.window->centralWidget());
            fixture.window->open();
        };
        const auto columns = [&] { return fixture.window->findChild<QSplitter*>(); };
        fixture.window->resize(1000, 510);
        const QList<int> firstWidths = columns()->sizes();
        columns()->setSizes({202, 797});
        const QList<int> widths = columns()->sizes();
        QVERIFY(widths != firstWidths);
        for (int times = 0; times < 2; ++times) {
            reopen();
            QCOMPARE(fixture.window->size(), QSize(1000, 510));
            QCOMPARE(columns()->sizes(), widths);
        }
        // Two closings in one turn of the main loop.
        fixture.window->close();
        fixture.window->open();
        reopen();
        QCOMPARE(columns()->sizes(), widths);
        // The screen may have become smaller.
        fixture.window->resize(1000, 2000);
        reopen();
        QVERIFY(fixture.window->height() < fixture.window->screen()->availableSize().height());

        fixture.window->showMaximized();
        reopen();
        QVERIFY(fixture.window->isMaximized());
        // Another process begins anew.
        MainWindowFixture other;
        other.open();
        QVERIFY(!other.window->isMaximized());
        QCOMPARE(other.window->findChild<QSplitter*>()->sizes(), firstWidths);
    }

    // Appearing.
    void openingAMinimisedWindowRestoresIt()
    {
        const MainWindowFixture fixture;
        fixture.open();
        fixture.window->showMinimized();
        QVERIFY(fixture.window->isMinimized());
        fixture.window->open();
        QVERIFY(!fixture.window->isMinimized());
    }

    void reopeningLoadsAgainAndNeitherRestartsNorSaves()
    {
        MainWindowFixture fixture;
        fixture.open();
        fixture.window->close();
        (void)fixture.restarts();
        const WatchedFolder folder = fixture.folder(0);
        fixture.store.saveState({{folder, makeFolder("B")}, folder.id});
        const QByteArray before = storedText();
        const QSignalSpy logs(&fixture.engine, &DownloadImageRedirector::logsChanged);
        fixture.open();
        QCOMPARE(fixture.window->findChild<FolderList*>()->count(), 2);
        QCOMPARE(fixture.restarts(), 0);
        QCOMPARE(logs.count(), 0);
        QCOMPARE(storedText(), before);
    }

    void theActivationTokenIsHandedOn()
    {
        MainWindowFixture fixture;
        qunsetenv("XDG_ACTIVATION_TOKEN");
        fixture.window->open();
        QVERIFY(!qEnvironmentVariableIsSet("XDG_ACTIVATION_TOKEN"));
        fixture.window->open("token-1");
        QCOMPARE(qgetenv("XDG_ACTIVATION_TOKEN"), QByteArray("token-1"));
        qunsetenv("XDG_ACTIVATION_TOKEN");
    }

    // Disappearing.
    void closingSavesOnceAndLeavesTheEngineRunning()
    {
        MainWindowFixture fixture;
        QApplication::setQuitOnLastWindowClosed(false);
        fixture.openAndEdit();
        QVERIFY(!fixture.wasTouched());
        const QSignalSpy ends(qApp, &QApplication::aboutToQuit);
        fixture.window->close();
        QVERIFY(!fixture.window->isVisible());
        QVERIFY(fixture.engine.isRunning());
        QCOMPARE(fixture.restarts(), 0);
        const auto saved = fixture.takeSaved();
        QVERIFY(saved);
        QCOMPARE(saved->folders.at(0).rules.at(0).value, "not saved yet");
        QCOMPARE(ends.count(), 0);
        fixture.window->close();
        QVERIFY2(!fixture.wasSaved(), "closing a closed window");
    }

    void closingWithAStoreThatCannotBeWrittenShowsNoDialog()
    {
        MainWindowFixture fixture;
        fixture.openAndEdit();
        // A file in the place of the folder.
        QDir folder = QFileInfo(preferencesPath()).dir();
        QVERIFY(folder.removeRecursively());
        QFile inTheWay(folder.path());
        QVERIFY(inTheWay.open(QIODevice::WriteOnly));
        fixture.window->close();
        fixture.settle();
        QVERIFY(inTheWay.remove());
        const QWidgetList windows = QApplication::topLevelWidgets();
        QVERIFY(std::ranges::none_of(windows, [](const QWidget* each) { return each->isVisible(); }));
    }
};

HARBEX_WINDOW_TEST(TestMainWindow)
#include "tst_MainWindow.moc"
