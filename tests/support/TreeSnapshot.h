#pragma once

#include <QByteArray>

#include <string>

namespace harbex::test
{

/// Returns a text description of everything that a move must keep. For the entry, and for everything in a
/// folder: type, permissions, owner, modification time, extended attributes, ACLs, content or link target,
/// and hard links to each other. "(nothing)" if the entry does not exist.
[[nodiscard]] QByteArray snapshotOf(const std::string& path);

} // namespace harbex::test
