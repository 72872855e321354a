#include "e2e/HarbexRun.h"

#include <QFile>

#include <algorithm>
#include <csignal>
#include <functional>
#include <sys/stat.h>

namespace harbex::test
{

namespace
{

/// Waits until the condition is true. Returns false on timeout.
bool eventually(const std::function<bool()>& condition)
{
    return QTest::qWaitFor(condition, 30000);
}

std::optional<QByteArray> read(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? std::optional(file.readAll()) : std::nullopt;
}

} // namespace

HarbexRun::HarbexRun(DesktopSession& session) : m_session(session)
{
    QFile::remove(FolderStore().path());
    for (const QString& folder : {inbox(), sorted()}) {
        QDir(folder).removeRecursively();
        if (!QDir().mkpath(folder)) qFatal("no folder %s", qPrintable(folder));
    }
}

void HarbexRun::start()
{
    m_process = &m_session.start(HARBEX_PROGRAM);
}

std::optional<int> HarbexRun::exitStatus()
{
    if (isRunning() || m_process->exitStatus() != QProcess::NormalExit) return std::nullopt;
    return m_process->exitCode();
}

void HarbexRun::signal(int number) const
{
    ::kill(static_cast<pid_t>(m_process->processId()), number);
}

Accessible HarbexRun::window() const
{
    return m_session.window("frame", "Harbex");
}

std::optional<bool> HarbexRun::isLeftOutOfTaskbar() const
{
    const auto state = m_session.run("xprop", words("-name Harbex _NET_WM_STATE"));
    return state ? std::optional(state->contains("_NET_WM_STATE_SKIP_TASKBAR")) : std::nullopt;
}

QList<Accessible> HarbexRun::controls(const char* role, const char* name) const
{
    return window().all(role, name);
}

Accessible HarbexRun::control(const char* role, const char* name) const
{
    return window().find(role, name);
}

Accessible HarbexRun::dialog() const
{
    return m_session.window("dialog");
}

bool HarbexRun::choose(const Accessible& picker, const char* choice) const
{
    Accessible row;
    const auto isOffered = [&] { return bool(row = picker.find("list item", choice)); };
    return picker.press() && eventually(isOffered) && m_session.click(row.extents()) &&
           eventually([&] { return picker.text() == choice; });
}

bool HarbexRun::answerDialog(const QString& path) const
{
    const auto line = [this] { return dialog().find("text", "Directory:"); };
    return eventually([&] { return line().has(Accessible::State::focused); }) && m_session.type(path) &&
           eventually([&] { return line().text() == path.toUtf8(); }) && m_session.press("Return") &&
           eventually([this] { return !dialog(); });
}

bool HarbexRun::chooseFromMenu(const QRect& icon, MenuItem item, DesktopSession::Button button) const
{
    QRect menu;
    const auto isOpen = [&] { return !(menu = m_session.openMenu()).isEmpty(); };
    if (!m_session.click(icon, button) || !eventually(isOpen)) return false;
    // "Open Harbex" is in the upper half of the menu, "Quit" in the lower half.
    QRect row(menu.topLeft(), QSize(menu.width(), menu.height() / 2));
    if (item == MenuItem::quit) row.translate(0, row.height());
    return m_session.click(row) && eventually([&] { return !isOpen(); });
}

bool HarbexRun::tabTo(const Accessible& control) const
{
    constexpr int moreThanThereAre = 30;
    for (int i = 0; i < moreThanThereAre; ++i) {
        const Accessible former = focused();
        if (former == control) return true;
        const auto hasMoved = [&] { return focused() && focused() != former; };
        if (!m_session.press("Tab") || !eventually(hasMoved)) return false;
    }
    return false;
}

Accessible HarbexRun::focused() const
{
    // The current row of a list reports focus even when another control has it.
    return window().find([](const Accessible& each) {
        return each.has(Accessible::State::focused) && each.role() != "list item";
    });
}

bool HarbexRun::closeWindow() const
{
    return eventually([this] { return isInFront(); }) && m_session.press("alt+F4") &&
           eventually([this] { return !window(); });
}

bool HarbexRun::watches(const QString& folder) const
{
    struct stat status = {};
    if (::stat(folder.toUtf8().constData(), &status) != 0) return false;
    const QByteArray inode = " ino:" + QByteArray::number(qulonglong(status.st_ino), 16) + ' ';
    const QDir descriptors(QStringLiteral("/proc/%1/fdinfo").arg(m_process->processId()));
    const QStringList names = descriptors.entryList(QDir::Files);
    return std::ranges::any_of(names, [&](const QString& name) {
        const QByteArray lines = read(descriptors.filePath(name)).value_or(QByteArray());
        return lines.contains("inotify wd:") && lines.contains(inode);
    });
}

bool HarbexRun::drop(const char* name) const
{
    const QString path = inbox() + u'/' + QLatin1String(name);
    QFile file(path + QStringLiteral(".part"));
    return file.open(QIODevice::WriteOnly) && file.write(name) > 0 && file.flush() && file.rename(path);
}

bool HarbexRun::wasMoved(const char* name) const
{
    return read(sorted() + u'/' + QLatin1String(name)) == name &&
           !QFile::exists(inbox() + u'/' + QLatin1String(name));
}

void HarbexRun::storeRuleForAll() const
{
    FilterRule all;
    all.destination = FileUrl::fromPath(sorted().toStdString());
    const WatchedFolder folder{
        .url = FileUrl::fromPath(inbox().toStdString()), .bookmarkData = {}, .rules = {all}};
    FolderStore().saveState({{folder}, folder.id});
}

FolderState HarbexRun::stored()
{
    return FolderStore().loadState({});
}

} // namespace harbex::test
