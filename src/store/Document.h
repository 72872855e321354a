#pragma once

#include <optional>
#include <string>

namespace harbex
{

// The desktop's document portal hands the folders that the user picks to a sandboxed program. Such a folder
// is a "document", at $XDG_RUNTIME_DIR/doc/<id>/<name of the folder>. The id is the same in every session.

/// Returns the part of the absolute `path` after the id of its document: "Scans/2026" for
/// "/run/user/1000/doc/1a2b3c4d/Scans/2026". Returns nullopt if the path is in no document. Accesses no file.
/// Thread-safe.
[[nodiscard]] std::optional<std::string> pathInDocument(const std::string& path);

/// Returns the real path, outside of the sandbox, of the file or folder at `path`. Returns nullopt if the
/// path is in no document, or if the portal does not tell (before version 1.17). Waits for the portal.
/// Thread-safe.
[[nodiscard]] std::optional<std::string> hostPathOf(const std::string& path);

} // namespace harbex
