#pragma once

namespace harbex
{

/// Returns memory to the system that the process does not need while its window is closed: freed heap and
/// cached icons. Main thread only.
void releaseIdleMemory();

} // namespace harbex
