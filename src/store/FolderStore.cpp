#include "store/FolderStore.h"

#include "base/ReadableText.h"
#include "base/StandardOutput.h"
#include "model/FolderListJson.h"
#include "store/Bookmark.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

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

QString folderListKey()
{
    return QStringLiteral("savedWatchedFolders");
}
QString selectedFolderKey()
{
    return QStringLiteral("selectedWatchedFolderID");
}

/// Parses the preferences. Empty content gives an empty object.
Outcome<QJsonObject, JsonError> parsePreferences(const QByteArray& content)
{
    if (content.isEmpty()) return QJsonObject();
    const auto json = parseJson(content);
    if (!json) return json.error();
    if (!json->isObject()) return JsonError{QStringLiteral("top level: expected an object")};
    return json->toObject();
}

/// Replaces each URL whose bookmark resolves. The other URLs stay as stored.
void followBookmarks(std::vector<WatchedFolder>& folders)
{
    std::vector<QByteArray> bookmarks;
    for (const WatchedFolder& folder : folders) {
        if (folder.bookmarkData) bookmarks.push_back(*folder.bookmarkData);
        for (const FilterRule& rule : folder.rules)
            if (rule.destinationBookmarkData) bookmarks.push_back(*rule.destinationBookmarkData);
    }
    const auto urls = resolveBookmarks(bookmarks, MountTable::read());
    const auto follow = [&urls](const std::optional<QByteArray>& bookmark, auto& url) {
        const auto found = bookmark ? urls.find(*bookmark) : urls.end();
        if (found != urls.end()) url = found->second;
    };
    for (WatchedFolder& folder : folders) {
        follow(folder.bookmarkData, folder.url);
        for (FilterRule& rule : folder.rules)
            follow(rule.destinationBookmarkData, rule.destination);
    }
}

/// Returns the wanted folder if it is in the list, or else the first one. Returns nothing for an empty list.
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

    const auto stored = parsePreferences(content.value_or(QByteArray()));
    const QJsonObject preferences = stored ? *stored : QJsonObject();
    if (!content || !stored)
        printText(QStringLiteral("Failed to read the preferences: ") + readableText(path()) +
                  (stored ? QString() : QStringLiteral(": ") + stored.error().description));

    const QJsonValue list = preferences.value(folderListKey());
    m_lastList = list;
    if (!list.isUndefined()) {
        auto folders = decodeFolderList(list);
        if (folders) {
            current.folders = *std::move(folders);
            followBookmarks(current.folders);
        } else {
            printText(QStringLiteral("Failed to load folders: ") + folders.error().description);
            current.folders.clear();
        }
    }
    const auto wanted = uuidFromText(preferences.value(selectedFolderKey()).toString());
    current.selectedFolderID = selection(current.folders, wanted);
    return current;
}

void FolderStore::saveState(const FolderState& state)
{
    const auto list = encodeFolderList(state.folders);
    if (!list) {
        // The backslash and the parentheses are part of the message.
        printLine("Failed to save folders: \\(error)");
        return;
    }
    const auto content = m_file.content();
    // Unreadable content may be a good list, so it is not replaced.
    if (!content || !replace(*content, *list, state.selectedFolderID)) {
        printText(QStringLiteral("Failed to write the preferences: ") + readableText(path()));
        m_unwritten = Unwritten{state, content};
        return;
    }
    m_unwritten.reset();
    m_lastList = *list;
}

bool FolderStore::replace(const QByteArray& content, const QJsonArray& list,
                          const std::optional<QUuid>& selected) const
{
    const auto stored = parsePreferences(content);
    QJsonObject preferences = stored ? *stored : QJsonObject();
    bool isKept = stored ? putAsideLostList(content, preferences.value(folderListKey()))
                         : m_file.putAside(content, QStringLiteral("harbex"));
    QJsonObject ours{{folderListKey(), list}};
    if (selected) ours.insert(selectedFolderKey(), uuidText(*selected));
    for (const QString& key : {folderListKey(), selectedFolderKey()})
        preferences.insert(key, ours.value(key));
    QByteArray bytes = QJsonDocument(preferences).toJson(QJsonDocument::Compact);
    // Qt drops a byte order mark at the start of a key, so another key could replace one of these two.
    const auto written = parsePreferences(bytes);
    if (!written || written->value(folderListKey()) != list ||
        written->value(selectedFolderKey()) != ours.value(selectedFolderKey())) {
        isKept = isKept && m_file.putAside(content, QStringLiteral("harbex"));
        bytes = QJsonDocument(ours).toJson(QJsonDocument::Compact);
    }
    return isKept && m_file.write(bytes);
}

bool FolderStore::putAsideLostList(const QByteArray& content, const QJsonValue& list) const
{
    if (list.isUndefined()) return true;
    const auto folders = decodeFolderList(list);
    if (folders && (folders->empty() || !m_lastList || *m_lastList == list)) return true;
    // A hand-written list may contain more than Qt has parsed, for example a key twice.
    const QByteArray bytes = QJsonDocument(list.toArray()).toJson(QJsonDocument::Compact);
    if (list.isArray() && content.contains(bytes))
        return m_file.putAside(bytes, QStringLiteral("savedWatchedFolders"));
    return m_file.putAside(content, QStringLiteral("harbex"));
}

} // namespace harbex
