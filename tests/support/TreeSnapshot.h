#pragma once

#include <QByteArray>

#include <string>

namespace harbex::test
{

/// Everything that a move has to keep of an entry, as text for comparing: of it and, below a folder, of all
/// that is in it, the type, permissions, owner, modification time, extended attributes and access lists,
/// content or link text, and which names are one file. "(nothing)" where no entry is.
[[nodiscard]] QByteArray pictureOf(const std::string& path);

} // namespace harbex::test
