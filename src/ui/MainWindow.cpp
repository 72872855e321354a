#include "ui/MainWindow.h"

#include "ui/ContentState.h"
#include "ui/ContentView.h"
#include "ui/IdleMemory.h"
#include "ui/Metrics.h"

#include <QApplication>
#include <QCloseEvent>
#include <QIcon>
#include <QShortcut>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <utility>
#include <xcb/xcb.h>

namespace harbex
{

namespace
{

xcb_atom_t atom(xcb_connection_t* connection, std::string_view name)
{
    const auto cookie = xcb_intern_atom(connection, 0, static_cast<uint16_t>(name.size()), name.data());
    const std::unique_ptr<xcb_intern_atom_reply_t, decltype(&std::free)> reply(
        xcb_intern_atom_reply(connection, cookie, nullptr), &std::free);
    return reply ? reply->atom : static_cast<xcb_atom_t>(XCB_ATOM_NONE);
}

/// Returns the connection to the X11 server; null on other platforms.
xcb_connection_t* x11Connection()
{
    const auto* x11 = qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
    // Some other platforms have the interface, but no connection.
    return x11 ? x11->connection() : nullptr;
}

/// Leaves an X11 window out of taskbars and pagers. Call before the window is mapped: the window manager
/// reads the property when it maps the window, and deletes it when the window is unmapped.
void leaveOutOfTaskbar(WId window)
{
    xcb_connection_t* connection = x11Connection();
    if (!connection) return;
    const std::array states{atom(connection, "_NET_WM_STATE_SKIP_TASKBAR"),
                            atom(connection, "_NET_WM_STATE_SKIP_PAGER")};
    xcb_change_property(connection, XCB_PROP_MODE_REPLACE, static_cast<xcb_window_t>(window),
                        atom(connection, "_NET_WM_STATE"), XCB_ATOM_ATOM, 32, states.size(), states.data());
}

/// Ends the X11 startup notification with this id. Qt ends only that of its own process.
void endStartup(WId window, QByteArray id)
{
    xcb_connection_t* connection = x11Connection();
    if (!connection) return;
    id.replace('\\', "\\\\").replace('"', "\\\"");
    // Sent in pieces of 20 bytes, padded with NUL. The message needs a final NUL.
    const QByteArray message = "remove: ID=\"" + id + "\"" + '\0';
    xcb_client_message_event_t event = {};
    constexpr qsizetype pieceSize = sizeof(event.data.data8);
    event.response_type = XCB_CLIENT_MESSAGE;
    event.format = 8;
    event.window = static_cast<xcb_window_t>(window);
    event.type = atom(connection, "_NET_STARTUP_INFO_BEGIN");
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(connection)).data->root;
    for (qsizetype sent = 0; sent < message.size(); sent += pieceSize) {
        std::ranges::copy(message.mid(sent, pieceSize).leftJustified(pieceSize, '\0'), event.data.data8);
        xcb_send_event(connection, 0, root, XCB_EVENT_MASK_PROPERTY_CHANGE,
                       reinterpret_cast<const char*>(&event));
        event.type = atom(connection, "_NET_STARTUP_INFO");
    }
}

} // namespace

MainWindow::MainWindow(ContentState& state) : m_state(state)
{
    setWindowTitle(tr("Harbex"));
    connect(new QShortcut(QKeySequence::Close, this), &QShortcut::activated, this, &MainWindow::close);
    // The theme contains the icon if the program is installed.
    setWindowIcon(QIcon::fromTheme(QStringLiteral("org.harbex.Harbex"),
                                   QIcon(QStringLiteral(":/icons/application.svg"))));
}

void MainWindow::open(const QString& activationToken)
{
    if (!m_isOpen) {
        m_isOpen = true;
        m_state.appear();
        if (!centralWidget()) makeContent();
    }
    // Qt's Wayland plugin reads the token from there.
    if (!activationToken.isEmpty()) qputenv("XDG_ACTIVATION_TOKEN", activationToken.toUtf8());
    setWindowState(windowState() & ~Qt::WindowMinimized);
    show();
    raise();
    activateWindow();
    if (!activationToken.isEmpty()) endStartup(winId(), activationToken.toUtf8());
}

void MainWindow::makeContent()
{
    m_content = new ContentView(m_state, this);
    setCentralWidget(m_content);
    const bool isFirst = m_columnWidths.isEmpty();
    const QSize wanted = isFirst ? QSize(scaledToFont(*this, 1100), scaledToFont(*this, 640)) : size();
    if (!isMaximized()) resize(wanted.boundedTo(availableSizeFor(*this)));
    if (!isFirst) m_content->setColumnWidths(m_columnWidths);
}

void MainWindow::closeEvent(QCloseEvent* event)
{
    QMainWindow::closeEvent(event);
    // A window that is not open can receive this event too.
    if (!std::exchange(m_isOpen, false)) return;
    m_state.disappear();
    // Queued, so that Qt hides the window first.
    QMetaObject::invokeMethod(this, &MainWindow::releaseContent, Qt::QueuedConnection);
}

void MainWindow::releaseContent()
{
    // An open dialog still needs the content.
    if (m_isOpen || QApplication::activeModalWidget()) return;
    m_columnWidths = m_content->columnWidths();
    delete takeCentralWidget();
    destroy();
    releaseIdleMemory();
}

void MainWindow::showEvent(QShowEvent* event)
{
    // A spontaneous event means that the window is already mapped.
    if (!event->spontaneous()) leaveOutOfTaskbar(winId());
    QMainWindow::showEvent(event);
}

} // namespace harbex
