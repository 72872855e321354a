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
    // A Wayland message holds 4096 bytes including its header. Known tokens have up to about 200 bytes.
    return token.toUtf8().size() <= 1024 ? token : QString();
}

} // namespace harbex
