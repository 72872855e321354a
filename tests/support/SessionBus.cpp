#include "support/SessionBus.h"

#include <csignal>
#include <sys/prctl.h>

namespace harbex::test
{

namespace
{

QDBusMessage messageTo(const RemoteObject& object, const char* method, const QVariantList& arguments)
{
    QDBusMessage message = QDBusMessage::createMethodCall(object.service, object.path, object.interface,
                                                          QString::fromLatin1(method));
    message.setArguments(arguments);
    return message;
}

} // namespace

SessionBus::SessionBus(const QString& serviceFolder, const QProcessEnvironment& environment)
{
    // Unlike the configuration of the system, this one has no limits and does not start services of the
    // system.
    const QByteArray services =
        serviceFolder.isEmpty() ? "" : "<servicedir>" + serviceFolder.toUtf8() + "</servicedir>";
    QFile configuration(m_folder.filePath(QStringLiteral("bus.conf")));
    const bool isWritten = configuration.open(QIODevice::WriteOnly) && configuration.write(R"(
        <busconfig>
          <type>session</type>
          <listen>unix:dir=)" + m_folder.path().toUtf8() + R"(</listen>
          <auth>EXTERNAL</auth>
          )" + services + R"(
          <policy context="default">
            <allow send_destination="*"/>
            <allow receive_sender="*"/>
            <allow own="*"/>
          </policy>
        </busconfig>)") > 0;
    if (!isWritten) qFatal("no bus configuration: %s", qPrintable(configuration.errorString()));
    configuration.close();

    m_daemon.setProcessEnvironment(environment);
    m_daemon.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGKILL); });
    m_daemon.start(QStringLiteral("dbus-daemon"),
                   {QStringLiteral("--config-file"), configuration.fileName(), QStringLiteral("--nofork"),
                    QStringLiteral("--print-address")});
    while (!m_daemon.canReadLine() && m_daemon.waitForReadyRead())
        continue;
    m_address = QString::fromUtf8(m_daemon.readLine()).trimmed();
    if (m_address.isEmpty())
        qFatal("no session bus: %s %s", qPrintable(m_daemon.errorString()),
               m_daemon.readAllStandardError().constData());
}

SessionBus::~SessionBus()
{
    for (const QString& name : m_connections)
        QDBusConnection::disconnectFromBus(name);
    m_daemon.kill();
    m_daemon.waitForFinished();
}

QDBusConnection SessionBus::connect()
{
    static int count = 0;
    m_connections.append(QStringLiteral("connection of a test %1").arg(++count));
    QDBusConnection connection = QDBusConnection::connectToBus(m_address, m_connections.last());
    if (!connection.isConnected()) qFatal("no connection: %s", qPrintable(connection.lastError().message()));
    return connection;
}

void SessionBus::close(const QDBusConnection& connection)
{
    m_connections.removeOne(connection.name());
    QDBusConnection::disconnectFromBus(connection.name());
}

qsizetype SessionBus::startedPrograms()
{
    // The daemon replies after it has written the lines about earlier messages.
    const QDBusConnection connection = connect();
    (void)connection.interface()->isServiceRegistered(QStringLiteral("org.freedesktop.DBus")).value();
    close(connection);
    m_daemon.waitForReadyRead(0);
    m_log += m_daemon.readAllStandardError();
    return m_log.count(" Activating service name=");
}

void writeServiceFile(const QString& serviceFolder, const QByteArray& command)
{
    QFile file(serviceFolder + QStringLiteral("/org.harbex.Harbex.service"));
    const bool isWritten =
        file.open(QIODevice::WriteOnly) &&
        file.write("[D-BUS Service]\nName=org.harbex.Harbex\nExec=/bin/sh -c \"" + command + "\"\n") > 0;
    if (!isWritten) qFatal("no service file: %s", qPrintable(file.errorString()));
}

QDBusMessage RemoteObject::call(const char* method, const QVariantList& arguments) const
{
    const QDBusPendingCallWatcher answer(bus.asyncCall(messageTo(*this, method, arguments)));
    QEventLoop loop;
    QObject::connect(&answer, &QDBusPendingCallWatcher::finished, &loop, &QEventLoop::quit);
    loop.exec();
    return answer.reply();
}

bool RemoteObject::accepts(const char* method, const QVariantList& arguments) const
{
    return call(method, arguments).type() == QDBusMessage::ReplyMessage;
}

void RemoteObject::send(const char* method, const QVariantList& arguments) const
{
    bus.send(messageTo(*this, method, arguments));
}

QVariant RemoteObject::property(const char* name) const
{
    const RemoteObject properties{bus, service, path, QStringLiteral("org.freedesktop.DBus.Properties")};
    const QDBusMessage answer = properties.call("Get", {interface, QString::fromLatin1(name)});
    return answer.arguments().value(0).value<QDBusVariant>().variant();
}

QVariant asVariant(const QVariant& value)
{
    return QVariant::fromValue(QDBusVariant(value));
}

} // namespace harbex::test
