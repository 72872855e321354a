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

/// Shows the chosen folder in one line, with a button to choose another one. Main thread only.
class DirectorySelector : public QWidget
{
    Q_OBJECT

public:
    explicit DirectorySelector(QWidget* parent = nullptr);

    /// Shows a folder, or the prompt if there is none. Emits nothing.
    void showUrl(const std::optional<FileUrl>& url);

    /// Returns the label without elision.
    [[nodiscard]] QString text() const;

    /// Returns the button, the only control here that takes the focus.
    [[nodiscard]] QWidget* button() const;

Q_SIGNALS:
    /// The user chose a folder. Emitted through the event queue, after the dialog has ended.
    void chosen(const harbex::ChosenFolder& folder);

private:
    void choose();

    PathLabel* m_label;
    QToolButton* m_button;
};

/// Returns the label of a folder: its path, with each occurrence of the home path replaced by "~". A path of
/// more than 40 characters (grapheme clusters) gives only its last component. Escaped by readableText().
[[nodiscard]] QString folderLabel(const FileUrl& url);

} // namespace harbex
