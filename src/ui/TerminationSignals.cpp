#include "ui/TerminationSignals.h"

#include <array>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace harbex
{

namespace
{

constexpr std::array signals{SIGTERM, SIGINT, SIGHUP};

// Global, because a signal handler has no context argument. Written before the handlers are installed.
volatile sig_atomic_t writeEnd = -1;

void wakeMainThread(int)
{
    const int savedErrno = errno;
    const char byte = 0;
    // A full pipe already contains an unread byte, which is enough.
    if (::write(writeEnd, &byte, 1) < 0) {
    }
    errno = savedErrno;
}

} // namespace

TerminationSignals::TerminationSignals(QObject* parent) : QObject(parent)
{
    std::array<int, 2> ends{};
    // Without a pipe the signals keep their default action and end the process.
    if (::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) return;
    m_readEnd = FileDescriptor(ends[0]);
    m_writeEnd = FileDescriptor(ends[1]);
    writeEnd = m_writeEnd.get();

    m_notifier = std::make_unique<QSocketNotifier>(m_readEnd.get(), QSocketNotifier::Read);
    connect(m_notifier.get(), &QSocketNotifier::activated, this, [this] {
        char byte = 0;
        if (::read(m_readEnd.get(), &byte, 1) == 1) Q_EMIT received();
    });

    struct sigaction action = {};
    action.sa_handler = wakeMainThread;
    action.sa_flags = SA_RESTART;
    for (const int signal : signals) {
        struct sigaction inherited = {};
        ::sigaction(signal, nullptr, &inherited);
        // nohup, and a shell that starts a program in the background, ask for this.
        if (inherited.sa_handler != SIG_IGN) ::sigaction(signal, &action, nullptr);
    }
}

TerminationSignals::~TerminationSignals()
{
    if (!m_writeEnd) return;
    for (const int signal : signals) {
        struct sigaction present = {};
        ::sigaction(signal, nullptr, &present);
        if (present.sa_handler == wakeMainThread) std::signal(signal, SIG_DFL);
    }
}

} // namespace harbex
