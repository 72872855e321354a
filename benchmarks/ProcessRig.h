#pragma once

#include "Measure.h"

namespace harbex::bench
{

// Measurements of the whole program. They need an X11 display, xdotool and wmctrl.

/// Time from the start of the process to its first inotify watch.
void measureProcessStart(Table& table);

/// Memory use after the window was closed.
void measureMemory(Table& table);

/// Wake-ups of an idle process.
void measureIdle(Table& table);

/// Wake-ups that a growing file causes.
void measureDownload(Table& table);

} // namespace harbex::bench
