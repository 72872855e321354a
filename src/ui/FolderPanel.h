#pragma once

#include "model/FileUrl.h"

#include <QByteArray>

#include <functional>
#include <optional>

class QUrl;
class QWidget;

namespace harbex
{

/// Takes the folder that was chosen, nothing if none was, and its bookmark, nothing if none could be made.
using DirectoryCompletion =
    std::function<void(const std::optional<FileUrl>& url, const std::optional<QByteArray>& bookmarkData)>;

/// Lets the user choose a folder and calls the completion once, before it returns. Main thread.
using DirectoryChooser = std::function<void(const DirectoryCompletion& completion)>;

/// A DirectoryChooser: shows the desktop's folder panel, or Qt's own where the desktop has none, modally over
/// `parent`, and makes the bookmark at once.
void selectDirectory(QWidget* parent, const DirectoryCompletion& completion);

/// The folder that a panel's answer names, byte for byte; nothing when no folder stands there.
[[nodiscard]] std::optional<FileUrl> chosenFolder(const QUrl& answer);

} // namespace harbex
