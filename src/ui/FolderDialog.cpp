#include "ui/FolderDialog.h"

#include "store/Bookmark.h"

#include <QCoreApplication>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QFileDialog>
#include <QFutureWatcher>
#include <QPointer>
#include <QPromise>
#include <QTimer>
#include <QUrl>

#include <string>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <utility>

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

/// Returns the folder at this path, if there is one. Waits for the disk or the server.
std::optional<ChosenFolder> folderAt(const std::string& path)
{
    // A dialog that passes the path as text has lost bytes that are not UTF-8. The rest usually names no
    // folder.
    struct stat status = {};
    if (::stat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) return std::nullopt;
    // The bookmark is optional: without it the folder works until it is renamed.
    const auto bookmark = createBookmark(path);
    return ChosenFolder{FileUrl::fromPath(path), bookmark ? std::optional(*bookmark) : std::nullopt};
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
    const QPointer window = asker.window();
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
    const QList<QUrl> answers = isAccepted ? dialog->selectedUrls() : QList<QUrl>();
    // Not later: the loop below would return the focus to the window before the dialog is gone.
    delete dialog;
    // Some window managers do not return the focus to a window that is left out of the taskbar. Queued,
    // because a native dialog closes only when the main loop runs.
    QTimer::singleShot(0, window, [window] { window->activateWindow(); });
    auto folder = answers.isEmpty() ? std::nullopt : folderOfAnswer(answers.first());
    if (!window) return std::nullopt;
    if (folder) chosenLast = folder->url;
    return folder;
}

std::optional<ChosenFolder> folderOfAnswer(const QUrl& answer)
{
    const auto url = FileUrl::fromString(QString::fromLatin1(answer.toEncoded()));
    if (!url) return std::nullopt;

    QPromise<std::optional<ChosenFolder>> promise;
    QFutureWatcher<std::optional<ChosenFolder>> watcher;
    QEventLoop loop;
    QObject::connect(&watcher, &QFutureWatcherBase::finished, &loop, &QEventLoop::quit);
    watcher.setFuture(promise.future());
    promise.start();
    try {
        // Detached, because nothing can end a thread that waits for a server.
        std::thread([promise = std::move(promise), path = url->path()]() mutable {
            promise.addResult(folderAt(path));
            promise.finish();
        }).detach();
    } catch (const std::system_error&) {
        return std::nullopt; // The system has no thread left.
    }
    loop.exec();
    return watcher.isFinished() ? watcher.result() : std::nullopt;
}

} // namespace harbex
