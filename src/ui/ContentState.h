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

/// Holds the data that the main window edits: the folders with their rules, and the selected folder. Decides
/// which edit restarts the engine and when the store is written. Main thread only. The engine and the store
/// must live longer.
///
/// Rule edits apply to the selected folder. Folders and rules are identified by id. An edit with an unknown
/// id or an unchanged value does nothing.
class ContentState : public QObject
{
    Q_OBJECT

public:
    ContentState(DownloadImageRedirector& watcher, FolderStore& store, QObject* parent = nullptr);

    [[nodiscard]] const std::vector<WatchedFolder>& folders() const { return m_folders; }
    [[nodiscard]] std::optional<QUuid> selectedFolderID() const { return m_selectedFolderID; }

    /// Returns the selected folder; null if none is selected or the id is unknown. Valid until the folders
    /// change.
    [[nodiscard]] const WatchedFolder* selectedFolder() const;

    /// Call when the window opens. Loads the store and starts the engine unless it runs. A running engine
    /// keeps its folders and rules until the next restart. Writes the store if this changes the selection.
    void appear();

    /// Call when the window closes. Writes the store.
    void disappear();

    /// Selects a folder, or none. Writes the store if the selection changes.
    void select(std::optional<QUuid> folderID);

    /// Appends a folder with one default rule, selects it, restarts the engine and writes the store. The
    /// folder may already be in the list.
    void addFolder(const FileUrl& url, const std::optional<QByteArray>& bookmarkData);

    /// Removes a folder and restarts the engine. If the folder was selected, selects the first remaining one,
    /// and writes the store if the selected id changes.
    void deleteFolder(QUuid folderID);

    /// Appends a default rule. Restarts nothing, because a rule without a destination moves nothing.
    void addRule();

    /// Removes a rule and restarts the engine.
    void deleteRule(QUuid ruleID);

    /// These setters restart the engine. Choosing the field `kind` clears the rule's value.
    void setField(QUuid ruleID, RuleField field);
    void setOperator(QUuid ruleID, RuleOperator operatorType);
    void setKind(QUuid ruleID, RuleKind kind);

    /// Call at every change of the text. Restarts nothing: the engine gets the value at the next
    /// restart.
    void setValue(QUuid ruleID, const QString& value);

    /// Call when Return is pressed in a value. Always restarts the engine.
    void submitValue();

    /// Sets a rule's destination and its bookmark. Restarts the engine, and emits ruleChanged(), only if the
    /// destination changes.
    void setDestination(QUuid ruleID, const FileUrl& url, const std::optional<QByteArray>& bookmarkData);

Q_SIGNALS:
    /// Folders were loaded, added or removed.
    void foldersChanged();
    /// The selection changed.
    void selectionChanged();
    /// A rule was added to the selected folder or removed from it.
    void rulesChanged();
    /// A rule changed, other than by setValue().
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
