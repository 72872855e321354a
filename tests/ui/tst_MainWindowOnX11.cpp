#include "support/MainWindowFixture.h"
#include "support/WindowTestMain.h"
#include "ui/Xcb.h"

#include <xcb/xcb.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// Runs a command and returns its output.
QString run(const QString& command)
{
    QProcess process;
    process.startCommand(command);
    return process.waitForFinished() ? process.readAllStandardOutput().trimmed() : command + " did not run";
}

/// The startup notifications that programs send to the desktop.
class StartupMessages : public QAbstractNativeEventFilter
{
public:
    StartupMessages() { qApp->installNativeEventFilter(this); }

    bool nativeEventFilter(const QByteArray& /*type*/, void* event, qintptr* /*result*/) override
    {
        const auto* message = static_cast<const xcb_client_message_event_t*>(event);
        if ((message->response_type & 0x7f) != XCB_CLIENT_MESSAGE) return false;
        const bool isBegin = message->type == x11::atom("_NET_STARTUP_INFO_BEGIN");
        if (!isBegin && message->type != x11::atom("_NET_STARTUP_INFO")) return false;
        if (isBegin) received += '>';
        const QByteArray piece(reinterpret_cast<const char*>(message->data.data8), 20);
        received += piece.split('\0').first();
        if (piece.contains('\0')) received += '|';
        return false;
    }

    /// What has arrived: '>' begins a message, '|' ends it.
    QByteArray received;
};

/// The open window with an edit that is not saved.
struct WindowFixture : MainWindowFixture {
    WindowFixture() { openAndEdit(); }

    [[nodiscard]] QString id() const { return QString::number(window->winId()); }

    /// Returns the workspace of the window.
    [[nodiscard]] QString workspace() const { return run("xdotool get_desktop_for_window " + id()); }

    /// Minimises the window as a taskbar does.
    void minimise() const
    {
        run("xdotool windowminimize " + id());
        QTRY_VERIFY(has("HIDDEN"));
        QTRY_VERIFY(window->isMinimized());
    }

    /// Returns whether the window manager has set this state of the window.
    [[nodiscard]] bool has(const char* name) const
    {
        return run("xprop -id " + id() + " _NET_WM_STATE").contains(QString("_NET_WM_STATE_") + name);
    }
};

} // namespace

/// The window with a window manager. Needs a desktop of its own.
class TestMainWindowOnX11 : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QCOMPARE(QGuiApplication::platformName(), "xcb"); }

    void itIsInTaskbarAndPagerUnlessItIsLeftOut()
    {
        const WindowFixture fixture;
        for (const bool isLeftOut : {true, false, true}) {
            fixture.window->setLeftOutOfTaskbar(isLeftOut);
            QTRY_COMPARE(fixture.has("SKIP_TASKBAR"), isLeftOut);
            QTRY_COMPARE(fixture.has("SKIP_PAGER"), isLeftOut);
        }
        for (int opening = 0; opening < 2; ++opening) {
            fixture.window->close();
            // The window manager removes the states when the window is unmapped.
            QTRY_VERIFY(!fixture.has("SKIP"));
            fixture.open();
            QTRY_VERIFY(fixture.has("SKIP_TASKBAR") && fixture.has("SKIP_PAGER"));
        }
        fixture.window->close();
        fixture.window->setLeftOutOfTaskbar(false);
        fixture.open();
        QVERIFY(!fixture.has("SKIP"));
    }

    void minimisingAndMaximisingNeitherLoadNorSave()
    {
        WindowFixture fixture;
        fixture.window->setLeftOutOfTaskbar(true);
        fixture.minimise();
        QVERIFY(fixture.has("SKIP_TASKBAR"));
        fixture.open();
        QTRY_VERIFY(!fixture.window->isMinimized());
        QTRY_VERIFY(!fixture.has("HIDDEN"));
        QVERIFY(fixture.has("SKIP_TASKBAR"));
        fixture.window->showMaximized();
        fixture.open();
        QVERIFY(fixture.window->isMaximized());
        QVERIFY(!fixture.wasTouched());
        QCOMPARE(fixture.restarts(), 0);
        QCOMPARE(fixture.rule(0).value, "not saved yet");
    }

    void openingBringsItToTheWorkspaceInFrontAndNeitherLoadsNorSaves()
    {
        for (const bool isMinimised : {false, true}) {
            const WindowFixture fixture;
            if (isMinimised) fixture.minimise();
            for (const char* number : {"2", "1", "0"}) {
                run(QString("xdotool set_desktop ") + number);
                QTRY_COMPARE(run("xdotool get_desktop"), number);
                QTRY_VERIFY(!fixture.window->isActiveWindow());
                QVERIFY(!fixture.wasTouched());
                fixture.window->open();
                QTRY_COMPARE(fixture.workspace(), number);
                QTRY_COMPARE(run("xdotool getactivewindow"), fixture.id());
                QTRY_VERIFY(fixture.window->isActiveWindow());
                QCOMPARE(run("xdotool get_desktop"), number);
            }
            QVERIFY(!fixture.wasTouched());
        }
    }

    void aWindowOnAllWorkspacesStaysOnThem()
    {
        const WindowFixture fixture;
        run("xdotool set_desktop_for_window " + fixture.id() + " -1");
        QTRY_COMPARE(fixture.workspace(), "-1");
        run("xdotool set_desktop 1");
        fixture.open();
        run("xdotool set_desktop 0");
        QCOMPARE(fixture.workspace(), "-1");
    }

    void openingBringsItInFrontOfOtherWindows()
    {
        const WindowFixture fixture;
        QWidget other;
        other.resize(1200, 700);
        activate(other);
        fixture.open();
        const QString last = QString::number(fixture.window->winId(), 16);
        QTRY_VERIFY(run("xprop -root _NET_CLIENT_LIST_STACKING").endsWith(last));
    }

    void openingItForAnotherStartEndsThatStart()
    {
        WindowFixture fixture;
        const StartupMessages messages;
        fixture.window->open();
        fixture.window->open("panel/some \"program\"/1-0_TIME7");
        fixture.window->open("0123456");
        // The second fills a piece, so its end needs another one.
        QByteArray expected = ">remove: ID=\"panel/some \\\"program\\\"/1-0_TIME7\"|>remove: ID=\"0123456\"|";
        QTRY_COMPARE(messages.received, expected);
        fixture.window->close();
        fixture.window->open("of a closed window");
        expected += ">remove: ID=\"of a closed window\"|";
        QTRY_COMPARE(messages.received, expected);
    }
};

HARBEX_MAIN(TestMainWindowOnX11)
{
    // Unlike HARBEX_WINDOW_TEST, this uses the display of the surrounding desktop.
    return runTest<QApplication, TestMainWindowOnX11>(argc, argv);
}

#include "tst_MainWindowOnX11.moc"
