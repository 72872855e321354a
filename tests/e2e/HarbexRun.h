#pragma once

#include "e2e/Accessible.h"
#include "e2e/DesktopSession.h"
#include "model/WatchedFolder.h"
#include "store/FolderStore.h"

#include <QByteArray>
#include <QDir>
#include <QProcess>
#include <QString>

#include <optional>

namespace harbex::test
{

/// The real program in a desktop session, with an empty configuration and two folders in the home: "Inbox"
/// and "Sorted". Tests use it through its window and its tray icon.
class HarbexRun
{
public:
    explicit HarbexRun(DesktopSession& session);

    /// Starts the program. Prepare files and configuration before this call.
    void start();

    [[nodiscard]] bool isRunning() const { return m_process->state() == QProcess::Running; }
    /// Returns the exit status. Empty if the program is still running or was killed.
    [[nodiscard]] std::optional<int> exitStatus();
    void signal(int number) const;

    [[nodiscard]] static QString inbox() { return QDir::home().filePath(QStringLiteral("Inbox")); }
    [[nodiscard]] static QString sorted() { return QDir::home().filePath(QStringLiteral("Sorted")); }

    /// Returns the main window. Empty while it is closed.
    [[nodiscard]] Accessible window() const;
    /// Returns whether the main window is open and in front of the other windows.
    [[nodiscard]] bool isInFront() const { return window().has(Accessible::State::active); }
    /// Returns whether the main window is left out of the taskbar. Empty while it is closed. X11 only.
    [[nodiscard]] std::optional<bool> isLeftOutOfTaskbar() const;
    /// Returns the visible controls of the main window with this role and name, or the first of them.
    [[nodiscard]] QList<Accessible> controls(const char* role, const char* name) const;
    [[nodiscard]] Accessible control(const char* role, const char* name) const;
    /// Returns Qt's own folder dialog. Empty if it is not open.
    [[nodiscard]] Accessible dialog() const;

    /// Opens a picker through the accessibility bus and clicks a choice. Returns whether the picker then
    /// shows it.
    [[nodiscard]] bool choose(const Accessible& picker, const char* choice) const;
    /// Waits for Qt's own folder dialog, types a path and presses Return. Returns whether the dialog has
    /// closed.
    [[nodiscard]] bool answerDialog(const QString& path) const;
    /// Clicks the icon to open the menu, then clicks one of its two items. Returns whether the menu has
    /// closed.
    enum class MenuItem { open, quit };
    [[nodiscard]] bool chooseFromMenu(const QRect& icon, MenuItem item,
                                      DesktopSession::Button button = DesktopSession::Button::left) const;
    /// Returns the control of the main window that has the keyboard focus. Empty if another window has the
    /// focus.
    [[nodiscard]] Accessible focused() const;
    /// Presses Tab until the control has the keyboard focus. Returns false if it does not get the focus.
    [[nodiscard]] bool tabTo(const Accessible& control) const;
    /// Closes the active main window with Alt+F4. Returns whether it has closed.
    [[nodiscard]] bool closeWindow() const;

    /// Returns whether the program has an inotify watch on this folder.
    [[nodiscard]] bool watches(const QString& folder) const;

    /// Puts a file into the inbox like a download: writes "NAME.part", then renames it to NAME.
    [[nodiscard]] bool drop(const char* name) const;
    /// Returns whether the file is in "Sorted" with its content, and no longer in the inbox.
    [[nodiscard]] bool wasMoved(const char* name) const;

    /// Stores one rule for the inbox that moves everything to "Sorted".
    void storeRuleForAll() const;
    /// Returns the stored state.
    [[nodiscard]] static FolderState stored();

private:
    DesktopSession& m_session;
    QProcess* m_process = nullptr;
};

} // namespace harbex::test
