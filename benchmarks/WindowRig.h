#pragma once

#include "Measure.h"

namespace harbex::bench
{

/// Measures the main window with 1,000 rules and 1,000 folders. Needs a QApplication and a display.
void measureWindow(Table& table);

} // namespace harbex::bench
