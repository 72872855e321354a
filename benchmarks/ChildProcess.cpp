#include "ChildProcess.h"

#include "Measure.h"

#include <csignal>
#include <sys/prctl.h>
#include <sys/wait.h>

namespace harbex::bench
{

ChildProcess::ChildProcess(const char* program, const QStringList& arguments)
{
    m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_process.setStandardOutputFile(QProcess::nullDevice());
    // The child must not outlive a benchmark that fails or is interrupted.
    m_process.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGKILL); });
    m_process.start(QString::fromUtf8(program), arguments);
    if (!m_process.waitForStarted()) fail(program, "does not start");
}

ChildProcess::~ChildProcess()
{
    m_process.terminate();
    m_process.waitForFinished();
}

void ChildProcess::waitUntilStopped() const
{
    const auto pid = static_cast<id_t>(m_process.processId());
    siginfo_t info;
    // WNOWAIT leaves the exit status for QProcess.
    if (::waitid(P_PID, pid, &info, WSTOPPED | WEXITED | WNOWAIT) != 0 || info.si_code != CLD_STOPPED)
        fail(m_process.program().toStdString(), "has ended");
    // Consumes the report. The kernel reports the stop once, after the last thread has stopped.
    ::waitid(P_PID, pid, &info, WSTOPPED | WNOHANG);
}

void ChildProcess::stop() const
{
    ::kill(static_cast<pid_t>(m_process.processId()), SIGSTOP);
    waitUntilStopped();
}

void ChildProcess::resume() const
{
    ::kill(static_cast<pid_t>(m_process.processId()), SIGCONT);
}

} // namespace harbex::bench
