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

/// Shows the chosen folder in one line, with a button to choose another one. The whole path is its tooltip
/// and the accessible description of the button. Main thread only.
class DirectorySelector : public QWidget
{
    Q_OBJECT

public:
    explicit DirectorySelector(QWidget* parent = nullptr);

    /// Shows the folder at `url`, or the prompt without one. In a sandbox the bookmark tells the real path.
    /// Emits nothing.
    void showUrl(const std::optional<FileUrl>& url, const std::optional<QByteArray>& bookmark = {});

    /// Returns the label without elision.
    [[nodiscard]] QString text() const;

    /// Returns the button, the only control here that takes the focus.
    [[nodiscard]] QWidget* button() const;

Q_SIGNALS:
    /// The user chose a folder. Emitted through the event queue, after the dialog has ended.
    void chosen(const harbex::ChosenFolder& folder);

protected:
    void changeEvent(QEvent* event) override;

private:
    void choose();
    void followFont();

    std::optional<FileUrl> m_url;
    PathLabel* m_label;
    QToolButton* m_button;
};

} // namespace harbex
