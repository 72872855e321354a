#pragma once

namespace harbex
{

/// Whether what is open as `fd` lies on a volume that a server has: on a network file system, or on one that
/// a program serves. There the kernel is not told what others change, and the answer to a call can be lost.
/// False when it cannot be read.
[[nodiscard]] bool isOnRemoteVolume(int fd);

} // namespace harbex
