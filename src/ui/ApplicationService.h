#pragma once

#include <QDBusAbstractAdaptor>
#include <QDBusConnection>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantList>
#include <QVariantMap>

namespace harbex
{

/// Makes the program the only instance in the session: it owns the name org.harbex.Harbex on the session bus.
/// Serves org.freedesktop.Application there, and org.harbex.Harbex through a QuitInterface. A second start,
/// the desktop's menu and scripts use them to open the window of the running instance or to quit. Main thread
/// only.
class ApplicationService : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Application")

public:
    enum class Start {
        first,      ///< This is the only instance, or there is no session bus. Continue.
        handedOver, ///< Another instance runs and has opened its window. Exit.
        refused,    ///< Another instance runs but has not opened its window. Exit: two would move the same
                    ///< files.
    };

    explicit ApplicationService(const QDBusConnection& bus, QObject* parent = nullptr);

    /// Claims the bus name. If another instance owns it, asks that instance to open its window, with the
    /// activation token of this start if there is one, and waits up to 5 seconds for the reply. Later calls
    /// from the bus are served by the main loop.
    [[nodiscard]] Start start(const QString& activationToken);

    // D-Bus methods. Open() ignores its URIs; unknown actions do nothing.
    Q_SCRIPTABLE void Activate(const QVariantMap& platformData);
    Q_SCRIPTABLE void Open(const QStringList& uris, const QVariantMap& platformData);
    Q_SCRIPTABLE void ActivateAction(const QString& name, const QVariantList& parameter,
                                     const QVariantMap& platformData);

Q_SIGNALS:
    /// Asks to open the window or to bring it to the front. The token may be empty.
    void openRequested(const QString& activationToken);
    void quitRequested();

private:
    [[nodiscard]] bool claimName();

    QDBusConnection m_bus;
};

/// The interface org.harbex.Harbex of a service. dbus-send, which every session bus comes with, cannot pass
/// the arguments of ActivateAction().
class QuitInterface : public QDBusAbstractAdaptor
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.harbex.Harbex")

public:
    explicit QuitInterface(ApplicationService& service) : QDBusAbstractAdaptor(&service), m_service(service)
    {
    }

public Q_SLOTS:
    void Quit() { Q_EMIT m_service.quitRequested(); }

private:
    ApplicationService& m_service;
};

} // namespace harbex
