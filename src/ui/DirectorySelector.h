#pragma once

#include "model/FileUrl.h"
#include "ui/FolderDialog.h"

#include <QString>
#include <QWidget>

#include <optional>

class QToolButton;

namespace harbex
{

class PathLabel;

/// Shows a chosen folder in one line and, beside it, a button to choose another. Main thread only.
class DirectorySelector : public QWidget
{
    Q_OBJECT

public:
    explicit DirectorySelector(QWidget* parent = nullptr);

    /// Shows a folder, or the prompt when there is none. Emits nothing.
    void showUrl(const std::optional<FileUrl>& url);

    /// What is shown, in full even where there is no room for it.
    [[nodiscard]] QString text() const;

    /// The button, the one control here that takes the focus.
    [[nodiscard]] QWidget* button() const;

Q_SIGNALS:
    /// The user has chosen a folder. Comes in a later turn of the main loop than the end of the dialog.
    void chosen(const harbex::ChosenFolder& folder);

private:
    void choose();

    PathLabel* m_label;
    QToolButton* m_button;
};

/// How a folder is written in a line: its path up to 40 characters as people count them, with "~" for the
/// home folder; a longer one by its last component. Readable whatever the bytes of the path.
[[nodiscard]] QString folderLabel(const FileUrl& url);

} // namespace harbex
