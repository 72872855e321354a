#include "ui/ColorScheme.h"

#include "ui/Desktop.h"

#include <QApplication>
#include <QDBusError>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QStyle>
#include <QStyleHints>

#include <utility>

namespace harbex
{

namespace
{

constexpr QLatin1String service("org.freedesktop.portal.Desktop");
constexpr QLatin1String path("/org/freedesktop/portal/desktop");
constexpr QLatin1String interface("org.freedesktop.portal.Settings");
constexpr QLatin1String appearance("org.freedesktop.appearance");
constexpr QLatin1String colorScheme("color-scheme");

/// The portal's value for "prefers dark".
constexpr uint preferDark = 1;

constexpr int firstTimeoutMilliseconds = 100;
constexpr int standardTimeout = -1;

bool isDark(const QPalette& palette)
{
    return palette.color(QPalette::Window).lightness() < palette.color(QPalette::WindowText).lightness();
}

/// Returns whether the application uses the style's own palette and that palette is light.
bool hasLightStylePalette()
{
    const QPalette fallback = QApplication::style()->standardPalette();
    const QPalette palette = QApplication::palette();
    const auto isSame = [&](QPalette::ColorRole role) { return palette.color(role) == fallback.color(role); };
    return !isDark(fallback) && isSame(QPalette::Window) && isSame(QPalette::Base) && isSame(QPalette::Text);
}

/// Returns whether Qt's platform theme follows the desktop itself, maybe later than the portal reports a
/// change.
bool isPlatformThemeLive()
{
#if QT_VERSION >= QT_VERSION_CHECK(6, 5, 0)
    if (QGuiApplication::styleHints()->colorScheme() != Qt::ColorScheme::Unknown) return true;
#endif
    const QString chosen = qEnvironmentVariable("QT_QPA_PLATFORMTHEME");
    if (!chosen.isEmpty()) return chosen == QLatin1String("kde");
    return isPlasma();
}

} // namespace

ColorScheme::ColorScheme(const QDBusConnection& bus, QObject* parent) : QObject(parent), m_bus(bus)
{
    // Qt 6.4 connects a signal only if the types of its arguments are registered.
    qRegisterMetaType<QDBusVariant>();
    // The service name is empty, because Qt would block to look up the owner of a named service.
    m_bus.connect({}, path, interface, QStringLiteral("SettingChanged"), this,
                  // clang-format off
                  SLOT(settingChanged(QString,QString,QDBusVariant)));
    // clang-format on
#if QT_VERSION >= QT_VERSION_CHECK(6, 5, 0)
    connect(QGuiApplication::styleHints(), &QStyleHints::colorSchemeChanged, this, &ColorScheme::update);
#endif
    ask(firstTimeoutMilliseconds);
}

void ColorScheme::waitForAnswer()
{
    if (m_firstAnswer) m_firstAnswer->waitForFinished();
}

void ColorScheme::settingChanged(const QString& group, const QString& key, const QDBusVariant& value)
{
    if (group == appearance && key == colorScheme) apply(value.variant());
}

void ColorScheme::ask(int timeoutMilliseconds)
{
    auto readCall = QDBusMessage::createMethodCall(service, path, interface, QStringLiteral("Read"));
    readCall << appearance << colorScheme;
    auto* const watcher = new QDBusPendingCallWatcher(m_bus.asyncCall(readCall, timeoutMilliseconds), this);
    if (timeoutMilliseconds != standardTimeout) m_firstAnswer = watcher;
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, watcher, timeoutMilliseconds] {
        const QDBusPendingReply<QDBusVariant> reply = *watcher;
        if (!reply.isError())
            apply(reply.value().variant());
        else if (reply.error().type() == QDBusError::NoReply && timeoutMilliseconds != standardTimeout)
            // The portal may still be starting.
            ask(standardTimeout);
        watcher->deleteLater();
    });
}

void ColorScheme::apply(const QVariant& scheme)
{
    QVariant value = scheme;
    // A reply to "Read" has one more QDBusVariant around the value than the signal.
    while (value.canConvert<QDBusVariant>())
        value = value.value<QDBusVariant>().variant();
    m_prefersDark = value.toUInt() == preferDark;
    update();
}

void ColorScheme::update()
{
    // A default-constructed palette selects that of the platform theme or the style.
    if (std::exchange(m_isPaletteOurs, false)) QApplication::setPalette(QPalette());
    if (!m_prefersDark || isPlatformThemeLive() || !hasLightStylePalette()) return;
    QApplication::setPalette(darkPalette());
    m_isPaletteOurs = true;
}

QPalette ColorScheme::darkPalette()
{
    const QColor window(0x2a, 0x2b, 0x2e);
    const QColor text(0xe8, 0xe8, 0xea);
    const QColor faint(0x85, 0x86, 0x8a);
    QPalette palette(QColor(0x3b, 0x3d, 0x41), window);
    palette.setColor(QPalette::WindowText, text);
    palette.setColor(QPalette::Text, text);
    palette.setColor(QPalette::ButtonText, text);
    palette.setColor(QPalette::Base, QColor(0x1e, 0x1f, 0x21));
    palette.setColor(QPalette::AlternateBase, QColor(0x23, 0x24, 0x27));
    palette.setColor(QPalette::ToolTipBase, QColor(0x3b, 0x3d, 0x41));
    palette.setColor(QPalette::ToolTipText, text);
    palette.setColor(QPalette::PlaceholderText, QColor(0x9c, 0x9d, 0xa2));
    palette.setColor(QPalette::BrightText, Qt::white);
    palette.setColor(QPalette::Highlight, QColor(0x35, 0x75, 0xcc));
    palette.setColor(QPalette::HighlightedText, Qt::white);
    palette.setColor(QPalette::Link, QColor(0x7a, 0xb3, 0xf5));
    palette.setColor(QPalette::LinkVisited, QColor(0xb7, 0x9c, 0xf0));
    for (const auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText})
        palette.setColor(QPalette::Disabled, role, faint);
    return palette;
}

} // namespace harbex
