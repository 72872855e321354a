#pragma once

namespace harbex
{

/// Gives back to the system what memory the process can do without while its window is closed: freed heap,
/// drawn icons, and the mapped pages of program code, which come back from the page cache when they are
/// needed. Main thread only.
void releaseIdleMemory();

} // namespace harbex
