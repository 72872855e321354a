#pragma once

#include <QTemporaryDir>

#include <string>

namespace harbex::test
{

/// A home folder of the test's own: HOME and the XDG folders point into it, the session bus nowhere, and it
/// is removed at the end. Make it before anything asks Qt where things are.
class ScratchHome
{
public:
    ScratchHome();

    /// The path of the home, in raw bytes.
    [[nodiscard]] std::string path() const { return m_directory.path().toStdString(); }

private:
    QTemporaryDir m_directory;
};

} // namespace harbex::test
