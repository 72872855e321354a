#include "e2e/HarbexRun.h"

#include <QFile>

#include <algorithm>
#include <csignal>
#include <sys/stat.h>

namespace harbex::test
{

namespace
{

constexpr int patienceMilliseconds = 30000;

QByteArray contentOf(const QString& name)
{
    return "The content of " + name.toUtf8();
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
    m_process = &m_session.start(QStringLiteral(HARBEX_PROGRAM));
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
    return m_session.window(QStringLiteral("frame"), QStringLiteral("Harbex"));
}

QList<Accessible> HarbexRun::controls(const char* role, const char* name) const
{
    return window().all(QString::fromLatin1(role), QString::fromLatin1(name));
}

Accessible HarbexRun::control(const char* role, const char* name) const
{
    return window().find(QString::fromLatin1(role), QString::fromLatin1(name));
}

Accessible HarbexRun::dialog() const
{
    return m_session.window(QStringLiteral("dialog"));
}

bool HarbexRun::choose(const Accessible& picker, const char* choice) const
{
    const QString wanted = QString::fromLatin1(choice);
    Accessible row;
    const auto isOffered = [&] { return bool(row = picker.find(QStringLiteral("list item"), wanted)); };
    return picker.press() && QTest::qWaitFor(isOffered, patienceMilliseconds) &&
           m_session.click(row.extents()) &&
           QTest::qWaitFor([&] { return picker.text() == wanted; }, patienceMilliseconds);
}

bool HarbexRun::answerDialog(const QString& path) const
{
    const auto line = [this] { return dialog().find(QStringLiteral("text"), QStringLiteral("Directory:")); };
    const auto isReady = [&] { return line().has(Accessible::State::focused); };
    return QTest::qWaitFor(isReady, patienceMilliseconds) && m_session.type(path) &&
           QTest::qWaitFor([&] { return line().text() == path; }, patienceMilliseconds) &&
           m_session.press({QStringLiteral("Return")}) &&
           QTest::qWaitFor([this] { return !dialog(); }, patienceMilliseconds);
}

bool HarbexRun::chooseFromMenu(const QRect& icon, MenuItem item, DesktopSession::Button button) const
{
    QRect menu;
    const auto isOpen = [&] { return !(menu = m_session.openMenu()).isEmpty(); };
    if (!m_session.click(icon, button) || !QTest::qWaitFor(isOpen, patienceMilliseconds)) return false;
    // "Open Harbex" is in the upper half of the menu, "Quit" in the lower half.
    QRect row(menu.topLeft(), QSize(menu.width(), menu.height() / 2));
    if (item == MenuItem::quit) row.translate(0, row.height());
    return m_session.click(row) && QTest::qWaitFor([&] { return !isOpen(); }, patienceMilliseconds);
}

bool HarbexRun::tabTo(const Accessible& control) const
{
    constexpr int moreThanThereAre = 30;
    for (int i = 0; i < moreThanThereAre; ++i) {
        const Accessible former = focused();
        if (former == control) return true;
        const auto hasMoved = [&] { return focused() && focused() != former; };
        if (!m_session.press({QStringLiteral("Tab")}) || !QTest::qWaitFor(hasMoved, patienceMilliseconds))
            return false;
    }
    return false;
}

Accessible HarbexRun::focused() const
{
    // The current row of a list reports focus even when another control has it.
    return window().find([](const Accessible& each) {
        return each.has(Accessible::State::focused) && each.role() != QLatin1String("list item");
    });
}

bool HarbexRun::closeWindow() const
{
    const auto isActive = [this] { return window().has(Accessible::State::active); };
    return QTest::qWaitFor(isActive, patienceMilliseconds) && m_session.press({QStringLiteral("alt+F4")}) &&
           QTest::qWaitFor([this] { return !window(); }, patienceMilliseconds);
}

bool HarbexRun::watches(const QString& folder) const
{
    struct stat status = {};
    if (::stat(folder.toUtf8().constData(), &status) != 0) return false;
    const QByteArray inode = " ino:" + QByteArray::number(qulonglong(status.st_ino), 16) + ' ';
    const QDir descriptors(QStringLiteral("/proc/%1/fdinfo").arg(processId()));
    const QStringList names = descriptors.entryList(QDir::Files);
    return std::ranges::any_of(names, [&](const QString& name) {
        const QByteArray lines = read(descriptors.filePath(name)).value_or(QByteArray());
        return lines.contains("inotify wd:") && lines.contains(inode);
    });
}

bool HarbexRun::drop(const QString& name) const
{
    QFile file(inbox() + u'/' + name + QStringLiteral(".part"));
    return file.open(QIODevice::WriteOnly) && file.write(contentOf(name)) > 0 && file.flush() &&
           file.rename(inbox() + u'/' + name);
}

bool HarbexRun::wasMoved(const QString& name) const
{
    return read(sorted() + u'/' + name) == contentOf(name) && !QFile::exists(inbox() + u'/' + name);
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
