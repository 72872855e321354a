#pragma once

#include "base/FileDescriptor.h"

#include <QStringList>

namespace harbex::test
{

/// Redirects standard output until the end of a scope. The reports of Qt Test are redirected too, so check
/// results only after restore().
class RedirectedOutput
{
public:
    /// Redirects to the descriptor `target`. A negative `target` closes standard output.
    explicit RedirectedOutput(int target);
    ~RedirectedOutput() { restore(); }
    RedirectedOutput(const RedirectedOutput&) = delete;
    RedirectedOutput& operator=(const RedirectedOutput&) = delete;

    /// Ends the redirection early.
    void restore();

private:
    FileDescriptor m_original;
};

/// Captures the lines that are written to standard output.
class CapturedOutput
{
public:
    CapturedOutput();

    /// Ends the capture and returns the lines without line ends. If the last line has no line end, it is
    /// marked as such.
    [[nodiscard]] QStringList lines();

private:
    FileDescriptor m_file;
    RedirectedOutput m_redirection;
};

} // namespace harbex::test
