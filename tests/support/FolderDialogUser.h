#pragma once

#include "model/FileUrl.h"
#include "store/Bookmark.h"

#include <QtWidgets>

#include <functional>
#include <optional>
#include <utility>

namespace harbex::test
{

/// Returns the folder that a bookmark leads to. Nothing if there is no bookmark.
inline std::optional<FileUrl> folderOf(const std::optional<QByteArray>& bookmark)
{
    if (!bookmark) return std::nullopt;
    const auto urls = resolveBookmarks({*bookmark}, MountTable());
    return urls.empty() ? std::nullopt : std::optional(urls.begin()->second);
}

/// Answers the folder dialogs that open while the object exists: calls `answer` for each dialog that is
/// shown. The code that opened the dialog continues when `answer` has closed it.
class FolderDialogUser : public QObject
{
public:
    explicit FolderDialogUser(std::function<void(QFileDialog&)> answer) : m_answer(std::move(answer))
    {
        qApp->installEventFilter(this);
    }

    /// Returns how many dialogs were shown.
    [[nodiscard]] int dialogs() const { return m_dialogs; }

    static void choose(QFileDialog& dialog, const QString& path)
    {
        dialog.findChild<QLineEdit*>(QStringLiteral("fileNameEdit"))->setText(path);
        dialog.findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Open)->click();
    }
    /// Returns an answer that chooses `folder` in every dialog.
    static std::function<void(QFileDialog&)> chooser(const FileUrl& folder)
    {
        return [path = QString::fromStdString(folder.path())](QFileDialog& dialog) { choose(dialog, path); };
    }
    static void cancel(QFileDialog& dialog)
    {
        dialog.findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Cancel)->click();
    }

protected:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        auto* dialog = qobject_cast<QFileDialog*>(watched);
        if (!dialog || event->type() != QEvent::Show) return false;
        ++m_dialogs;
        QMetaObject::invokeMethod(dialog, [this, dialog] { m_answer(*dialog); }, Qt::QueuedConnection);
        return false;
    }

private:
    const std::function<void(QFileDialog&)> m_answer;
    int m_dialogs = 0;
};

} // namespace harbex::test
