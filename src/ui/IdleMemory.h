#pragma once

namespace harbex
{

/// Releases memory that the process does not need while its window is closed: cached icons and freed heap
/// memory. The system gets it back. Main thread only.
void releaseIdleMemory();

} // namespace harbex
