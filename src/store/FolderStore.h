#pragma once

#include "model/WatchedFolder.h"
#include "store/PreferencesFile.h"

#include <QByteArray>
#include <QJsonArray>
#include <QJsonValue>
#include <QString>
#include <QUuid>

#include <optional>
#include <vector>

namespace harbex
{

/// The configuration: the folders in the order of the sidebar, and the selected one.
struct FolderState {
    std::vector<WatchedFolder> folders;
    std::optional<QUuid> selectedFolderID;
};

/// Stores the configuration in the user's preferences: a JSON object with the list of folders under
/// "savedWatchedFolders" and the id of the selected one, a string, under "selectedWatchedFolderID". Main
/// thread only. No failure reaches the caller: each is one line on standard output.
///
/// Before a save replaces a list that cannot be decoded, or a non-empty list that differs from that of the
/// last load or save, it puts the list aside in a file beside the preferences, once per content. The file is
/// savedWatchedFolders-<hash>.json with the bytes of the list. In four cases it is harbex-<hash>.json with
/// all bytes of the preferences: they are no JSON object, the list is no array, it is formatted in another
/// way than this program does it, or the other keys cannot be kept.
class FolderStore
{
public:
    /// Returns the stored configuration. Keeps the folders of `current` if nothing is stored or the
    /// preferences cannot be read. Returns no folders if the list cannot be decoded. Reads the file once.
    /// Replaces the URL of each folder and destination whose bookmark resolves; the file stays as it is.
    /// Waits for the disk: lists the parents of moved folders, then searches at most 0.1 second for the rest.
    /// Selects the stored folder, or else the first one.
    [[nodiscard]] FolderState loadState(FolderState current);

    /// Writes the configuration before it returns. Keeps the values of other keys. If it cannot be encoded,
    /// the stored one stays. If it cannot be written, loadState() returns it from memory until a save
    /// succeeds or the file changes.
    void saveState(const FolderState& state);

    /// Returns the path of the preferences.
    [[nodiscard]] const QString& path() const { return m_file.path(); }

private:
    struct Unwritten {
        FolderState state;
        /// The content of the file at the failed save; nullopt if it could not be read.
        std::optional<QByteArray> fileContent;
    };

    /// Replaces the file, whose content is `content`. Returns false on failure.
    [[nodiscard]] bool replace(const QByteArray& content, const QJsonArray& list,
                               const std::optional<QUuid>& selected) const;
    /// Puts `list`, a part of `content`, aside if a save would lose it. Returns false on failure.
    [[nodiscard]] bool putAsideLostList(const QByteArray& content, const QJsonValue& list) const;

    PreferencesFile m_file;
    /// The list of the last load or save; undefined if the file had none; nullopt before the first load or
    /// save.
    std::optional<QJsonValue> m_lastList;
    std::optional<Unwritten> m_unwritten;
};

} // namespace harbex
