#pragma once

#include "Measure.h"

namespace harbex::bench
{

/// Measures the program as a whole process: start-up, memory and wake-ups. Needs an X11 display, xdotool and
/// wmctrl.
void measureProcess(Table& table);

} // namespace harbex::bench
