#pragma once

#include "model/WatchedFolder.h"

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QUuid>

#include <functional>
#include <optional>
#include <vector>

namespace harbex
{

class DownloadImageRedirector;
class FolderStore;

/// What the main window edits, apart from the widgets that show it: the folders with their rules, and which
/// of them is selected. Knows which edit restarts the engine and which moment writes the store; there are no
/// others. Main thread only. The engine and the store must live longer.
///
/// Edits of rules are of the selected folder. Folders and rules are named by id: an edit whose id is not
/// there any more does nothing, and so does one that sets what is set already.
class ContentState : public QObject
{
    Q_OBJECT

public:
    ContentState(DownloadImageRedirector& watcher, FolderStore& store, QObject* parent = nullptr);

    [[nodiscard]] const std::vector<WatchedFolder>& folders() const { return m_folders; }
    [[nodiscard]] std::optional<QUuid> selectedFolderID() const { return m_selectedFolderID; }

    /// The folder that is selected; null when none is, or the selection names no folder. Valid until the next
    /// change of the folders.
    [[nodiscard]] const WatchedFolder* selectedFolder() const;

    /// The window has been opened: reads the store, and starts the engine unless it runs.
    void appear();

    /// The window has been closed: writes the store.
    void disappear();

    /// Selects a folder, or none. A change writes the store.
    void select(std::optional<QUuid> folderID);

    /// Appends a folder with one default rule, selects it, restarts the engine and writes the store. The same
    /// folder may be there already.
    void addFolder(const FileUrl& url, const std::optional<QByteArray>& bookmarkData);

    /// Removes a folder and restarts the engine. If it was selected, the first one left is from then on, and
    /// the store is written if that is another selection.
    void deleteFolder(QUuid folderID);

    /// Appends a default rule. Without a destination it can move nothing, so the engine need not know yet.
    void addRule();

    /// Removes a rule and restarts the engine.
    void deleteRule(QUuid ruleID);

    /// These restart the engine. Choosing the field `kind` clears the rule's value.
    void setField(QUuid ruleID, RuleField field);
    void setOperator(QUuid ruleID, RuleOperator operatorType);
    void setKind(QUuid ruleID, RuleKind kind);

    /// Every keystroke; the engine learns of it with the next restart.
    void setValue(QUuid ruleID, const QString& value);

    /// Return was pressed in a value: restarts the engine, whatever has changed.
    void submitValue();

    /// Sets a rule's destination and its bookmark. Restarts the engine if it is another destination; a
    /// bookmark alone is renewed silently.
    void setDestination(QUuid ruleID, const FileUrl& url, const std::optional<QByteArray>& bookmarkData);

Q_SIGNALS:
    /// Folders were loaded, added or removed.
    void foldersChanged();
    /// Another folder, or none, is selected.
    void selectionChanged();
    /// A rule was added to the selected folder or removed from it.
    void rulesChanged();
    /// Another field of a rule has changed than its value.
    void ruleChanged(const QUuid& ruleID);

private:
    void loadState();
    void saveState();
    void restart();
    void changeSelection(std::optional<QUuid> folderID);
    WatchedFolder* findSelectedFolder();
    FilterRule* findRule(QUuid ruleID);
    template <class Value>
    void setChoice(QUuid ruleID, Value FilterRule::* member, Value value);

    DownloadImageRedirector& m_watcher;
    FolderStore& m_store;
    std::vector<WatchedFolder> m_folders;
    std::optional<QUuid> m_selectedFolderID;
};

} // namespace harbex
