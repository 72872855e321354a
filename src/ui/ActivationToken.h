#pragma once

#include <QString>

namespace harbex
{

/// The token with which the desktop lets a program that a person has just asked for come to the front: that
/// of the Wayland compositor, or the startup id of X11. Empty when the program was started without one. To be
/// called before the application object is made, which takes the startup id out of the environment.
[[nodiscard]] QString activationTokenOfEnvironment();

/// A token that another program has sent, or an empty one where it cannot be one. What is longer than any
/// token would end the connection to a Wayland compositor, and the program with it.
[[nodiscard]] QString checkedActivationToken(const QString& token);

} // namespace harbex
