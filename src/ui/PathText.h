#pragma once

#include "model/FileUrl.h"

#include <QString>

namespace harbex
{

/// Returns the label of a folder: its path, with each occurrence of the home path replaced by "~". A path of
/// more than 40 characters (grapheme clusters) gives only its last component. Escaped by readableText().
[[nodiscard]] QString folderLabel(const FileUrl& url);

/// Returns the whole path. Escaped by readableText().
[[nodiscard]] QString fullPath(const FileUrl& url);

/// Returns a tooltip with the whole path as rich text. It reads from left to right in every language.
[[nodiscard]] QString pathToolTip(const FileUrl& url);

} // namespace harbex
