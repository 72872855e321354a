#include "ui/FolderDialog.h"

#include "store/Bookmark.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileDialog>
#include <QPointer>
#include <QTimer>
#include <QUrl>

#include <sys/stat.h>

namespace harbex
{

std::optional<ChosenFolder> askForFolder(const QWidget& asker)
{
    static bool isUp = false;
    if (isUp) return std::nullopt;
    isUp = true;

    const QString prompt = QCoreApplication::translate("harbex::FolderDialog", "Select Focus Folder");
    QWidget* const window = asker.window();
    const QPointer dialog = new QFileDialog(window, prompt, QDir::homePath());
    dialog->setFileMode(QFileDialog::Directory);
    dialog->setOption(QFileDialog::ShowDirsOnly);
    dialog->setLabelText(QFileDialog::Accept, prompt);
    const bool isAccepted = dialog->exec() == QDialog::Accepted;
    // Assistive technology presses buttons behind a modal dialog too. What was pressed has its turn before
    // this.
    QMetaObject::invokeMethod(qApp, [] { isUp = false; }, Qt::QueuedConnection);
    // A window that goes takes its dialog with it.
    if (!dialog) return std::nullopt;
    dialog->deleteLater();
    const QList<QUrl> answers = isAccepted ? dialog->selectedUrls() : QList<QUrl>();
    // Some window managers give the keyboard back to no window that is left out of the taskbar. Later,
    // because the window of a dialog that is not Qt's own goes only when the main loop runs.
    QTimer::singleShot(0, window, [window] { window->activateWindow(); });

    const auto url = answers.isEmpty() ? std::nullopt : folderOfAnswer(answers.first());
    if (!url) return std::nullopt;
    // Without a bookmark the folder still works, as long as it keeps its name.
    const auto bookmark = createBookmark(url->path());
    return ChosenFolder{*url, bookmark ? std::optional(*bookmark) : std::nullopt};
}

std::optional<FileUrl> folderOfAnswer(const QUrl& answer)
{
    const auto url = FileUrl::fromString(QString::fromLatin1(answer.toEncoded()));
    // A dialog that hands a path over as text has lost the bytes of it that are no UTF-8: what is left names
    // no folder, or none that was chosen.
    struct stat status = {};
    if (!url || ::stat(url->path().c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) return std::nullopt;
    return FileUrl::fromPath(url->path());
}

} // namespace harbex
