#pragma once

#include "support/SessionBus.h"

namespace harbex::test
{

/// The settings part of the desktop portal, in a process of its own. Settings have the value 0 until they are
/// set. It ends with this object or with the test process.
class SettingsPortal
{
public:
    /// Waits until the process serves the portal.
    explicit SettingsPortal(SessionBus& bus);
    ~SettingsPortal();

    /// Changes a setting and announces it. Runs an event loop until the portal has done it.
    void set(const QString& group, const QString& key, const QVariant& value);
    /// Returns how often the settings were read.
    [[nodiscard]] int questions();

    /// Returns whether the portal replies to this connection. A bus keeps the order of messages from one
    /// sender to one receiver, so afterwards the connection has received all earlier ones of the portal.
    [[nodiscard]] static bool replies(const QDBusConnection& connection);

private:
    QDBusConnection m_connection;
    QProcess m_process;
};

} // namespace harbex::test
