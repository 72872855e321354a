#include "support/MainWindowFixture.h"
#include "support/TestMain.h"

#include <QApplication>
#include <QProcess>
#include <QScreen>

#include <cstdlib>
#include <memory>
#include <string_view>
#include <xcb/xcb.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// Returns the output of a command.
QByteArray run(const char* program, const QStringList& arguments)
{
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForFinished()) return QByteArray(program) + " did not run";
    return process.readAllStandardOutput();
}

/// Changes to a workspace.
void goToWorkspace(const QByteArray& number)
{
    run("xdotool", {"set_desktop", number});
}

QByteArray workspace()
{
    return run("xdotool", {"get_desktop"}).trimmed();
}

/// The startup notifications that programs send to the desktop.
class StartupMessages
{
public:
    StartupMessages() : m_connection(xcb_connect(nullptr, nullptr))
    {
        const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(m_connection)).data->root;
        const uint32_t mask = XCB_EVENT_MASK_PROPERTY_CHANGE;
        xcb_change_window_attributes(m_connection, root, XCB_CW_EVENT_MASK, &mask);
        // The replies come after the mask has taken effect.
        m_begin = atom("_NET_STARTUP_INFO_BEGIN");
        m_more = atom("_NET_STARTUP_INFO");
    }
    ~StartupMessages() { xcb_disconnect(m_connection); }
    StartupMessages(const StartupMessages&) = delete;
    StartupMessages& operator=(const StartupMessages&) = delete;

    /// Returns what has arrived since the last call: '>' begins a message, '|' ends it.
    [[nodiscard]] QByteArray take() const
    {
        QByteArray received;
        while (const auto event = Owned(xcb_poll_for_event(m_connection))) {
            if ((event->response_type & 0x7f) != XCB_CLIENT_MESSAGE) continue;
            const auto* message = reinterpret_cast<const xcb_client_message_event_t*>(event.get());
            if (message->type != m_begin && message->type != m_more) continue;
            if (message->type == m_begin) received += '>';
            const QByteArray piece(reinterpret_cast<const char*>(message->data.data8), 20);
            received += piece.split('\0').first();
            if (piece.contains('\0')) received += '|';
        }
        return received;
    }

private:
    template <class T>
    struct Owned : std::unique_ptr<T, decltype(&std::free)> {
        explicit Owned(T* event) : std::unique_ptr<T, decltype(&std::free)>(event, &std::free) {}
    };

    [[nodiscard]] xcb_atom_t atom(std::string_view name) const
    {
        const auto cookie = xcb_intern_atom(m_connection, 0, static_cast<uint16_t>(name.size()), name.data());
        return Owned(xcb_intern_atom_reply(m_connection, cookie, nullptr))->atom;
    }

    xcb_connection_t* m_connection;
    xcb_atom_t m_begin = XCB_ATOM_NONE;
    xcb_atom_t m_more = XCB_ATOM_NONE;
};

/// The open window with an edit that is not saved.
struct WindowFixture : MainWindowFixture {
    WindowFixture() { openAndEdit(); }

    [[nodiscard]] QString id() const { return QString::number(window->winId()); }

    /// Runs xdotool with a command and the id of the window. Returns its output.
    [[nodiscard]] QByteArray xdotool(const char* command) const
    {
        return run("xdotool", {command, id()}).trimmed();
    }

    /// Minimises the window as a taskbar does.
    void minimise() const
    {
        (void)xdotool("windowminimize");
        QTRY_VERIFY(has("HIDDEN"));
        QTRY_VERIFY(window->isMinimized());
    }

