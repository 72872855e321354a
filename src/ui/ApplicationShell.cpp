#include "ui/ApplicationShell.h"

#include "ui/ApplicationService.h"

#include <QApplication>

namespace harbex
{

ApplicationShell::ApplicationShell(const QDBusConnection& bus, const ApplicationService& service)
    : m_state(m_watcher, m_store), m_mainWindow(m_state), m_statusItem(bus)
{
    connect(&m_statusItem, &StatusItem::openRequested, &m_mainWindow, &MainWindow::open);
    connect(&service, &ApplicationService::openRequested, &m_mainWindow, &MainWindow::open);
    // exit() and not quit(), which closes the window first: closing it saves.
    const auto quit = [] { QApplication::exit(0); };
    connect(&m_statusItem, &StatusItem::quitRequested, qApp, quit);
    connect(&service, &ApplicationService::quitRequested, qApp, quit);
}

void ApplicationShell::applicationDidFinishLaunching()
{
    m_mainWindow.open();
}

} // namespace harbex
