#include "ui/FolderDialog.h"

#include "store/Bookmark.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileDialog>
#include <QPointer>
#include <QTimer>
#include <QUrl>

#include <sys/stat.h>

namespace harbex
{

namespace
{

/// Returns the text of the path, if a dialog can begin in this folder.
std::optional<QString> startPath(const std::optional<FileUrl>& folder)
{
    if (!folder || !isLocalFolder(folder->path())) return std::nullopt;
    const QString path = QFile::decodeName(QByteArray::fromStdString(folder->path()));
    // A path that is not UTF-8 has no text.
    return QFile::encodeName(path).toStdString() == folder->path() ? std::optional(path) : std::nullopt;
}

} // namespace

std::optional<ChosenFolder> askForFolder(const QWidget& asker, const std::optional<FileUrl>& present)
{
    static std::optional<FileUrl> chosenLast;
    static bool isOpen = false;
    if (isOpen) return std::nullopt;
    isOpen = true;

    //: Title of the dialog that asks for a folder, and the button that accepts it. The folder is one to watch
    //: or the destination of a rule.
    const QString prompt = QCoreApplication::translate("harbex::FolderDialog", "Select Focus Folder");
    QWidget* const window = asker.window();
    std::optional<QString> start = startPath(present);
    if (!start) start = startPath(chosenLast);
    const QPointer dialog = new QFileDialog(window, prompt, start.value_or(QDir::homePath()));
    dialog->setFileMode(QFileDialog::Directory);
    dialog->setOption(QFileDialog::ShowDirsOnly);
    dialog->setLabelText(QFileDialog::Accept, prompt);
    const bool isAccepted = dialog->exec() == QDialog::Accepted;
    // Assistive technology can press buttons behind a modal dialog. Queued, so that such presses are handled
    // while the flag is still set.
    QMetaObject::invokeMethod(qApp, [] { isOpen = false; }, Qt::QueuedConnection);
    // The dialog is destroyed with its window.
    if (!dialog) return std::nullopt;
    dialog->deleteLater();
    const QList<QUrl> answers = isAccepted ? dialog->selectedUrls() : QList<QUrl>();
    // Some window managers do not return the focus to a window that is left out of the taskbar. Queued,
    // because a native dialog closes only when the main loop runs.
    QTimer::singleShot(0, window, [window] { window->activateWindow(); });

    const auto url = answers.isEmpty() ? std::nullopt : folderOfAnswer(answers.first());
    if (!url) return std::nullopt;
    chosenLast = url;
    // The bookmark is optional: without it the folder works until it is renamed.
    const auto bookmark = createBookmark(url->path());
    return ChosenFolder{*url, bookmark ? std::optional(*bookmark) : std::nullopt};
}

std::optional<FileUrl> folderOfAnswer(const QUrl& answer)
{
    const auto url = FileUrl::fromString(QString::fromLatin1(answer.toEncoded()));
    // A dialog that passes the path as text has lost bytes that are not UTF-8. The rest usually names no
    // folder.
    struct stat status = {};
    if (!url || ::stat(url->path().c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) return std::nullopt;
    return FileUrl::fromPath(url->path());
}

} // namespace harbex
