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

/// The program itself in a desktop session, with an empty configuration and two folders in the home: "Inbox"
/// for what arrives, and "Sorted". It is used as a person does, by what its window and its icon show.
class HarbexRun
{
public:
    explicit HarbexRun(DesktopSession& session);

    /// Starts the program. Everything before it is there for the program to find.
    void start();

    [[nodiscard]] bool isRunning() const { return m_process->state() == QProcess::Running; }
    /// Its exit status once it has ended; nothing when it goes on, or was killed.
    [[nodiscard]] std::optional<int> exitStatus();
    void signal(int number) const;
    [[nodiscard]] qint64 processId() const { return m_process->processId(); }

    [[nodiscard]] static QString inbox() { return QDir::home().filePath(QStringLiteral("Inbox")); }
    [[nodiscard]] static QString sorted() { return QDir::home().filePath(QStringLiteral("Sorted")); }

    /// Its main window; empty while it is closed.
    [[nodiscard]] Accessible window() const;
    /// What of that role and name is shown in the main window, in order, or the first of it.
    [[nodiscard]] QList<Accessible> controls(const char* role, const char* name) const;
    [[nodiscard]] Accessible control(const char* role, const char* name) const;
    /// Qt's own folder dialog; empty while there is none.
    [[nodiscard]] Accessible dialog() const;

    /// Chooses in a picker, which assistive technology opens, by a click. Whether it shows the choice then.
    [[nodiscard]] bool choose(const Accessible& picker, const char* choice) const;
    /// Types a path into Qt's own folder dialog, once that is there, and confirms. Whether it is gone then.
    [[nodiscard]] bool answerDialog(const QString& path) const;
    /// Clicks on the icon, which opens the menu, and on one of its two items. Whether the menu is gone then.
    enum class MenuItem { open, quit };
    [[nodiscard]] bool chooseFromMenu(const QRect& icon, MenuItem item,
                                      DesktopSession::Button button = DesktopSession::Button::left) const;
    /// What in the main window has the keyboard's attention; empty while another window has.
    [[nodiscard]] Accessible focused() const;
    /// Presses Tab until the control has the keyboard's attention. Whether it gets it.
    [[nodiscard]] bool tabTo(const Accessible& control) const;
    /// Closes the window as its close button does. Whether it is closed then.
    [[nodiscard]] bool closeWindow() const;

    /// Whether the inotify instance of the program watches this folder.
    [[nodiscard]] bool watches(const QString& folder) const;

    /// Puts a file into the inbox as a download does, under a name that is not left alone.
    [[nodiscard]] bool drop(const QString& name) const;
    /// Whether it is where it was moved to, with its content, and nowhere else.
    [[nodiscard]] bool wasMoved(const QString& name) const;

    /// Stores one rule for the inbox, which takes everything to "Sorted".
    void storeRuleForAll() const;
    /// What is stored.
    [[nodiscard]] static FolderState stored();

private:
    DesktopSession& m_session;
    QProcess* m_process = nullptr;
};

} // namespace harbex::test
