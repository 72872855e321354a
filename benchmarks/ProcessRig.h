#pragma once

#include "Measure.h"

namespace harbex::bench
{

// The program as a whole process. All of these need an X11 display, xdotool and wmctrl.

/// From the start of the process to its first watched folder.
void measureProcessStart(Table& table);

/// The memory that is left once the window is closed.
void measureMemory(Table& table);

/// How often a process with nothing to do wakes up.
void measureIdle(Table& table);

/// How often a file that grows wakes it up.
void measureDownload(Table& table);

} // namespace harbex::bench
