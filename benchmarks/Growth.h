#pragma once

#include "Measure.h"

namespace harbex::bench
{

/// Measures how cost grows with the entries of a folder, the folders, the rules and the events.
void measureGrowth(Table& table);

} // namespace harbex::bench
