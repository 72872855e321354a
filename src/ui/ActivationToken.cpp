#include "ui/ActivationToken.h"

#include <QtGlobal>

namespace harbex
{

QString activationTokenOfEnvironment()
{
    const QString token = qEnvironmentVariable("XDG_ACTIVATION_TOKEN");
    return checkedActivationToken(token.isEmpty() ? qEnvironmentVariable("DESKTOP_STARTUP_ID") : token);
}

QString checkedActivationToken(const QString& token)
{
    // A Wayland message has room for 4096 bytes, its head included; the longest tokens seen have some 200.
    return token.toUtf8().size() <= 1024 ? token : QString();
}

} // namespace harbex
