#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantList>
#include <QVariantMap>

namespace harbex
{

/// Makes the program the only instance in the session: it owns the name org.harbex.Harbex on the session bus.
/// Serves org.freedesktop.Application there. A second start and the desktop's menu use it to open the window
/// of the running instance or to quit; if no instance runs, the bus starts one. The signal
/// org.harbex.Harbex.Quit of any program quits too, and starts none. Main thread only.
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
        onlyToQuit, ///< The bus has started this process only for a call that quits it. Exit.
    };

    /// The bus must not be QDBusConnection::sessionBus(), which holds calls back until the main loop runs.
    explicit ApplicationService(const QDBusConnection& bus, QObject* parent = nullptr);

    /// Claims the bus name. If another instance owns it, asks that instance to open its window, with the
    /// activation token of this start if there is one, and waits up to 5 seconds for the reply. Later calls
    /// from the bus are served by the main loop.
    [[nodiscard]] Start start(const QString& activationToken);

    /// Returns the activation token of the call for which the bus has started this process. Empty if there is
    /// none. Call after start().
    [[nodiscard]] const QString& activationToken() const { return m_activationToken; }

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
    [[nodiscard]] Start serveFirstCalls();

    QDBusConnection m_bus;
    /// What the last call before the end of start() wanted: the window (`first`) or `onlyToQuit`.
    Start m_firstCall = Start::first;
    QString m_activationToken;
};

} // namespace harbex
