#pragma once

#include "e2e/DesktopSession.h"
#include "model/WatchedFolder.h"
#include "store/FolderStore.h"

#include <csignal>

namespace harbex::test
{

/// The real program in a desktop session, with an empty configuration and two folders in the home: "Inbox"
/// and "Sorted". Tests use it through its window and its tray icon.
class HarbexRun
{
public:
    explicit HarbexRun(DesktopSession& session) : m_session(session)
    {
        QFile::remove(FolderStore().path());
        for (const QString& folder : {inbox(), sorted()}) {
            QDir(folder).removeRecursively();
            if (!QDir().mkpath(folder)) qFatal("no folder %s", qPrintable(folder));
        }
    }

    /// Starts the program. Prepare files and configuration before this call.
    void start() { m_process = &m_session.start(HARBEX_PROGRAM); }

    /// Returns whether the program has ended by itself, with status 0.
    [[nodiscard]] bool hasEndedInOrder() const
    {
        return m_process->state() == QProcess::NotRunning &&
               m_process->exitStatus() == QProcess::NormalExit && m_process->exitCode() == 0;
    }

    void signal(int number) const { ::kill(static_cast<pid_t>(m_process->processId()), number); }

    [[nodiscard]] static QString inbox() { return QDir::home().filePath("Inbox"); }
    [[nodiscard]] static QString sorted() { return QDir::home().filePath("Sorted"); }

    /// Returns the main window. Empty while it is closed.
    [[nodiscard]] Accessible window() const { return m_session.window("frame", "Harbex"); }

    /// Returns whether the main window is open and in front of the other windows.
    [[nodiscard]] bool isInFront() const { return window().has(Accessible::State::active); }
    /// Returns whether the main window is left out of the taskbar. Empty while it is closed. X11 only.
    [[nodiscard]] std::optional<bool> isLeftOutOfTaskbar() const
    {
        const auto state = m_session.run("xprop", words("-name Harbex _NET_WM_STATE"));
        return state ? std::optional(state->contains("_NET_WM_STATE_SKIP_TASKBAR")) : std::nullopt;
    }

    /// Returns the visible controls of the main window with this role and name, or the first of them.
    [[nodiscard]] QList<Accessible> controls(const char* role, const char* name) const
    {
        return window().all(role, name);
    }

    [[nodiscard]] Accessible control(const char* role, const char* name) const
    {
        return window().find(role, name);
    }

    /// Opens a picker through the accessibility bus and clicks a choice. Returns whether the picker then
    /// shows it.
    [[nodiscard]] bool choose(const Accessible& picker, const char* choice) const
    {
        Accessible row;
        const auto isOffered = [&] { return bool(row = picker.find("list item", choice)); };
        return picker.press() && waitFor(isOffered) && m_session.click(row.extents()) &&
               waitFor([&] { return picker.text() == choice; });
    }

    /// Waits for Qt's own folder dialog, types a path and presses Return. Returns whether the dialog has
    /// closed.
    [[nodiscard]] bool answerDialog(const QString& path) const
    {
        const auto dialog = [this] { return m_session.window("dialog"); };
        const auto line = [&] { return dialog().find("text", "Directory:"); };
        return waitFor([&] { return line().has(Accessible::State::focused); }) && m_session.type(path) &&
               waitFor([&] { return line().text() == path.toUtf8(); }) && m_session.press("Return") &&
               waitFor([&] { return !dialog(); });
    }

    /// Clicks the icon to open the menu, then clicks one of its two items. Returns whether the menu has
    /// closed.
    enum class MenuItem { open, quit };
    [[nodiscard]] bool chooseFromMenu(const QRect& icon, MenuItem item,
                                      DesktopSession::Button button = DesktopSession::Button::left) const
    {
        QRect menu;
        const auto isOpen = [&] { return !(menu = m_session.openMenu()).isEmpty(); };
        if (!m_session.click(icon, button) || !waitFor(isOpen)) return false;
        // "Open Harbex" is in the upper half of the menu, "Quit" in the lower half.
        QRect row(menu.topLeft(), QSize(menu.width(), menu.height() / 2));
        if (item == MenuItem::quit) row.translate(0, row.height());
        return m_session.click(row) && waitFor([&] { return !isOpen(); });
    }

    /// Returns the control of the main window that has the keyboard focus. Empty if another window has the
    /// focus.
    [[nodiscard]] Accessible focused() const
    {
        // The current row of a list reports focus even when another control has it.
        return window().find([](const Accessible& each) {
            return each.has(Accessible::State::focused) && each.role() != "list item";
        });
    }

    /// Presses Tab until the control has the keyboard focus. Returns false if it does not get the focus.
    [[nodiscard]] bool tabTo(const Accessible& control) const
    {
        constexpr int moreThanThereAre = 30;
        for (int i = 0; i < moreThanThereAre; ++i) {
            const Accessible former = focused();
            if (former == control) return true;
            const auto hasMoved = [&] { return focused() && focused() != former; };
            if (!m_session.press("Tab") || !waitFor(hasMoved)) return false;
        }
        return false;
    }

    /// Closes the active main window with Alt+F4. Returns whether it has closed.
    [[nodiscard]] bool closeWindow() const
    {
        return waitFor([this] { return isInFront(); }) && m_session.press("alt+F4") &&
               waitFor([this] { return !window(); });
    }

    /// Puts a file into the inbox like a download: writes "NAME.part", then renames it to NAME.
    [[nodiscard]] bool drop(const char* name) const
    {
        const QString path = inbox() + u'/' + name;
        QFile file(path + ".part");
        return file.open(QIODevice::WriteOnly) && file.write(name) > 0 && file.flush() && file.rename(path);
    }

    /// Returns whether the file is in "Sorted", or in a folder in it, with its content and no longer in the
    /// inbox.
    [[nodiscard]] bool wasMoved(const char* name, const char* folder = ".") const
    {
        QFile file(sorted() + u'/' + folder + u'/' + name);
        return file.open(QIODevice::ReadOnly) && file.readAll() == name &&
               !QFile::exists(inbox() + u'/' + name);
    }

    /// Stores one rule for the inbox that moves everything to "Sorted".
    void storeRuleForAll() const
    {
        FilterRule all;
        all.destination = FileUrl::fromPath(sorted().toStdString());
        const WatchedFolder folder{
            .url = FileUrl::fromPath(inbox().toStdString()), .bookmarkData = {}, .rules = {all}};
        FolderStore().saveState({{folder}, folder.id});
    }

    /// Returns the stored state.
    [[nodiscard]] static FolderState stored() { return FolderStore().loadState({}); }

private:
    DesktopSession& m_session;
    QProcess* m_process = nullptr;
};

} // namespace harbex::test
