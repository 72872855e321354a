#include "ui/ColorScheme.h"

#include <QApplication>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QStyle>

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

} // namespace

ColorScheme::ColorScheme(QDBusConnection bus, QObject* parent) : QObject(parent)
{
    if (!hasLightStylePalette()) return;
    // Qt 6.4 connects a signal only if the types of its arguments are registered.
    qRegisterMetaType<QDBusVariant>();
    // The service name is empty, because Qt would block to look up the owner of a named service.
    bus.connect({}, path, interface, QStringLiteral("SettingChanged"), this,
                // clang-format off
                SLOT(settingChanged(QString,QString,QDBusVariant)));
    // clang-format on

    auto readCall = QDBusMessage::createMethodCall(service, path, interface, QStringLiteral("Read"));
    readCall << appearance << colorScheme;
    const auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(readCall), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [](QDBusPendingCallWatcher* answered) {
        const QDBusPendingReply<QDBusVariant> reply = *answered;
        if (!reply.isError()) apply(reply.value().variant());
        answered->deleteLater();
    });
}

void ColorScheme::settingChanged(const QString& group, const QString& key, const QDBusVariant& value)
{
    if (group == appearance && key == colorScheme) apply(value.variant());
}

void ColorScheme::apply(const QVariant& scheme)
{
    QVariant value = scheme;
    // A reply to "Read" has one more QDBusVariant around the value than the signal.
    while (value.canConvert<QDBusVariant>())
        value = value.value<QDBusVariant>().variant();
    // A default-constructed palette selects the style's own palette.
    QApplication::setPalette(value.toUInt() == preferDark ? darkPalette() : QPalette());
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
