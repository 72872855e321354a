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

/// Lets the user choose a folder and calls the completion once, at once or later, unless the widgets that
/// asked are gone by then. Main thread.
using DirectoryChooser = std::function<void(const DirectoryCompletion& completion)>;

/// Shows the desktop's folder panel, or Qt's own where the desktop has none, modally over `parent`, and makes
/// the bookmark at once. Returns when the panel is gone and the completion has been called. Main thread.
void selectDirectory(QWidget* parent, const DirectoryCompletion& completion);

/// The folder that a panel's answer names, byte for byte; nothing when no folder stands there.
[[nodiscard]] std::optional<FileUrl> chosenFolder(const QUrl& answer);

} // namespace harbex
