#pragma once

#include "ui/StatusNotifierItem.h"
#include "ui/XEmbedTray.h"

#include <QDBusConnection>
#include <QIcon>
#include <QMenu>
#include <QObject>
#include <QPoint>
#include <QString>

#include <memory>

class QSystemTrayIcon;

namespace harbex
{

/// The item in the panel whose menu opens the main window and quits the program. Uses the status-notifier
/// protocol, or else the XEmbed tray of X11. Panels may appear and disappear at any time; without one,
/// nothing is shown. Main thread only.
class StatusItem : public QObject
{
    Q_OBJECT

public:
    explicit StatusItem(const QDBusConnection& bus, QObject* parent = nullptr);

Q_SIGNALS:
    /// The user chose "Open Harbex". The token for bringing the window to the front may be empty.
    void openRequested(const QString& activationToken);
    /// The user chose "Quit".
    void quitRequested();
    /// Tells whether a tray shows the item. At first none does.
    void shownChanged(bool isShown);

private:
    void popUp(const QPoint& position);
    void showInXEmbedTray(bool isShown);
    void update();

    QIcon m_icon;
    QMenu m_menu;
    std::unique_ptr<StatusNotifierItem> m_notifierItem;
    QSystemTrayIcon* m_trayIcon = nullptr;
    XEmbedTray m_xembedTray;
    bool m_isInPanel = false;
    bool m_isShown = false;
};

} // namespace harbex
