#pragma once

#include "store/FolderStore.h"
#include "ui/ContentState.h"
#include "ui/MainWindow.h"
#include "ui/StatusItem.h"
#include "watcher/DownloadImageRedirector.h"

#include <QDBusConnection>
#include <QObject>

namespace harbex
{

class ApplicationService;

/// The root of the process: owns the one engine, which outlives every window, the main window and the status
/// item. Main thread only.
class ApplicationShell : public QObject
{
    Q_OBJECT

public:
    /// The status item goes onto `bus`; what others ask the program for comes from `service`, which must live
    /// longer.
    ApplicationShell(const QDBusConnection& bus, const ApplicationService& service);

    /// Opens the main window, which starts the engine. Called once, before the main loop.
    void applicationDidFinishLaunching();

    /// Ends the main loop, and a folder dialog that is up without an answer. Nothing is saved.
    void quit();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    DownloadImageRedirector m_watcher;
    FolderStore m_store;
    ContentState m_state;
    MainWindow m_mainWindow;
    StatusItem m_statusItem;
};

} // namespace harbex
