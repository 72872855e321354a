#include "ui/ApplicationService.h"

#include "ui/ActivationToken.h"

#include <QCoreApplication>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusReply>
#include <QDeadlineTimer>

namespace harbex
{

namespace
{

constexpr int replyTimeoutMilliseconds = 5000;

constexpr QLatin1String busName("org.harbex.Harbex");
constexpr QLatin1String objectPath("/org/harbex/Harbex");
constexpr QLatin1String interfaceName("org.freedesktop.Application");
// Launchers send the same token under both keys.
constexpr QLatin1String waylandTokenKey("activation-token");
constexpr QLatin1String x11TokenKey("desktop-startup-id");

QDBusMessage activateCall(const QString& activationToken)
{
    QVariantMap platformData;
    if (!activationToken.isEmpty()) {
        platformData.insert(waylandTokenKey, activationToken);
        platformData.insert(x11TokenKey, activationToken);
    }
    QDBusMessage call =
        QDBusMessage::createMethodCall(busName, objectPath, interfaceName, QLatin1String("Activate"));
    call << platformData;
    return call;
}

/// Returns whether the owner of the name may have exited before it replied. A slow owner gives the same
/// error.
bool mayHaveEnded(const QDBusMessage& answer)
{
    const QDBusError::ErrorType error = QDBusError(answer).type();
    return error == QDBusError::ServiceUnknown || error == QDBusError::NoReply;
}

} // namespace

ApplicationService::ApplicationService(const QDBusConnection& bus, QObject* parent)
    : QObject(parent), m_bus(bus)
{
}

ApplicationService::Start ApplicationService::start(const QString& activationToken)
{
    // Register first, so that the object exists as soon as the name does.
    m_bus.registerObject(objectPath, this, QDBusConnection::ExportScriptableInvokables);
    // The interface of the signal has the same name as the bus name.
    m_bus.connect(QString(), objectPath, busName, QStringLiteral("Quit"), this, SIGNAL(quitRequested()));

    QDBusMessage answer;
    const QDeadlineTimer deadline(replyTimeoutMilliseconds);
    do {
        if (claimName()) return serveFirstCalls();
        answer = m_bus.call(activateCall(activationToken), QDBus::Block, int(deadline.remainingTime()));
        if (answer.type() == QDBusMessage::ReplyMessage) return Start::handedOver;
    } while (mayHaveEnded(answer) && !deadline.hasExpired());
    return Start::refused;
}

bool ApplicationService::claimName()
{
    if (!m_bus.isConnected()) return true;
    const auto reply = m_bus.interface()->registerService(busName, QDBusConnectionInterface::DontQueueService,
                                                          QDBusConnectionInterface::DontAllowReplacement);
    // A bus that refuses names, for example in a sandbox, counts as no bus.
    return !reply.isValid() || reply.value() == QDBusConnectionInterface::ServiceRegistered;
}

ApplicationService::Start ApplicationService::serveFirstCalls()
{
    // If the bus has started this process, it has delivered the waiting calls before its answer to
    // registerService(). The last one counts.
    QObject receiver;
    connect(this, &ApplicationService::openRequested, &receiver, [this](const QString& token) {
        m_firstCall = Start::first;
        m_activationToken = token;
    });
    connect(this, &ApplicationService::quitRequested, &receiver, [this] { m_firstCall = Start::onlyToQuit; });
    QCoreApplication::sendPostedEvents(this);
    return m_firstCall;
}

void ApplicationService::Activate(const QVariantMap& platformData)
{
    const QString token = platformData.value(waylandTokenKey).toString();
    Q_EMIT openRequested(
        checkedActivationToken(token.isEmpty() ? platformData.value(x11TokenKey).toString() : token));
}

void ApplicationService::Open(const QStringList& /*uris*/, const QVariantMap& platformData)
{
    Activate(platformData);
}

void ApplicationService::ActivateAction(const QString& name, const QVariantList& /*parameter*/,
                                        const QVariantMap& /*platformData*/)
{
    if (name == QLatin1String("quit")) Q_EMIT quitRequested();
}

} // namespace harbex
