#include "ui/MainWindow.h"

#include "ui/ContentState.h"
#include "ui/ContentView.h"
#include "ui/Desktop.h"
#include "ui/IdleMemory.h"
#include "ui/Metrics.h"
#include "ui/X11Window.h"

#include <QApplication>
#include <QCloseEvent>
#include <QIcon>
#include <QShortcut>
#include <QWindow>

#include <utility>

namespace harbex
{

MainWindow::MainWindow(ContentState& state) : m_state(state)
{
    //: The name of the program. It stays in Latin letters.
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
        if (!m_content) makeContent();
    }
    // Qt's Wayland plugin reads the token from the environment.
    if (!activationToken.isEmpty()) qputenv("XDG_ACTIVATION_TOKEN", activationToken.toUtf8());
    const bool wasOpen = isVisible();
    // On X11 Qt does nothing for a window on another virtual desktop. The move comes first: GNOME may switch
    // to the desktop of the window when Qt activates it.
    if (wasOpen) moveToDesktopInFront(winId());
    setWindowState(windowState() & ~Qt::WindowMinimized);
    show();
    raise();
    activateWindow();
    // Window managers may refuse Qt's request, which does not come from the user.
    if (wasOpen) bringToFront(winId());
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

void MainWindow::setLeftOutOfTaskbar(bool isLeftOut)
{
    m_isLeftOutOfTaskbar = isLeftOut;
    if (isVisible()) leaveOutOfTaskbar(winId(), isLeftOut, true);
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
    if (m_isOpen || !m_content || QApplication::activeModalWidget()) return;
    m_columnWidths = m_content->columnWidths();
    takeCentralWidget();
    delete std::exchange(m_content, nullptr);
    destroy();
    releaseIdleMemory();
}

void MainWindow::showEvent(QShowEvent* event)
{
    // A spontaneous event means that the window is already mapped.
    if (!event->spontaneous()) leaveOutOfTaskbar(winId(), m_isLeftOutOfTaskbar, false);
    QMainWindow::showEvent(event);
}

void MainWindow::changeEvent(QEvent* event)
{
    QMainWindow::changeEvent(event);
    QWindow* const window = windowHandle();
    if (event->type() != QEvent::PaletteChange || !window || !isWayland()) return;
    if (window->frameMargins().isNull()) return; // The compositor draws the title bar.
    // Qt 6.4 reads the palette only when it makes its title bar. A window that loses its frame and gets it
    // back has a new one.
    const Qt::WindowFlags flags = window->flags();
    window->setFlags(flags | Qt::FramelessWindowHint);
    window->setFlags(flags);
}

} // namespace harbex
