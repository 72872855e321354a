#pragma once

#include "model/FileUrl.h"

#include <QByteArray>

#include <optional>

class QUrl;
class QWidget;

namespace harbex
{

/// A folder that the user has chosen, and its bookmark, nothing if none could be made.
struct ChosenFolder {
    FileUrl url;
    std::optional<QByteArray> bookmarkData;
};

/// Asks the user for a folder in the desktop's dialog, or in Qt's own where the desktop has none, modally
/// over the window of `asker`. Returns when the dialog is gone. Nothing when it was cancelled, and nothing,
/// without a dialog, to what was pressed while one was up. Main thread.
///
/// The main loop runs meanwhile: `asker` and its window may be gone afterwards. To be called in a later turn
/// of the loop than the press of a button: assistive technology waits until the press is over.
[[nodiscard]] std::optional<ChosenFolder> askForFolder(const QWidget& asker);

/// The folder that a dialog's answer names, byte for byte; nothing when no folder stands there.
[[nodiscard]] std::optional<FileUrl> folderOfAnswer(const QUrl& answer);

} // namespace harbex
