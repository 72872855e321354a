#pragma once

#include <string>
#include <string_view>

namespace harbex
{

// Pure functions. Paths and names are raw bytes. Thread-safe.

/// Returns the last component of `path`, without trailing slashes. Returns "/" for the root and an empty text
/// for an empty path.
[[nodiscard]] std::string_view lastPathComponent(std::string_view path);

/// Returns the path of the folder that contains the entry at `path`: "/" for an entry of the root, "." for a
/// name without a slash, an empty text for an empty path.
[[nodiscard]] std::string parentPath(std::string_view path);

/// Returns the text after the last dot of `name`. Empty for a name without a dot, with only a leading dot
/// (".env"), or with a dot at the end ("name.", "...").
[[nodiscard]] std::string_view pathExtension(std::string_view name);

} // namespace harbex
