#pragma once

#include <QDBusConnection>
#include <QDBusVariant>
#include <QObject>
#include <QPalette>
#include <QPointer>
#include <QString>
#include <QVariant>

class QDBusPendingCallWatcher;

namespace harbex
{

/// Applies a dark palette when the desktop prefers dark colours and neither Qt's platform theme nor the style
/// provides any. Asks the desktop portal for the colour scheme and follows its changes. Without a portal it
/// does nothing. The question also starts the portal, which the platform theme of KDE needs to follow changes
/// itself. Create one per application. Main thread only.
class ColorScheme : public QObject
{
    Q_OBJECT

public:
    /// Asks for the colour scheme, without waiting.
    explicit ColorScheme(const QDBusConnection& bus, QObject* parent = nullptr);

    /// Waits for the first answer, at most 100 ms from the construction on. Call it before the first window
    /// is shown, so that the first frame has the right colours. A later answer is applied when it arrives.
    void waitForAnswer();

    /// Returns the palette that this class applies.
    [[nodiscard]] static QPalette darkPalette();

private Q_SLOTS:
    void settingChanged(const QString& group, const QString& key, const QDBusVariant& value);

private:
    void ask(int timeoutMilliseconds);
    void apply(const QVariant& scheme);
    void update();

    QDBusConnection m_bus;
    QPointer<QDBusPendingCallWatcher> m_firstAnswer;
    bool m_prefersDark = false;
    bool m_isPaletteOurs = false;
};

} // namespace harbex
