#include "ui/ApplicationShell.h"

#include "ui/ApplicationService.h"

#include <QApplication>
#include <QDialog>
#include <QEvent>

namespace harbex
{

ApplicationShell::ApplicationShell(const QDBusConnection& bus, const ApplicationService& service)
    : m_colorScheme(bus), m_state(m_watcher, m_store), m_mainWindow(m_state), m_statusItem(bus)
{
    connect(&m_statusItem, &StatusItem::openRequested, &m_mainWindow, &MainWindow::open);
    // Without the item, the taskbar is the only place where the user finds a covered window.
    connect(&m_statusItem, &StatusItem::shownChanged, &m_mainWindow, &MainWindow::setLeftOutOfTaskbar);
    connect(&service, &ApplicationService::openRequested, &m_mainWindow, &MainWindow::open);
    connect(&m_statusItem, &StatusItem::quitRequested, this, &ApplicationShell::quit);
    connect(&service, &ApplicationService::quitRequested, this, &ApplicationShell::quit);
    qApp->installEventFilter(this);
}

void ApplicationShell::applicationDidFinishLaunching(const QString& activationToken)
{
    m_colorScheme.waitForAnswer();
    m_mainWindow.open(activationToken);
}

void ApplicationShell::quit()
{
    // QApplication::quit() would close the window first, and closing saves.
    QApplication::exit(0);
    // Some native dialogs run a loop of their own, which ends only with the dialog.
    if (auto* dialog = qobject_cast<QDialog*>(QApplication::activeModalWidget())) dialog->reject();
}

bool ApplicationShell::eventFilter(QObject* watched, QEvent* event)
{
    // The session manager causes this event. Qt's default handling closes the window first.
    if (watched != qApp || event->type() != QEvent::Quit) return false;
    quit();
    return true;
}

} // namespace harbex
