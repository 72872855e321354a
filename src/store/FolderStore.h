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

/// The configuration while the program runs: the folders in the order of the sidebar and the selected one.
struct FolderState {
    std::vector<WatchedFolder> folders;
    std::optional<QUuid> selectedFolderID;
};

/// Keeps the configuration in the user's preferences: a JSON object with the list of folders under
/// "savedWatchedFolders" and the id of the selected one, a string, under "selectedWatchedFolderID". Main
/// thread only. No failure reaches the caller: each is one line on standard output.
///
/// A stored list that cannot be used is never lost, nor one that was not there, or could not be read, when
/// the configuration was loaded. Before a save replaces it, it is put aside, once, in a file beside the
/// preferences: its own bytes as savedWatchedFolders-<hash>.json, or all the preferences as
/// harbex-<hash>.json when they are no JSON object or the list is not written as this program writes it.
class FolderStore
{
public:
    /// The stored configuration. Where nothing is stored or the preferences cannot be read, the folders of
    /// `current` stay; a list that does not decode gives no folders. Reads the file once. A folder or
    /// destination whose bookmark resolves is given the resolved URL. Selected is the stored folder or else
    /// the first one.
    [[nodiscard]] FolderState loadState(FolderState current);

    /// Stores the configuration, written when it returns, and leaves the values of other keys as they are.
    /// When it cannot be encoded, what was stored before stays. When it cannot be written, it is kept in
    /// memory and is what loadState() gives until a save succeeds or somebody changes the file.
    void saveState(const FolderState& state);

    /// Where the preferences are kept.
    [[nodiscard]] const QString& path() const { return m_file.path(); }

private:
    struct Unwritten {
        FolderState state;
        /// What the file held instead; nothing when it could not be read.
        std::optional<QByteArray> fileContent;
    };

    [[nodiscard]] bool replace(const QByteArray& content, const QJsonArray& list,
                               const std::optional<QUuid>& selected) const;
    [[nodiscard]] bool putAsideLostList(const QByteArray& content, const QJsonValue& list) const;

    PreferencesFile m_file;
    /// The list that was loaded or saved last, undefined when there was none; nothing before the first of
    /// these.
    std::optional<QJsonValue> m_seen;
    std::optional<Unwritten> m_unwritten;
};

} // namespace harbex
