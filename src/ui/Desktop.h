#pragma once

namespace harbex
{

// What the program runs on. Main thread only, from the application object on.

[[nodiscard]] bool isWayland();

/// Whether the session is one of KDE Plasma.
[[nodiscard]] bool isPlasma();

} // namespace harbex
