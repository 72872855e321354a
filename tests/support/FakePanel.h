#pragma once

#include "support/SessionBus.h"

namespace harbex::test
{

/// A fake panel: the watcher of the status-notifier protocol, with or without a host. It takes the watcher's
/// name on its own connection, also from another panel. The destructor releases the name.
class FakePanel : public QObject, protected QDBusContext
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

    /// Returns the registered items, in order of registration: the connection and the path of each.
    [[nodiscard]] const QStringList& items() const { return m_items; }

    /// Waits until an item has registered. Returns false on timeout.
    [[nodiscard]] bool waitForItem() const;

    /// Clicks an entry of the menu of the latest item. The first entry is 1. Does not wait for the reply.
    void click(int entry) const;

    /// The latest item and its menu, called through the connection of the panel.
    [[nodiscard]] RemoteObject item() const;
    [[nodiscard]] RemoteObject menu() const;

    Q_SCRIPTABLE void RegisterStatusNotifierItem(const QString& path)
    {
        m_items.append(message().service() + path);
    }

Q_SIGNALS:
    Q_SCRIPTABLE void StatusNotifierHostRegistered();
    Q_SCRIPTABLE void StatusNotifierHostUnregistered();

private:
    QDBusConnection m_connection;
    bool m_hasHost;
    QStringList m_items;
};

} // namespace harbex::test
