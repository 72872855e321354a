#pragma once

// The tests of a bus use a dozen classes of it.
#include <QtDBus>

namespace harbex::test
{

/// A private session bus: a real dbus-daemon to which only the test connects. It ends with this object or
/// with the test process.
class SessionBus
{
public:
    /// The bus starts the programs that have a service file in this folder, with this environment. Without a
    /// folder it starts none.
    explicit SessionBus(const QString& serviceFolder = {},
                        const QProcessEnvironment& environment = QProcessEnvironment::systemEnvironment());
    ~SessionBus();

    [[nodiscard]] QString address() const { return m_address; }

    /// Opens another connection to the bus. The destructor or close() closes it. Call close() only when no
    /// code uses the connection any more and no object is registered on it.
    [[nodiscard]] QDBusConnection connect();
    void close(const QDBusConnection& connection);

    /// Returns how many programs the bus has started.
    [[nodiscard]] qsizetype startedPrograms();

private:
    QTemporaryDir m_folder;
    QProcess m_daemon;
    QByteArray m_log;
    QString m_address;
    QStringList m_connections;
};

/// Writes a service file into the folder of a SessionBus that is created later. That bus then runs the shell
/// command for calls to Harbex.
void writeServiceFile(const QString& serviceFolder, const QByteArray& command);

/// An object of another program on the bus.
struct RemoteObject {
    QDBusConnection bus;
    QString service;
    QString path;
    QString interface;

    /// Calls a method and returns the reply, which may be an error. Runs an event loop meanwhile, so the
    /// object may be in this process.
    [[nodiscard]] QDBusMessage call(const char* method, const QVariantList& arguments = {}) const;

    /// Calls a method and returns whether the reply is no error.
    [[nodiscard]] bool accepts(const char* method, const QVariantList& arguments = {}) const;

    /// Calls a method without waiting for the reply.
    void send(const char* method, const QVariantList& arguments = {}) const;

    /// Returns the value of a property. Invalid if there is none.
    [[nodiscard]] QVariant property(const char* name) const;
};

/// Returns the object by which launchers and other programs control Harbex.
[[nodiscard]] inline RemoteObject harbexOn(const QDBusConnection& bus)
{
    return {bus, QStringLiteral("org.harbex.Harbex"), QStringLiteral("/org/harbex/Harbex"),
            QStringLiteral("org.freedesktop.Application")};
}

/// Returns the value as the D-Bus type "variant".
[[nodiscard]] QVariant asVariant(const QVariant& value);

} // namespace harbex::test
