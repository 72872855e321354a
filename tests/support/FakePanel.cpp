#include "support/FakePanel.h"

#include <QTest>

namespace harbex::test
{

FakePanel::FakePanel(SessionBus& bus, bool hasHost) : m_connection(bus.connect()), m_hasHost(hasHost)
{
    m_connection.registerObject(QStringLiteral("/StatusNotifierWatcher"), this,
                                QDBusConnection::ExportScriptableContents);
    const QDBusReply<QDBusConnectionInterface::RegisterServiceReply> reply =
        m_connection.interface()->registerService(QStringLiteral("org.kde.StatusNotifierWatcher"),
                                                  QDBusConnectionInterface::ReplaceExistingService,
                                                  QDBusConnectionInterface::AllowReplacement);
    if (reply != QDBusConnectionInterface::ServiceRegistered) qFatal("the panel got no name");
}

FakePanel::~FakePanel()
{
    // The connection stays open until the bus ends. Qt closes a connection in another thread, which would
    // access this object after its end.
    m_connection.interface()->unregisterService(QStringLiteral("org.kde.StatusNotifierWatcher"));
}

void FakePanel::setHost(bool isThere)
{
    m_hasHost = isThere;
    if (isThere)
        Q_EMIT StatusNotifierHostRegistered();
    else
        Q_EMIT StatusNotifierHostUnregistered();
}

RemoteObject FakePanel::item() const
{
    const QString latest = m_items.value(m_items.size() - 1);
    const qsizetype path = latest.indexOf(u'/');
    return {m_connection, latest.left(path), latest.mid(path), QStringLiteral("org.kde.StatusNotifierItem")};
}

RemoteObject FakePanel::menu() const
{
    const RemoteObject shown = item();
    return {m_connection, shown.service, shown.property("Menu").value<QDBusObjectPath>().path(),
            QStringLiteral("com.canonical.dbusmenu")};
}

bool FakePanel::waitForItem() const
{
    return QTest::qWaitFor([this] { return !m_items.isEmpty(); }, 30000);
}

void FakePanel::click(int entry) const
{
    menu().send("Event", {entry, QStringLiteral("clicked"), asVariant(0), 0U});
}

} // namespace harbex::test
