#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantList>
#include <QVariantMap>

namespace harbex
{

/// Makes the program the only one of its kind in the session, by owning the name org.harbex.Harbex on the
/// session bus, and serves org.freedesktop.Application there: with it a second start, the desktop's menu and
/// scripts ask the running program to open its window or to quit. Main thread only.
class ApplicationService : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Application")

public:
    enum class Start {
        first,      ///< This program is the one, or there is no session bus to tell: it goes on.
        handedOver, ///< Another runs and has opened its window: this one ends.
        refused,    ///< Another runs but does not answer: this one ends, for two would move the same files.
    };

    explicit ApplicationService(const QDBusConnection& bus, QObject* parent = nullptr);

    /// Claims the name, or else asks its owner to open the window, with the activation token of this start if
    /// there is one. Waits for the owner's answer, 5 seconds at most. What others ask for is answered from
    /// now on, in the main loop.
    [[nodiscard]] Start start(const QString& activationToken);

    // What the bus calls. Files to open mean nothing to this program and unknown actions do nothing.
    Q_SCRIPTABLE void Activate(const QVariantMap& platformData);
    Q_SCRIPTABLE void Open(const QStringList& uris, const QVariantMap& platformData);
    Q_SCRIPTABLE void ActivateAction(const QString& name, const QVariantList& parameter,
                                     const QVariantMap& platformData);

Q_SIGNALS:
    /// The window is to be opened or brought to the front. The token may be empty.
    void openRequested(const QString& activationToken);
    void quitRequested();

private:
    [[nodiscard]] bool claimName();

    QDBusConnection m_bus;
};

} // namespace harbex
