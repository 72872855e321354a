#pragma once

#include <QDBusConnection>
#include <QDBusVariant>
#include <QObject>
#include <QPalette>
#include <QString>

namespace harbex
{

/// Applies a dark palette when the desktop prefers dark colours. Asks the desktop portal for the colour
/// scheme and follows its changes, without blocking. Does nothing if the desktop's Qt plugin or a dark style
/// already sets the palette, or if there is no portal. Create one per application. Main thread only. Remove
/// this class once Qt 6.5 is the minimum: Qt 6.5 follows the colour scheme itself.
class ColorScheme : public QObject
{
    Q_OBJECT

public:
    explicit ColorScheme(QDBusConnection bus = QDBusConnection::sessionBus(), QObject* parent = nullptr);

    [[nodiscard]] static QPalette darkPalette();

private Q_SLOTS:
    void settingChanged(const QString& group, const QString& key, const QDBusVariant& value);

private:
    static void apply(const QVariant& scheme);
};

} // namespace harbex
