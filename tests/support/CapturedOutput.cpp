#include "support/CapturedOutput.h"

#include "support/EngineFiles.h"

#include <QtGlobal>

#include <cstdio>
#include <fcntl.h>
#include <string>
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

QByteArrayList CapturedOutput::lines() const
{
    const std::string path = "/proc/self/fd/" + std::to_string(m_file.get());
    QByteArrayList lines = contents(path).split('\n');
    if (lines.last().isEmpty())
        lines.removeLast();
    else
        lines.last() += " (no line end)";
    return lines;
}

void reportApartFromStandardOutput()
{
    const int report = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    std::FILE* const stream = ::fdopen(report, "w");
    if (!stream) qFatal("no copy of standard output");
    // Qt Test uses this stream from its start on. In glibc, stdout is a variable that can be set.
    stdout = stream;
}

} // namespace harbex::test
