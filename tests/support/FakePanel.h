#pragma once

#include "support/SessionBus.h"

#include <QObject>
#include <QString>
#include <QStringList>

namespace harbex::test
{

/// The panel's side of the status-notifier protocol: the watcher with which items register, and whether a
/// host draws them. Takes the watcher's name on a connection of its own, from another panel if there is one,
/// and gives it back when it is destroyed.
class FakePanel : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
    Q_PROPERTY(
        bool IsStatusNotifierHostRegistered READ hasHost NOTIFY StatusNotifierHostRegistered SCRIPTABLE true)

public:
    explicit FakePanel(SessionBus& bus, bool hasHost = true);
    ~FakePanel() override;

    [[nodiscard]] bool hasHost() const { return m_hasHost; }
    void setHost(bool isThere);

    /// What has registered, in order.
    [[nodiscard]] const QStringList& items() const { return m_items; }

    /// The latest item as the host reaches it, and its menu.
    [[nodiscard]] RemoteObject item() const;
    [[nodiscard]] RemoteObject menu() const;

    Q_SCRIPTABLE void RegisterStatusNotifierItem(const QString& service) { m_items.append(service); }

Q_SIGNALS:
    Q_SCRIPTABLE void StatusNotifierHostRegistered();
    Q_SCRIPTABLE void StatusNotifierHostUnregistered();

private:
    SessionBus& m_sessionBus;
    QDBusConnection m_connection;
    bool m_hasHost;
    QStringList m_items;
};

} // namespace harbex::test
