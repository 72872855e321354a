#pragma once

#include "store/FolderStore.h"
#include "ui/ContentState.h"
#include "watcher/DownloadImageRedirector.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QStandardPaths>

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

namespace harbex::test
{

/// The file of the preferences in the test's own home.
inline QString preferencesPath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
           QStringLiteral("/harbex/harbex.json");
}

/// An empty store, made before the real one looks at it.
struct EmptyStore {
    EmptyStore() { QFile::remove(preferencesPath()); }
    FolderStore store;
};

/// What the window edits with a real engine and a real store, and what a test asks about them.
class ContentStateFixture : private EmptyStore
{
public:
    using EmptyStore::store;
    DownloadImageRedirector engine;
    ContentState state{engine, store};

    /// A folder with default rules, which really exists.
    static WatchedFolder makeFolder(const QString& name, std::size_t ruleCount = 1)
    {
        const QString path = QDir::homePath() + QLatin1Char('/') + name;
        QDir().mkpath(path);
        return {.url = FileUrl::fromPath(path.toStdString()),
                .bookmarkData = {},
                .rules = std::vector<FilterRule>(ruleCount)};
    }

    /// Stores folders, opens the window's state on them and forgets that it was saved.
    void appearWith(std::vector<WatchedFolder> folders, std::optional<QUuid> selected = {})
    {
        store.saveState({std::move(folders), selected});
        state.appear();
        settle();
        (void)takeSaved();
        (void)restarts();
    }

    /// The folder at a position, and one of its rules.
    [[nodiscard]] const WatchedFolder& folder(std::size_t index) const { return state.folders().at(index); }
    [[nodiscard]] const FilterRule& rule(std::size_t index) const
    {
        return state.selectedFolder()->rules.at(index);
    }

    /// How often the engine was restarted since the last time this was asked.
    [[nodiscard]] int restarts()
    {
        settle();
        return stops() - std::exchange(m_restartsSeen, stops());
    }

    /// Whether the store was written since the last time this was asked.
    [[nodiscard]] bool wasSaved() { return QFile::remove(preferencesPath()); }

    /// What was saved since then; null if it was not.
    [[nodiscard]] std::unique_ptr<const FolderState> takeSaved()
    {
        if (!QFile::exists(preferencesPath())) return nullptr;
        FolderStore reader;
        auto saved = std::make_unique<const FolderState>(reader.loadState({}));
        QFile::remove(preferencesPath());
        return saved;
    }

    /// Lets the main loop do what waits in it.
    void settle() const
    {
        // A restart takes three turns, one after the other.
        for (int turn = 0; turn < 5; ++turn)
            QCoreApplication::processEvents();
    }

private:
    [[nodiscard]] int stops() const
    {
        const QStringList& lines = engine.logs();
        return static_cast<int>(std::ranges::count_if(
            lines, [](const QString& line) { return line.endsWith(QLatin1String("] Stopped watcher.")); }));
    }

    int m_restartsSeen = 0;
};

} // namespace harbex::test
