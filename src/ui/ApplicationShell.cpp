#include "ui/ApplicationShell.h"

#include <QApplication>

namespace harbex
{

ApplicationShell::ApplicationShell() : m_state(m_watcher, m_store), m_mainWindow(m_state)
{
    connect(&m_statusItem, &StatusItem::openRequested, &m_mainWindow, &MainWindow::open);
    // exit() and not quit(), which closes the window first: closing it saves.
    connect(&m_statusItem, &StatusItem::quitRequested, qApp, [] { QApplication::exit(0); });
}

void ApplicationShell::applicationDidFinishLaunching() { m_mainWindow.open(); }

} // namespace harbex
