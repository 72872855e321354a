#pragma once

#include <QDBusConnection>
#include <QDBusVariant>
#include <QObject>
#include <QPalette>
#include <QString>

namespace harbex
{

/// Makes the program dark when the desktop is: asks the desktop portal for the user's colour scheme and
/// follows its changes. Leaves alone what the desktop's own Qt plugin has coloured, and everything where
/// there is no portal. Waits for no answer. One for the life of the application; main thread only.
/// It goes away once Qt 6.5 is the minimum, because Qt 6.5 follows the desktop's colour scheme itself.
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
