#pragma once

#include "Measure.h"

namespace harbex::bench
{

/// Measures how the cost grows with the number of entries, folders, rules and events.
void measureGrowth(Table& table);

} // namespace harbex::bench
