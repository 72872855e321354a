#include "ui/ContentState.h"

#include "store/FolderStore.h"
#include "watcher/DownloadImageRedirector.h"

#include <algorithm>
#include <utility>

namespace harbex
{

namespace
{

/// Returns the first record with this id, or end().
template <class Records>
auto findById(Records& records, const QUuid& id)
{
    return std::find_if(records.begin(), records.end(), [&](const auto& record) { return record.id == id; });
}

} // namespace

ContentState::ContentState(DownloadImageRedirector& watcher, FolderStore& store, QObject* parent)
    : QObject(parent), m_watcher(watcher), m_store(store)
{
}

const WatchedFolder* ContentState::selectedFolder() const
{
    return const_cast<ContentState*>(this)->findSelectedFolder();
}

void ContentState::appear()
{
    loadState();
    if (!m_watcher.isRunning()) m_watcher.start(m_folders);
}

void ContentState::disappear()
{
    saveState();
}

void ContentState::loadState()
{
    FolderState state = m_store.loadState({m_folders, m_selectedFolderID});
    m_folders = std::move(state.folders);
    Q_EMIT foldersChanged();
    select(state.selectedFolderID);
}

void ContentState::saveState()
{
    m_store.saveState({m_folders, m_selectedFolderID});
}

void ContentState::select(std::optional<QUuid> folderID)
{
    if (m_selectedFolderID == folderID) return;
    changeSelection(folderID);
    saveState();
}

void ContentState::changeSelection(std::optional<QUuid> folderID)
{
    m_selectedFolderID = folderID;
    Q_EMIT selectionChanged();
}

void ContentState::addFolder(const FileUrl& url, const std::optional<QByteArray>& bookmarkData)
{
    m_folders.push_back({.url = url, .bookmarkData = bookmarkData, .rules = {FilterRule()}});
    Q_EMIT foldersChanged();
    changeSelection(m_folders.back().id);
    restart();
    saveState();
}

void ContentState::deleteFolder(QUuid folderID)
{
    const auto folder = findById(m_folders, folderID);
    if (folder == m_folders.end()) return;
    m_folders.erase(folder);
    Q_EMIT foldersChanged();
    const auto first = m_folders.empty() ? std::nullopt : std::optional(m_folders.front().id);
    // Records may have duplicate ids, so the first remaining folder may have the same id.
    const bool isSelectionChanged = m_selectedFolderID == folderID && first != folderID;
    if (isSelectionChanged) changeSelection(first);
    restart();
    if (isSelectionChanged) saveState();
}

void ContentState::addRule()
{
    WatchedFolder* folder = findSelectedFolder();
    if (!folder) return;
    folder->rules.emplace_back();
    Q_EMIT rulesChanged();
}

void ContentState::deleteRule(QUuid ruleID)
{
    WatchedFolder* folder = findSelectedFolder();
    if (!folder) return;
    const auto rule = findById(folder->rules, ruleID);
    if (rule == folder->rules.end()) return;
    folder->rules.erase(rule);
    Q_EMIT rulesChanged();
    restart();
}

void ContentState::setField(QUuid ruleID, RuleField field)
{
    FilterRule* rule = findRule(ruleID);
    if (!rule || rule->field == field) return;
    rule->field = field;
    if (field == RuleField::kind) rule->value.clear();
    Q_EMIT ruleChanged(ruleID);
    restart();
}

void ContentState::setOperator(QUuid ruleID, RuleOperator operatorType)
{
    setChoice(ruleID, &FilterRule::operatorType, operatorType);
}

void ContentState::setKind(QUuid ruleID, RuleKind kind)
{
    setChoice(ruleID, &FilterRule::kind, kind);
}

template <class Value>
void ContentState::setChoice(QUuid ruleID, Value FilterRule::* member, Value value)
{
    FilterRule* rule = findRule(ruleID);
    if (!rule || rule->*member == value) return;
    rule->*member = value;
    Q_EMIT ruleChanged(ruleID);
    restart();
}

void ContentState::setValue(QUuid ruleID, const QString& value)
{
    if (FilterRule* rule = findRule(ruleID)) rule->value = value;
}

void ContentState::submitValue()
{
    restart();
}

void ContentState::setDestination(QUuid ruleID, const FileUrl& url,
                                  const std::optional<QByteArray>& bookmarkData)
{
    FilterRule* rule = findRule(ruleID);
    if (!rule) return;
    const bool isOther = rule->destination != url;
    rule->destination = url;
    rule->destinationBookmarkData = bookmarkData;
    if (!isOther) return;
    Q_EMIT ruleChanged(ruleID);
    restart();
}

void ContentState::restart()
{
    m_watcher.restart(m_folders);
}

WatchedFolder* ContentState::findSelectedFolder()
{
    if (!m_selectedFolderID) return nullptr;
    const auto folder = findById(m_folders, *m_selectedFolderID);
    return folder == m_folders.end() ? nullptr : &*folder;
}

FilterRule* ContentState::findRule(QUuid ruleID)
{
    WatchedFolder* folder = findSelectedFolder();
    if (!folder) return nullptr;
    const auto rule = findById(folder->rules, ruleID);
    return rule == folder->rules.end() ? nullptr : &*rule;
}

} // namespace harbex
