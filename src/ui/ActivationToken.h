#pragma once

#include <QString>

namespace harbex
{

// Main thread only.

/// Returns the token that lets this process bring its window to the front: XDG_ACTIVATION_TOKEN (Wayland) or
/// else DESKTOP_STARTUP_ID (X11). Empty if the environment has none or checkedActivationToken() rejects it.
/// Call before QApplication is constructed, because QApplication removes the startup id from the environment.
[[nodiscard]] QString activationTokenOfEnvironment();

/// Returns `token`, or an empty string if it is too long to be one. An overlong token would end the Wayland
/// connection, and with it the process.
[[nodiscard]] QString checkedActivationToken(const QString& token);

} // namespace harbex
