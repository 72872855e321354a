#pragma once

#include <QMenu>
#include <QObject>
#include <QSystemTrayIcon>

namespace harbex
{

/// The item in the system tray with the menu that opens the main window and ends the program. Knows neither the
/// engine nor the store. Main thread only.
class StatusItem : public QObject
{
    Q_OBJECT

public:
    explicit StatusItem(QObject* parent = nullptr);

Q_SIGNALS:
    void openRequested();
    void quitRequested();

private:
    QMenu m_menu;
    QSystemTrayIcon m_icon;
};

} // namespace harbex
