#pragma once

namespace harbex
{

// What the program runs on. Main thread only, while the application object exists.

/// Returns whether Qt uses Wayland. False for XWayland.
[[nodiscard]] bool isWayland();

/// Returns whether the session is one of KDE Plasma.
[[nodiscard]] bool isPlasma();

} // namespace harbex
