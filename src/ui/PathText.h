#pragma once

#include "model/FileUrl.h"

#include <QByteArray>
#include <QString>

#include <optional>

namespace harbex
{

/// Returns the URL by which the user knows the folder at `url`: in a sandbox its real one, if the bookmark
/// has it. Accesses no file.
[[nodiscard]] FileUrl shownUrl(const FileUrl& url, const std::optional<QByteArray>& bookmark);

/// Returns the label of a folder: its path, with each occurrence of the home path replaced by "~". A path of
/// more than 40 characters (grapheme clusters) gives only its last component. The path of a folder in a
/// document begins with the folder's own name, see pathInDocument(). Escaped by readableText().
[[nodiscard]] QString folderLabel(const FileUrl& url);

/// Returns the whole path, or pathInDocument() in a document. Escaped by readableText().
[[nodiscard]] QString fullPath(const FileUrl& url);

/// Returns a tooltip with the whole path as rich text. It reads from left to right in every language.
[[nodiscard]] QString pathToolTip(const FileUrl& url);

} // namespace harbex
