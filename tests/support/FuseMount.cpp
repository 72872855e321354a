#include "support/FuseMount.h"

#include "support/EngineFiles.h"
#include "support/Eventually.h"

#include <QCoreApplication>
#include <QStandardPaths>

#include <csignal>
#include <cstdio>
#include <linux/magic.h>
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

} // namespace

FuseMount::FuseMount(const std::string& real, std::string place) : FuseMount(std::move(place))
{
    const QString reason = mount(real);
    if (!reason.isEmpty()) qFatal("%s", qPrintable(reason));
}

FuseMount::~FuseMount()
{
    // A mount stays when its server is killed. Quiet, because there is none if FUSE is not possible.
    QProcess::execute(QStringLiteral("fusermount"),
                      {QStringLiteral("-quz"), QString::fromStdString(m_place)});
    killServer();
}

QString FuseMount::mount(const std::string& real)
{
    const QString bindfs = QStandardPaths::findExecutable(QStringLiteral("bindfs"));
    if (bindfs.isEmpty()) return QStringLiteral("bindfs is not installed");
    m_server.setProcessChannelMode(QProcess::MergedChannels);
    m_server.start(bindfs, {QStringLiteral("-f"), QStringLiteral("--no-allow-other"),
                            QString::fromStdString(real), QString::fromStdString(m_place)});
    // After this call the number of open descriptors stays the same.
    m_server.waitForStarted();
    const bool isReady = eventually([this] {
        return isServed(m_place) || (m_server.waitForFinished(0), m_server.state() == QProcess::NotRunning);
    });
    if (isReady && isServed(m_place)) return {};
    return QStringLiteral("no FUSE file system can be mounted: ") +
           QString::fromUtf8(m_server.readAll()).simplified();
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
#ifdef HARBEX_TESTS_START_NO_PROGRAM
    return QStringLiteral("a test with this sanitizer starts no program");
#else
    const ScratchFolder scratch;
    return FuseMount(scratch.makeFolder("place")).mount(scratch.makeFolder("real"));
#endif
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
        if (!eventually([&] { return stop.stop_requested(); }, std::chrono::minutes(1))) end();
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
