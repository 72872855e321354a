#include "support/FuseMount.h"

#include "support/EngineFiles.h"
#include "support/Eventually.h"

#include <QCoreApplication>
#include <QStandardPaths>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <linux/magic.h>
#include <mutex>
#include <stop_token>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <utility>

namespace harbex::test
{

namespace
{

bool isServed(const std::string& folder)
{
    struct statfs volume = {};
    return ::statfs(folder.c_str(), &volume) == 0 && volume.f_type == FUSE_SUPER_MAGIC;
}

/// Starts the server. Returns the reason for a failure, or an empty text.
QString mountAt(QProcess& server, const std::string& real, const std::string& place)
{
    const QString bindfs = QStandardPaths::findExecutable(QStringLiteral("bindfs"));
    if (bindfs.isEmpty()) return QStringLiteral("bindfs is not installed");
    server.setProcessChannelMode(QProcess::MergedChannels);
    server.start(bindfs, {QStringLiteral("-f"), QStringLiteral("--no-allow-other"),
                          QString::fromStdString(real), QString::fromStdString(place)});
    // After this call the number of open descriptors stays the same.
    server.waitForStarted();
    const bool isReady = eventually([&] {
        return isServed(place) || (server.waitForFinished(0), server.state() == QProcess::NotRunning);
    });
    if (isReady && isServed(place)) return {};
    return QStringLiteral("no FUSE file system can be mounted: ") +
           QString::fromUtf8(server.readAll()).simplified();
}

void unmount(QProcess& server, const std::string& place)
{
    QProcess::execute(QStringLiteral("fusermount"),
                      {QStringLiteral("-u"), QStringLiteral("-z"), QString::fromStdString(place)});
    server.kill();
    server.waitForFinished();
}

} // namespace

FuseMount::FuseMount(const std::string& real, std::string place) : m_place(std::move(place))
{
    const QString reason = mountAt(m_server, real, m_place);
    if (!reason.isEmpty()) qFatal("%s", qPrintable(reason));
}

FuseMount::~FuseMount()
{
    unmount(m_server, m_place);
}

void FuseMount::killServer()
{
    m_server.kill();
    m_server.waitForFinished();
}

bool FuseMount::isPossible(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    const QString reason = reasonAgainst();
    if (!reason.isEmpty()) std::fprintf(stderr, "not possible here: %s\n", qPrintable(reason));
    return reason.isEmpty();
}

QString FuseMount::reasonAgainst()
{
    const ScratchFolder scratch;
    const std::string place = scratch.makeFolder("place");
    QProcess server;
    QString reason = mountAt(server, scratch.makeFolder("real"), place);
    if (reason.isEmpty()) unmount(server, place);
    return reason;
}

FuseMount::Silence::Silence(const FuseMount& folder)
    : m_server(static_cast<pid_t>(folder.m_server.processId()))
{
    ::kill(m_server, SIGSTOP);
    // The kernel reports the stop after all threads have stopped.
    int status = 0;
    if (::waitpid(m_server, &status, WUNTRACED) != m_server || !WIFSTOPPED(status))
        qFatal("a server does not stop");
    m_guard = std::jthread([this](const std::stop_token& stop) {
        std::mutex mutex;
        std::condition_variable_any changed;
        std::unique_lock lock(mutex);
        if (!changed.wait_for(lock, stop, std::chrono::minutes(1), [&] { return stop.stop_requested(); }))
            end();
    });
}

FuseMount::Silence::~Silence()
{
    end();
}

void FuseMount::Silence::end()
{
    if (m_holds.exchange(false)) ::kill(m_server, SIGCONT);
}

} // namespace harbex::test
