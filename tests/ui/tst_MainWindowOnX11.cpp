#include "support/ContentStateFixture.h"
#include "support/TestMain.h"
#include "ui/MainWindow.h"

#include <QApplication>
#include <QProcess>
#include <QScreen>
#include <QSignalSpy>

#include <cstdlib>
#include <memory>
#include <string_view>
#include <xcb/xcb.h>

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

/// What programs tell the desktop about starts.
class StartupMessages
{
public:
    StartupMessages() : m_connection(xcb_connect(nullptr, nullptr))
    {
        const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(m_connection)).data->root;
        const uint32_t mask = XCB_EVENT_MASK_PROPERTY_CHANGE;
        xcb_change_window_attributes(m_connection, root, XCB_CW_EVENT_MASK, &mask);
        // Their answers come when that has taken effect.
        m_begin = atom("_NET_STARTUP_INFO_BEGIN");
        m_more = atom("_NET_STARTUP_INFO");
    }
    ~StartupMessages() { xcb_disconnect(m_connection); }
    StartupMessages(const StartupMessages&) = delete;
    StartupMessages& operator=(const StartupMessages&) = delete;

    /// What has come since the last time this was asked: '>' where a message begins, '|' where it ends.
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

struct WindowBench : ContentStateFixture {
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
    void openingItForAnotherStartEndsThatStart();
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

void TestMainWindowOnX11::openingItForAnotherStartEndsThatStart()
{
    WindowBench bench;
    const StartupMessages messages;
    bench.window->open();
    bench.window->open(QStringLiteral("panel/some \"program\"/1-0_TIME7"));
    bench.window->open(QStringLiteral("0123456"));
    // The second fills a piece, so that its end comes in one more.
    QByteArray expected = R"(>remove: ID="panel/some \"program\"/1-0_TIME7"|>remove: ID="0123456"|)";
    auto received = [&messages, all = QByteArray()]() mutable { return all += messages.take(); };
    QTRY_COMPARE(received(), expected);
    bench.window->close();
    bench.window->open(QStringLiteral("of a closed window"));
    expected += R"(>remove: ID="of a closed window"|)";
    QTRY_COMPARE(received(), expected);
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
