#include "ui/StatusNotifierItem.h"

#include "ui/ActivationToken.h"

#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QImage>
#include <QtEndian>

#include <utility>

namespace harbex
{

namespace
{

constexpr QLatin1String objectPath("/StatusNotifierItem");
constexpr QLatin1String menuPath("/MenuBar");
constexpr QLatin1String watcherName("org.kde.StatusNotifierWatcher");
constexpr QLatin1String watcherPath("/StatusNotifierWatcher");

StatusNotifierPixmap pixmapOf(const QImage& image)
{
    const QImage argb = image.convertToFormat(QImage::Format_ARGB32);
    StatusNotifierPixmap pixmap{argb.width(), argb.height(),
                                QByteArray(argb.sizeInBytes(), Qt::Uninitialized)};
    // One pass is enough: rows of 32-bit pixels have no padding.
    qToBigEndian<quint32>(argb.constBits(), argb.sizeInBytes() / 4, pixmap.pixels.data());
    return pixmap;
}

} // namespace

QDBusArgument& operator<<(QDBusArgument& argument, const StatusNotifierPixmap& pixmap)
{
    argument.beginStructure();
    argument << pixmap.width << pixmap.height << pixmap.pixels;
    argument.endStructure();
    return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, StatusNotifierPixmap& pixmap)
{
    argument.beginStructure();
    argument >> pixmap.width >> pixmap.height >> pixmap.pixels;
    argument.endStructure();
    return argument;
}

QDBusArgument& operator<<(QDBusArgument& argument, const StatusNotifierToolTip& toolTip)
{
    argument.beginStructure();
    argument << toolTip.iconName << toolTip.iconPixmap << toolTip.title << toolTip.text;
    argument.endStructure();
    return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, StatusNotifierToolTip& toolTip)
{
    argument.beginStructure();
    argument >> toolTip.iconName >> toolTip.iconPixmap >> toolTip.title >> toolTip.text;
    argument.endStructure();
    return argument;
}

StatusNotifierItem::StatusNotifierItem(const QDBusConnection& bus, const QString& title,
                                       const QString& iconName, const QIcon& icon, const QMenu& menu,
                                       QObject* parent)
    : QObject(parent), m_bus(bus), m_title(title), m_iconName(iconName), m_icon(icon),
      m_dbusMenu(bus, menuPath, menu), m_watcherOwner(watcherName, bus)
{
    qDBusRegisterMetaType<StatusNotifierPixmap>();
    qDBusRegisterMetaType<QList<StatusNotifierPixmap>>();
    qDBusRegisterMetaType<StatusNotifierToolTip>();
    m_bus.registerObject(objectPath, this, QDBusConnection::ExportScriptableContents);

    connect(&m_watcherOwner, &QDBusServiceWatcher::serviceOwnerChanged, this,
            [this](const QString&, const QString&, const QString& newOwner) {
                if (newOwner.isEmpty())
                    setShown(false);
                else
                    registerAtWatcher();
            });
    for (const auto* signal : {"StatusNotifierHostRegistered", "StatusNotifierHostUnregistered"})
        m_bus.connect(watcherName, watcherPath, watcherName, QLatin1String(signal), this,
                      SLOT(askWhetherShown()));
    registerAtWatcher();
}

QString StatusNotifierItem::takeActivationToken()
{
    return std::exchange(m_activationToken, {});
}

QList<StatusNotifierPixmap> StatusNotifierItem::iconPixmap() const
{
    QList<StatusNotifierPixmap> pixmaps;
    for (const int size : {16, 22, 24, 32, 48, 64}) {
        const QImage image = m_icon.pixmap(QSize(size, size), 1.0).toImage();
        if (!image.isNull()) pixmaps.append(pixmapOf(image));
    }
    return pixmaps;
}

QDBusObjectPath StatusNotifierItem::menu() const
{
    return QDBusObjectPath(menuPath);
}

void StatusNotifierItem::Activate(int x, int y)
{
    if (m_isMenuOfPanelOnly) {
        sendErrorReply(QDBusError::UnknownMethod, QStringLiteral("The item is a menu"));
        return;
    }
    Q_EMIT menuRequested({x, y});
}

void StatusNotifierItem::ContextMenu(int x, int y)
{
    Q_EMIT menuRequested({x, y});
}

void StatusNotifierItem::SecondaryActivate(int /*x*/, int /*y*/) {}

void StatusNotifierItem::Scroll(int /*delta*/, const QString& /*orientation*/) {}

void StatusNotifierItem::ProvideXdgActivationToken(const QString& token)
{
    m_activationToken = checkedActivationToken(token);
}

void StatusNotifierItem::registerAtWatcher()
{
    QDBusMessage call = QDBusMessage::createMethodCall(watcherName, watcherPath, watcherName,
                                                       QStringLiteral("RegisterStatusNotifierItem"));
    // The path stands for this object on the connection of the sender. A bus name for the item has three
    // faults: a sandbox refuses it, another container with the same PID can own it, and AppIndicator 46 drops
    // an item whose name it sees again.
    call << QString(objectPath);
    // Fails if there is no watcher. serviceOwnerChanged then causes the next attempt.
    m_bus.send(call);
    askWhetherShown();
}

void StatusNotifierItem::askWhetherShown()
{
    if (!m_bus.isConnected()) {
        // Queued like a reply, so that the creator can connect to the signal first.
        QMetaObject::invokeMethod(this, [this] { setShown(false); }, Qt::QueuedConnection);
        return;
    }
    QDBusMessage call = QDBusMessage::createMethodCall(
        watcherName, watcherPath, QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    call << QString(watcherName) << QStringLiteral("IsStatusNotifierHostRegistered");
    auto* const answer = new QDBusPendingCallWatcher(m_bus.asyncCall(call), this);
    connect(answer, &QDBusPendingCallWatcher::finished, this, [this, answer] {
        const QDBusPendingReply<QDBusVariant> reply = *answer;
        setShown(reply.isValid() && reply.value().variant().toBool());
        answer->deleteLater();
    });
}

void StatusNotifierItem::setShown(bool isShown)
{
    if (m_isShown == isShown) return;
    m_isShown = isShown;
    Q_EMIT shownChanged(isShown);
}

} // namespace harbex
