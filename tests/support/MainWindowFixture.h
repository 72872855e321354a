#pragma once

#include "support/ContentStateFixture.h"
#include "support/Widgets.h"
#include "ui/MainWindow.h"

namespace harbex::test
{

/// The window over a store with folders, not opened yet.
struct MainWindowFixture : ContentStateFixture {
    explicit MainWindowFixture(std::vector<WatchedFolder> folders = {makeFolder("A", 3)})
    {
        const QUuid first = folders.at(0).id;
        store.saveState({std::move(folders), first});
        window = std::make_unique<MainWindow>(state);
    }

    /// Opens the window and waits until it is active.
    void open() const
    {
        window->open();
        QVERIFY(QTest::qWaitForWindowActive(window.get()));
    }

    /// Opens the window, resets wasTouched() and restarts(), and makes an edit that only a save writes into
    /// the store.
    void openAndEdit()
    {
        open();
        (void)restarts();
        m_loads.emplace(&state, &ContentState::foldersChanged);
        m_content = storedText();
        state.setValue(rule(0).id, QStringLiteral("not saved yet"));
    }

    /// Returns whether the store was read or written since openAndEdit().
    [[nodiscard]] bool wasTouched() const { return m_loads->count() > 0 || storedText() != m_content; }

    std::unique_ptr<MainWindow> window;

private:
    std::optional<QSignalSpy> m_loads;
    QByteArray m_content;
};

} // namespace harbex::test
