#pragma once

#include "store/FolderStore.h"
#include "ui/ContentState.h"
#include "ui/MainWindow.h"
#include "ui/StatusItem.h"
#include "watcher/DownloadImageRedirector.h"

#include <QObject>

namespace harbex
{

/// The root of the process: owns the one engine, which outlives every window, the main window and the status
/// item. Main thread only.
class ApplicationShell : public QObject
{
    Q_OBJECT

public:
    ApplicationShell();

    /// Opens the main window, which starts the engine. Called once, before the main loop.
    void applicationDidFinishLaunching();

private:
    DownloadImageRedirector m_watcher;
    FolderStore m_store;
    ContentState m_state;
    MainWindow m_mainWindow;
    StatusItem m_statusItem;
};

} // namespace harbex