    /// Returns whether the window manager has set this state of the window.
    [[nodiscard]] bool has(const char* name) const
    {
        return run("xprop", {"-id", id(), "_NET_WM_STATE"}).contains(QByteArray("_NET_WM_STATE_") + name);
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
        for (const bool isLeftOut : {true, false, true, false}) {
            fixture.window->setLeftOutOfTaskbar(isLeftOut);
            QTRY_COMPARE(fixture.has("SKIP_TASKBAR"), isLeftOut);
            QTRY_COMPARE(fixture.has("SKIP_PAGER"), isLeftOut);
        }
        fixture.window->setLeftOutOfTaskbar(true);
        QTRY_VERIFY(fixture.has("SKIP_TASKBAR"));
        fixture.window->close();
        fixture.window->setLeftOutOfTaskbar(false);
        fixture.open();
        QVERIFY(!fixture.has("SKIP"));
    }

    void everyOpeningIsLeftOutOfTaskbarAndPager()
    {
        const WindowFixture fixture;
        fixture.window->setLeftOutOfTaskbar(true);
        for (int opening = 0; opening < 3; ++opening) {
            QTRY_VERIFY(fixture.has("SKIP_TASKBAR"));
            QVERIFY(fixture.has("SKIP_PAGER"));
            fixture.window->close();
            // The window manager removes the states when the window is unmapped.
            QTRY_VERIFY(!fixture.has("SKIP_TASKBAR"));
            fixture.open();
        }
    }

    void minimisingAndMaximisingNeitherLoadNorSave()
    {
        const WindowFixture fixture;
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
        QCOMPARE(fixture.rule(0).value, "not saved yet");
    }

    void openingBringsItToTheWorkspaceInFrontAndNeitherLoadsNorSaves()
    {
        for (const bool isMinimised : {false, true}) {
            const WindowFixture fixture;
            if (isMinimised) fixture.minimise();
            for (const QByteArray& number : {QByteArray("2"), QByteArray("1"), QByteArray("0")}) {
                goToWorkspace(number);
                QTRY_COMPARE(workspace(), number);
                QTRY_VERIFY(!fixture.window->isActiveWindow());
                QVERIFY(!fixture.wasTouched());
                fixture.window->open();
                QTRY_COMPARE(fixture.xdotool("get_desktop_for_window"), number);
                QTRY_COMPARE(run("xdotool", {"getactivewindow"}).trimmed(), fixture.id().toUtf8());
                QTRY_VERIFY(fixture.window->isActiveWindow());
                QCOMPARE(workspace(), number);
            }
            QVERIFY(!fixture.wasTouched());
        }
    }

    void aWindowOnAllWorkspacesStaysOnThem()
    {
        const WindowFixture fixture;
        const auto ownWorkspace = [&] { return fixture.xdotool("get_desktop_for_window"); };
        run("xdotool", {"set_desktop_for_window", fixture.id(), "-1"});
        QTRY_COMPARE(ownWorkspace(), QByteArray("-1"));
        goToWorkspace("1");
        fixture.open();
        goToWorkspace("0");
        QCOMPARE(ownWorkspace(), QByteArray("-1"));
    }

    void openingBringsItInFrontOfOtherWindows()
    {
        const WindowFixture fixture;
        QWidget other;
        other.resize(1200, 700);
        other.show();
        other.activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(&other));
        fixture.open();
        const QByteArray last = QByteArray::number(fixture.window->winId(), 16);
        QTRY_VERIFY(run("xprop", {"-root", "_NET_CLIENT_LIST_STACKING"}).trimmed().endsWith(last));
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
        auto received = [&messages, all = QByteArray()]() mutable { return all += messages.take(); };
        QTRY_COMPARE(received(), expected);
        fixture.window->close();
        fixture.window->open("of a closed window");
        expected += ">remove: ID=\"of a closed window\"|";
        QTRY_COMPARE(received(), expected);
    }

    void itsFirstSizeIsOnTheScreen()
    {
        const WindowFixture fixture;
        const QRect screen = fixture.window->screen()->availableGeometry();
        QTRY_VERIFY(screen.contains(fixture.window->frameGeometry()));
    }
};

HARBEX_MAIN(TestMainWindowOnX11)
{
    // Unlike HARBEX_WINDOW_TEST, this uses the display of the surrounding desktop.
    return runTest<QApplication, TestMainWindowOnX11>(argc, argv);
}

#include "tst_MainWindowOnX11.moc"
