#pragma once

#include "base/FileDescriptor.h"

#include <QStringList>

namespace harbex::test
{

/// Lets standard output go somewhere else for the length of a scope. What Qt Test reports goes there too, so
/// check only when it has ended.
class RedirectedOutput
{
public:
    /// To what is open as `target`; a negative one closes standard output.
    explicit RedirectedOutput(int target);
    ~RedirectedOutput() { restore(); }
    RedirectedOutput(const RedirectedOutput&) = delete;
    RedirectedOutput& operator=(const RedirectedOutput&) = delete;

    /// Ends the redirection before the scope does.
    void restore();

private:
    FileDescriptor m_original;
};

/// Catches the lines that are written to standard output.
class CapturedOutput
{
public:
    CapturedOutput();

    /// Ends the catching and gives the lines without their ends. A last line that has no end is marked as
    /// such.
    [[nodiscard]] QStringList lines();

private:
    FileDescriptor m_file;
    RedirectedOutput m_redirection;
};

} // namespace harbex::test
