#include "EngineRig.h"

#include "Measure.h"
#include "fs/DirectoryListing.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace harbex::bench
{

namespace
{

std::filesystem::path fileName(const std::string& prefix, int i)
{
    return prefix + std::to_string(i) + ".jpg";
}

} // namespace

ScratchFolder::ScratchFolder()
{
    std::string name = (std::filesystem::current_path() / "bench-XXXXXX").string();
    if (!::mkdtemp(name.data())) std::abort();
    m_path = name;
}

ScratchFolder::~ScratchFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::filesystem::path ScratchFolder::folder(const std::string& name) const
{
    std::filesystem::create_directories(m_path / name);
    return m_path / name;
}

void makeFiles(const std::filesystem::path& folder, const std::string& prefix, int count)
{
    for (int i = 0; i < count; ++i) {
        const FileDescriptor file(
            ::open((folder / fileName(prefix, i)).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
        if (::write(file.get(), "x", 1) != 1) std::abort();
    }
}

void renameFiles(const std::filesystem::path& from, const std::filesystem::path& to,
                 const std::string& prefix, int count, int first)
{
    for (int i = first; i < count; ++i) {
        const std::filesystem::path name = fileName(prefix, i);
        if (std::rename((from / name).c_str(), (to / name).c_str()) != 0) std::abort();
    }
}

WatchedFolder picturesRule(const std::filesystem::path& folder, const std::filesystem::path& destination)
{
    FilterRule rule;
    rule.field = RuleField::kind;
    rule.destination = FileUrl::fromPath(destination.native());
    return {.url = FileUrl::fromPath(folder.native()), .bookmarkData = {}, .rules = {rule}};
}

size_t scan(const std::filesystem::path& folder, NameSnapshot& known)
{
    Outcome<DirectoryListing> listing = DirectoryListing::open(folder.native());
    NameSnapshot::Update update(known);
    if (!listing || !listing->forEachName([&](auto name) { update.add(name); })) std::abort();
    if (update.isUnchanged()) return 0;
    const size_t count = update.newNames().size();
    known = update.takeCurrent();
    return count;
}

EngineRig::EngineRig(const std::vector<WatchedFolder>& folders)
{
    QObject::connect(&m_engine, &DownloadImageRedirector::logsChanged, [this] {
        const QString& line = m_engine.logs().front();
        if (line.contains(u"] Moved ")) ++m_moved;
        if (line.contains(u"] Move failed ") || line.contains(u"] Skipped busy ")) ++m_givenUp;
        m_mostThreads = std::max(m_mostThreads, m_engine.threadCount());
    });
    m_engine.start(folders);
    while (!m_engine.isRunning())
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
}

void EngineRig::waitForMoved(int count)
{
    while (m_moved < count)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
}

void EngineRig::waitForEnded(int count)
{
    while (m_moved + m_givenUp < count)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
}

void EngineRig::settle(std::chrono::milliseconds time)
{
    QEventLoop loop;
    QTimer::singleShot(time, &loop, &QEventLoop::quit);
    loop.exec();
}

} // namespace harbex::bench
