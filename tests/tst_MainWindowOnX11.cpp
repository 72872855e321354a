#include "support/StateBench.h"
#include "support/TestMain.h"
#include "ui/MainWindow.h"

#include <QApplication>
#include <QProcess>
#include <QScreen>
#include <QSignalSpy>

#include <memory>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// What a command prints.
QString outputOf(const QString& program, const QStringList& arguments)
{
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForFinished()) return QStringLiteral("%1 did not run").arg(program);
    return QString::fromUtf8(process.readAllStandardOutput());
}

/// The states that the window manager knows of a window.
QString statesOf(const QWidget& window)
{
    return outputOf(QStringLiteral("xprop"), {QStringLiteral("-id"), QString::number(window.winId()),
                                              QStringLiteral("_NET_WM_STATE")});
}

struct WindowBench : StateBench {
    WindowBench()
    {
        const auto folder = makeFolder(QStringLiteral("A"));
        store.saveState({{folder}, folder.id});
        window = std::make_unique<MainWindow>(state);
        window->open();
        QVERIFY(QTest::qWaitForWindowActive(window.get()));
        (void)takeSaved();
        loads = std::make_unique<QSignalSpy>(&state, &ContentState::foldersChanged);
    }

    std::unique_ptr<MainWindow> window;
    std::unique_ptr<QSignalSpy> loads;
};

} // namespace

/// What a window manager does with the window. Needs a desktop of its own.
class TestMainWindowOnX11 : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QCOMPARE(QGuiApplication::platformName(), QStringLiteral("xcb")); }

    void itIsLeftOutOfTaskbarAndPagerAtEveryOpening();
    void itIsLeftOutStillAfterItWasMinimised();
    void minimisedByTheWindowManagerItNeitherLoadsNorSavesAndIsRestored();
    void anotherWorkspaceNeitherLoadsNorSaves();
    void openingBringsItInFrontOfOtherWindows();
    void closedByTheWindowManagerItSaves();
    void itIsOnTheScreenAtItsFirstSize();
};

void TestMainWindowOnX11::itIsLeftOutOfTaskbarAndPagerAtEveryOpening()
{
    WindowBench bench;
    for (int opening = 0; opening < 3; ++opening) {
        QTRY_VERIFY(statesOf(*bench.window).contains(QStringLiteral("_NET_WM_STATE_SKIP_TASKBAR")));
        QVERIFY(statesOf(*bench.window).contains(QStringLiteral("_NET_WM_STATE_SKIP_PAGER")));
        bench.window->close();
        // The window manager takes the states away from a window that is withdrawn.
        QTRY_VERIFY(!statesOf(*bench.window).contains(QStringLiteral("SKIP_TASKBAR")));
        bench.window->open();
        QVERIFY(QTest::qWaitForWindowActive(bench.window.get()));
    }
}

void TestMainWindowOnX11::itIsLeftOutStillAfterItWasMinimised()
{
    WindowBench bench;
    bench.window->showMinimized();
    QTRY_VERIFY(statesOf(*bench.window).contains(QStringLiteral("HIDDEN")));
    QVERIFY(statesOf(*bench.window).contains(QStringLiteral("SKIP_TASKBAR")));
    bench.window->open();
    QTRY_VERIFY(!statesOf(*bench.window).contains(QStringLiteral("HIDDEN")));
    QVERIFY(statesOf(*bench.window).contains(QStringLiteral("SKIP_TASKBAR")));
}

void TestMainWindowOnX11::minimisedByTheWindowManagerItNeitherLoadsNorSavesAndIsRestored()
{
    WindowBench bench;
    bench.state.setValue(bench.rule(0).id, QStringLiteral("not saved yet"));
    outputOf(QStringLiteral("xdotool"),
             {QStringLiteral("windowminimize"), QString::number(bench.window->winId())});
    QTRY_VERIFY(bench.window->isMinimized());
    bench.window->open();
    QTRY_VERIFY(!bench.window->isMinimized());
    QVERIFY(QTest::qWaitForWindowActive(bench.window.get()));
    QCOMPARE(bench.loads->count(), 0);
    QVERIFY(!bench.wasSaved());
}

void TestMainWindowOnX11::anotherWorkspaceNeitherLoadsNorSaves()
{
    WindowBench bench;
    const auto go = [](const char* workspace) {
        outputOf(QStringLiteral("xdotool"), {QStringLiteral("set_desktop"), QString::fromLatin1(workspace)});
    };
    go("1");
    QTRY_VERIFY(!bench.window->isActiveWindow());
    bench.settle();
    QCOMPARE(bench.loads->count(), 0);
    QVERIFY(!bench.wasSaved());
    go("0");
    bench.window->open();
    QVERIFY(QTest::qWaitForWindowActive(bench.window.get()));
    QCOMPARE(bench.loads->count(), 0);
    QVERIFY(!bench.wasSaved());
}

void TestMainWindowOnX11::openingBringsItInFrontOfOtherWindows()
{
    WindowBench bench;
    QWidget other;
    other.resize(1200, 700);
    other.show();
    other.activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(&other));
    bench.window->open();
    QVERIFY(QTest::qWaitForWindowActive(bench.window.get()));
    QTRY_VERIFY(outputOf(QStringLiteral("xprop"),
                         {QStringLiteral("-root"), QStringLiteral("_NET_CLIENT_LIST_STACKING")})
                    .trimmed()
                    .endsWith(QString::number(bench.window->winId(), 16)));
}

void TestMainWindowOnX11::closedByTheWindowManagerItSaves()
{
    WindowBench bench;
    // As its close button does. Openbox now and then handles one key only when the next one comes.
    const auto isClosed = [&bench] { return !bench.window->isVisible(); };
    for (int press = 0; press < 5 && !isClosed(); ++press) {
        outputOf(QStringLiteral("xdotool"),
                 {QStringLiteral("key"), QStringLiteral("--clearmodifiers"), QStringLiteral("alt+F4")});
        (void)QTest::qWaitFor(isClosed, 1000);
    }
    QVERIFY(isClosed());
    QVERIFY(bench.wasSaved());
}

void TestMainWindowOnX11::itIsOnTheScreenAtItsFirstSize()
{
    const WindowBench bench;
    const QRect screen = bench.window->screen()->availableGeometry();
    QTRY_VERIFY(screen.contains(bench.window->frameGeometry()));
}

int main(int argc, char** argv)
{
    // The display is that of the desktop around it; the rest is the own home of the test.
    return runTest<QApplication, TestMainWindowOnX11>(argc, argv);
}
#include "tst_MainWindowOnX11.moc"
