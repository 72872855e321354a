#include "ui/Desktop.h"

#include <QGuiApplication>
#include <QStringList>

namespace harbex
{

bool isWayland()
{
    return QGuiApplication::platformName().startsWith(QLatin1String("wayland"));
}

bool isPlasma()
{
    return qEnvironmentVariable("XDG_CURRENT_DESKTOP").split(u':').contains(QLatin1String("KDE"));
}

} // namespace harbex
