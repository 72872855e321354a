#include "support/EngineOutput.h"

#include <QtGlobal>

#include <cstdio>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace harbex::test
{

EngineOutput::EngineOutput()
    : m_file(::memfd_create("standard output", MFD_CLOEXEC)), m_redirection(m_file.get())
{
}

QByteArrayList EngineOutput::lines() const
{
    struct stat data;
    if (::fstat(m_file.get(), &data) != 0) qFatal("the captured output is lost");
    QByteArray text(data.st_size, '\0');
    text.resize(::pread(m_file.get(), text.data(), static_cast<size_t>(text.size()), 0));
    QByteArrayList lines = text.split('\n');
    lines.removeLast();
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
