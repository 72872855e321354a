#pragma once

#include "ui/StatusNotifierItem.h"

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

/// The item in the panel whose menu opens the main window and ends the program: a folder, shown by a panel
/// that speaks the status-notifier protocol, or else in the XEmbed tray of X11 where there is one. Panels may
/// come and go at any time. Without any, nothing is shown. Knows neither the engine nor the store. Main
/// thread only.
class StatusItem : public QObject
{
    Q_OBJECT

public:
    explicit StatusItem(const QDBusConnection& bus, QObject* parent = nullptr);

Q_SIGNALS:
    /// "Open Harbex" was chosen. The token, with which the window may come to the front, may be empty.
    void openRequested(const QString& activationToken);
    /// "Quit" was chosen.
    void quitRequested();

private:
    void popUp(const QPoint& position);
    void showInXEmbedTray(bool isShown);

    QIcon m_icon;
    QMenu m_menu;
    std::unique_ptr<StatusNotifierItem> m_notifierItem;
    QSystemTrayIcon* m_trayIcon = nullptr;
};

} // namespace harbex
