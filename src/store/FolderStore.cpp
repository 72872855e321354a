#include "store/FolderStore.h"

#include "base/ReadableText.h"
#include "base/StandardOutput.h"
#include "model/FolderListJson.h"
#include "store/Bookmark.h"

#include <algorithm>
#include <utility>

namespace harbex
{

namespace
{

void printText(const QString& text)
{
    printLine(text.toStdString());
}

Outcome<std::vector<WatchedFolder>, JsonError> decodeStoredList(const Preferences& stored)
{
    if (!stored.folderList) return JsonError{QStringLiteral("the stored value is not binary data")};
    return decodeFolderList(*stored.folderList);
}

/// Replaces each URL whose bookmark resolves; the others stay as they were stored.
void resolveBookmarks(std::vector<WatchedFolder>& folders)
{
    const MountTable mounts = MountTable::read();
    for (WatchedFolder& folder : folders) {
        if (folder.bookmarkData)
            folder.url = resolveBookmark(*folder.bookmarkData, mounts).value_or(folder.url);
        for (FilterRule& rule : folder.rules) {
            if (!rule.destinationBookmarkData) continue;
            if (auto destination = resolveBookmark(*rule.destinationBookmarkData, mounts))
                rule.destination = std::move(destination);
        }
    }
}

/// The wanted folder if it is in the list, else the first one, else none.
std::optional<QUuid> selection(const std::vector<WatchedFolder>& folders, const std::optional<QUuid>& wanted)
{
    if (folders.empty()) return std::nullopt;
    const auto hasID = [&wanted](const WatchedFolder& folder) { return folder.id == wanted; };
    return std::ranges::any_of(folders, hasID) ? wanted : folders.front().id;
}

} // namespace

FolderState FolderStore::loadState(FolderState current)
{
    const auto content = m_file.content();
    if (m_unwritten && m_unwritten->fileContent == content) {
        const FolderState& state = m_unwritten->state;
        return {state.folders, selection(state.folders, state.selectedFolderID)};
    }

    const auto stored = content ? parsePreferences(*content) : std::nullopt;
    m_seen = Seen{stored ? stored->folderList : std::nullopt};
    if (!stored || stored->isDamaged)
        printText(QStringLiteral("Failed to read the preferences: ") + readableText(path()));
    if (stored && stored->hasFolderList) {
        auto folders = decodeStoredList(*stored);
        if (folders) {
            current.folders = *std::move(folders);
            resolveBookmarks(current.folders);
        } else {
            printText(QStringLiteral("Failed to load folders: ") + folders.error().description);
            current.folders.clear();
        }
    }
    const auto wanted = stored ? uuidFromText(stored->selectedFolder) : std::nullopt;
    current.selectedFolderID = selection(current.folders, wanted);
    return current;
}

void FolderStore::saveState(const FolderState& state)
{
    const auto list = encodeFolderList(state.folders);
    if (!list) {
        // The backslash and the parentheses belong to the message, which never says more.
        printLine("Failed to save folders: \\(error)");
        return;
    }
    const QString selected = state.selectedFolderID ? uuidText(*state.selectedFolderID) : QString();
    const auto content = m_file.content();
    if (!putAsideWhatWouldBeLost(content) || !m_file.write(*list, selected)) {
        printText(QStringLiteral("Failed to write the preferences: ") + readableText(path()));
        m_unwritten = Unwritten{state, content};
        return;
    }
    m_unwritten.reset();
    m_seen = Seen{*list};
}

bool FolderStore::putAsideWhatWouldBeLost(const std::optional<QByteArray>& content) const
{
    // What cannot be read may be a good list, so it is not replaced either.
    const auto stored = content ? parsePreferences(*content) : std::nullopt;
    if (!stored) return false;
    if (!stored->hasFolderList && !stored->isDamaged) return true;
    const auto folders = decodeStoredList(*stored);
    if (stored->isDamaged || (!folders && !stored->folderList))
        return m_file.putAside(*content, QStringLiteral("harbex"), QStringLiteral("conf"));
    const bool isUnseen = folders && !folders->empty() && m_seen && m_seen->list != stored->folderList;
    if (!folders || isUnseen)
        return m_file.putAside(*stored->folderList, QStringLiteral("savedWatchedFolders"),
                               QStringLiteral("json"));
    return true;
}

} // namespace harbex
