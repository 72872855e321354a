#pragma once

#include "model/FileUrl.h"

#include <QByteArray>

#include <optional>

class QUrl;
class QWidget;

namespace harbex
{

/// A folder that the user chose. The bookmark is empty if it could not be created.
struct ChosenFolder {
    FileUrl url;
    std::optional<QByteArray> bookmarkData;
};

/// Asks the user for a folder, in the desktop's dialog or else in Qt's own, modal to the window of `asker`.
/// The dialog begins in `present`, else in the folder that was chosen last in this process, else in the home
/// directory. The first two are skipped on a remote volume, whose server could block the main thread. Blocks
/// until the dialog is closed and the folder was looked at. Returns nullopt if the user cancels, if no folder
/// exists at the chosen path, or if the window is destroyed. Returns nullopt at once if a dialog is already
/// open. Main thread only.
///
/// Runs the main loop: `asker` and its window may be destroyed meanwhile. Call it through a queued
/// connection, because assistive technology waits until the press of a button is handled.
[[nodiscard]] std::optional<ChosenFolder> askForFolder(const QWidget& asker,
                                                       const std::optional<FileUrl>& present = {});

/// Returns the folder that a dialog's URL names, with the exact bytes of its path. Returns nullopt if no
/// folder exists there. Another thread looks at the folder, since a server may not answer. Meanwhile this
/// function runs the main loop. It returns nullopt if the main loop ends first or no thread can be started.
/// Main thread only.
[[nodiscard]] std::optional<ChosenFolder> folderOfAnswer(const QUrl& answer);

} // namespace harbex
