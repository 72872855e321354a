#pragma once

#include "store/FolderStore.h"
#include "ui/ColorScheme.h"
#include "ui/ContentState.h"
#include "ui/MainWindow.h"
#include "ui/StatusItem.h"
#include "watcher/DownloadImageRedirector.h"

#include <QDBusConnection>
#include <QObject>

namespace harbex
{

class ApplicationService;

/// Owns the engine, the store, the main window, the status item and the colours. The engine outlives every
/// window. Main thread only.
class ApplicationShell : public QObject
{
    Q_OBJECT

public:
    /// Publishes the status item on `bus` and handles the requests of `service`, which must live longer.
    ApplicationShell(const QDBusConnection& bus, const ApplicationService& service);

    /// Waits up to 100 ms for the colours of the desktop. Opens the main window, which starts the engine.
    /// The token may be empty. Call once, before the main loop.
    void applicationDidFinishLaunching(const QString& activationToken = {});

    /// Ends the main loop and rejects an open folder dialog. Saves nothing: changes since the last save are
    /// lost.
    void quit();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    // First, so that the desktop is asked for the colours early.
    ColorScheme m_colorScheme;
    DownloadImageRedirector m_watcher;
    FolderStore m_store;
    ContentState m_state;
    MainWindow m_mainWindow;
    StatusItem m_statusItem;
};

} // namespace harbex
