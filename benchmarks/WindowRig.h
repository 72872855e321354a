#pragma once

#include "Measure.h"

namespace harbex::bench
{

/// Measures the main window with a thousand rules and a thousand folders. Needs a QApplication and a display.
void measureWindow(Table& table);

} // namespace harbex::bench
