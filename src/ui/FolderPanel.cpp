#include "ui/FolderPanel.h"

#include "store/Bookmark.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileDialog>
#include <QTimer>
#include <QUrl>

#include <sys/stat.h>

namespace harbex
{

void selectDirectory(QWidget* parent, const DirectoryCompletion& completion)
{
    const QString prompt = QCoreApplication::translate("harbex::FolderPanel", "Select Focus Folder");
    QFileDialog panel(parent, prompt, QDir::homePath());
    panel.setFileMode(QFileDialog::Directory);
    panel.setOption(QFileDialog::ShowDirsOnly);
    panel.setLabelText(QFileDialog::Accept, prompt);
    const bool isAccepted = panel.exec() == QDialog::Accepted;
    // Some window managers give the keyboard back to no window that is left out of the taskbar. Later,
    // because the window of a panel that is not Qt's own goes only when the main loop runs.
    if (parent) QTimer::singleShot(0, parent, [parent] { parent->activateWindow(); });
    const QList<QUrl> answers = isAccepted ? panel.selectedUrls() : QList<QUrl>();

    const auto url = answers.isEmpty() ? std::nullopt : chosenFolder(answers.first());
    if (!url) {
        completion(std::nullopt, std::nullopt);
        return;
    }
    // Without a bookmark the folder still works, as long as it keeps its name.
    const auto bookmark = createBookmark(url->path());
    completion(url, bookmark ? std::optional(*bookmark) : std::nullopt);
}

std::optional<FileUrl> chosenFolder(const QUrl& answer)
{
    const auto url = FileUrl::fromString(QString::fromLatin1(answer.toEncoded()));
    // A panel that hands a path over as text has lost the bytes of it that are no UTF-8: what is left names
    // no folder, or none that was chosen.
    struct stat status = {};
    if (!url || ::stat(url->path().c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) return std::nullopt;
    return FileUrl::fromPath(url->path());
}

} // namespace harbex
