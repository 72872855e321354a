#pragma once

#include "base/FileDescriptor.h"

#include <QByteArrayList>

namespace harbex::test
{

/// Redirects standard output until the end of a scope.
class RedirectedOutput
{
public:
    /// Redirects to the descriptor `target`. A negative `target` closes standard output.
    explicit RedirectedOutput(int target);
    ~RedirectedOutput() { restore(); }

    /// Ends the redirection early.
    void restore();

private:
    FileDescriptor m_original;
};

/// Captures standard output until the end of a scope. The lines can be read at any time.
class CapturedOutput
{
public:
    CapturedOutput();

    /// Returns the lines printed so far, without line ends. If the last line has no line end, it is marked as
    /// such.
    [[nodiscard]] QByteArrayList lines() const;

private:
    FileDescriptor m_file;
    RedirectedOutput m_redirection;
};

/// Makes Qt Test report through its own descriptor. Call it before Qt Test reports anything.
void reportApartFromStandardOutput();

} // namespace harbex::test
