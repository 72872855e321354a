#include "support/CapturedOutput.h"

#include <QFile>

#include <cstdio>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace harbex::test
{

RedirectedOutput::RedirectedOutput(int target)
    : m_original(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1))
{
    if (!m_original) qFatal("no copy of standard output");
    std::fflush(stdout);
    const bool isDone = target < 0 ? ::close(STDOUT_FILENO) == 0 : ::dup2(target, STDOUT_FILENO) >= 0;
    if (!isDone) qFatal("standard output cannot be redirected");
}

void RedirectedOutput::restore()
{
    if (!m_original) return;
    std::fflush(stdout);
    if (::dup2(m_original.get(), STDOUT_FILENO) < 0) qFatal("standard output cannot be restored");
    m_original = FileDescriptor();
}

CapturedOutput::CapturedOutput()
    : m_file(::memfd_create("standard output", MFD_CLOEXEC)), m_redirection(m_file.get())
{
}

QStringList CapturedOutput::lines()
{
    m_redirection.restore();
    QFile file;
    if (!file.open(m_file.get(), QIODevice::ReadOnly) || !file.seek(0)) qFatal("the captured output is lost");
    QStringList lines = QString::fromUtf8(file.readAll()).split(u'\n');
    if (lines.last().isEmpty())
        lines.removeLast();
    else
        lines.last() += QStringLiteral(" (no line end)");
    return lines;
}

} // namespace harbex::test
