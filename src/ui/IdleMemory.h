#pragma once

namespace harbex
{

/// Gives back to the system what memory the process can do without while its window is closed: freed heap
/// and drawn icons. Main thread only.
void releaseIdleMemory();

} // namespace harbex
