#pragma once

#include "store/FolderStore.h"
#include "ui/ContentState.h"
#include "watcher/DownloadImageRedirector.h"

#include <QtTest>

#include <memory>
#include <utility>
#include <vector>

namespace harbex::test
{

/// Path of the configuration file in the scratch home.
inline QString preferencesPath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
           QStringLiteral("/harbex/harbex.json");
}

/// Returns the content of the configuration file. Empty if there is none.
inline QByteArray storedText()
{
    QFile file(preferencesPath());
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/// Returns a folder of the home with default rules. Creates it on disk.
inline WatchedFolder makeFolder(const char* name, std::size_t ruleCount = 1)
{
    const QString path = QDir::home().filePath(QString::fromUtf8(name));
    QDir().mkpath(path);
    return {.url = FileUrl::fromPath(path.toStdString()),
            .bookmarkData = {},
            .rules = std::vector<FilterRule>(ruleCount)};
}

/// An empty store. Deletes the configuration file before FolderStore reads it.
struct EmptyStore {
    EmptyStore() { QFile::remove(preferencesPath()); }
    FolderStore store;
};

/// Fixture for ContentState with a real engine and a real store.
class ContentStateFixture : private EmptyStore
{
public:
    using EmptyStore::store;
    DownloadImageRedirector engine;
    ContentState state{engine, store};

    ContentStateFixture() = default;
    /// Stores the folders, opens the state on them, and resets takeSaved() and restarts(). The first folder
    /// is selected unless another one is given.
    explicit ContentStateFixture(std::vector<WatchedFolder> folders, std::optional<QUuid> selected = {})
    {
        store.saveState({std::move(folders), selected});
        state.appear();
        settle();
        (void)takeSaved();
        (void)restarts();
    }

    /// The folder at a position, and a rule of the selected folder.
    [[nodiscard]] const WatchedFolder& folder(std::size_t index) const { return state.folders().at(index); }
    [[nodiscard]] const FilterRule& rule(std::size_t index) const
    {
        return state.selectedFolder()->rules.at(index);
    }

    /// Returns how often the engine was restarted since the last call.
    [[nodiscard]] int restarts()
    {
        settle();
        const auto stops = engine.logs().filter(QStringLiteral("] Stopped watcher.")).size();
        return static_cast<int>(stops - std::exchange(m_restartsSeen, stops));
    }

    /// Returns whether the store was written since the last call of this or takeSaved().
    [[nodiscard]] bool wasSaved() { return QFile::remove(preferencesPath()); }

    /// Returns what was saved since the last call of this or wasSaved(). Null if nothing was saved.
    [[nodiscard]] std::unique_ptr<const FolderState> takeSaved()
    {
        if (!QFile::exists(preferencesPath())) return nullptr;
        FolderStore reader;
        auto saved = std::make_unique<const FolderState>(reader.loadState({}));
        QFile::remove(preferencesPath());
        return saved;
    }

    /// Processes the pending events of the main loop.
    void settle() const
    {
        // A restart takes three passes of the main loop.
        for (int turn = 0; turn < 5; ++turn)
            QCoreApplication::processEvents();
    }

private:
    qsizetype m_restartsSeen = 0;
};

} // namespace harbex::test
