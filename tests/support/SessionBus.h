#pragma once

#include <QDBusConnection>
#include <QDBusMessage>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <QVariantList>

namespace harbex::test
{

/// A session bus of the test's own, a real one, on which nothing runs but what the test connects. It ends
/// with this object, or with the test.
class SessionBus
{
public:
    SessionBus();
    ~SessionBus();
    SessionBus(const SessionBus&) = delete;
    SessionBus& operator=(const SessionBus&) = delete;

    [[nodiscard]] QString address() const { return m_address; }

    /// One more connection, as another program would have. Closed at the end, or by close() as soon as nobody
    /// holds it any more.
    [[nodiscard]] QDBusConnection connect();
    void close(const QDBusConnection& connection);

private:
    QTemporaryDir m_folder;
    QProcess m_daemon;
    QString m_address;
    QStringList m_connections;
};

/// An object of another program on the bus.
struct RemoteObject {
    QDBusConnection bus;
    QString service;
    QString path;
    QString interface;

    /// Calls and waits for the answer, an error perhaps; meanwhile the main loop runs, in which the object
    /// may live.
    [[nodiscard]] QDBusMessage call(const QString& method, const QVariantList& arguments = {}) const;

    /// Calls without waiting.
    void send(const QString& method, const QVariantList& arguments = {}) const;

    /// The value of a property, invalid where there is none.
    [[nodiscard]] QVariant property(const QString& name) const;
};

} // namespace harbex::test
