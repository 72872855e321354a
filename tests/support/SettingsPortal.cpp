#include "support/SettingsPortal.h"

#include "support/TestMain.h"

#include <csignal>
#include <cstdio>
#include <sys/prctl.h>
#include <utility>

namespace harbex::test
{

namespace
{

const QString service = QStringLiteral("org.freedesktop.portal.Desktop");
const QString path = QStringLiteral("/org/freedesktop/portal/desktop");
const QString interface = QStringLiteral("org.freedesktop.portal.Settings");

/// The portal in its own process. "Set" and "Questions" are for the test.
class PortalObject : public QDBusVirtualObject
{
public:
    [[nodiscard]] QString introspect(const QString& /*path*/) const override { return {}; }

    bool handleMessage(const QDBusMessage& message, const QDBusConnection& bus) override
    {
        const QVariantList arguments = message.arguments();
        const QString group = arguments.value(0).toString();
        const QString key = arguments.value(1).toString();
        if (message.member() == QLatin1String("Read")) {
            ++m_questions;
            // The portal puts a variant into a variant.
            return bus.send(message.createReply(asVariant(asVariant(m_settings.value({group, key}, 0U)))));
        }
        if (message.member() == QLatin1String("Questions")) return bus.send(message.createReply(m_questions));
        m_settings[{group, key}] = arguments.value(2).value<QDBusVariant>().variant();
        QDBusMessage signal = QDBusMessage::createSignal(path, interface, QStringLiteral("SettingChanged"));
        signal << group << key << arguments.value(2);
        return bus.send(signal) && bus.send(message.createReply());
    }

private:
    QMap<std::pair<QString, QString>, QVariant> m_settings;
    int m_questions = 0;
};

RemoteObject portalFor(const QDBusConnection& connection)
{
    return {connection, service, path, interface};
}

} // namespace

SettingsPortal::SettingsPortal(SessionBus& bus) : m_connection(bus.connect())
{
    m_process.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGKILL); });
    m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_process.start(QCoreApplication::applicationFilePath(),
                    {QStringLiteral("SettingsPortalProcess"), bus.address()});
    if (!m_process.waitForReadyRead()) qFatal("no portal: %s", qPrintable(m_process.errorString()));
}

SettingsPortal::~SettingsPortal()
{
    m_process.kill();
    m_process.waitForFinished();
}

void SettingsPortal::set(const QString& group, const QString& key, const QVariant& value)
{
    if (!portalFor(m_connection).accepts("Set", {group, key, asVariant(value)})) qFatal("the portal is gone");
}

int SettingsPortal::questions()
{
    return portalFor(m_connection).call("Questions").arguments().value(0).toInt();
}

bool SettingsPortal::replies(const QDBusConnection& connection)
{
    return portalFor(connection).accepts("Questions");
}

} // namespace harbex::test

HARBEX_MAIN(SettingsPortalProcess)
{
    using namespace harbex::test;
    const QCoreApplication application(argc, argv);
    QDBusConnection bus =
        QDBusConnection::connectToBus(QString::fromLocal8Bit(argv[1]), QStringLiteral("portal"));
    PortalObject portal;
    if (!bus.registerVirtualObject(path, &portal) || !bus.registerService(service)) return EXIT_FAILURE;
    std::puts("ready");
    std::fflush(stdout);
    return QCoreApplication::exec();
}
