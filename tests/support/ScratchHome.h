#pragma once

#include <QTemporaryDir>

#include <string>

namespace harbex::test
{

/// A scratch home directory. HOME and the XDG variables point into it, and the address of the session bus is
/// invalid. The destructor removes the directory. Create it before any code asks Qt for standard paths.
class ScratchHome
{
public:
    ScratchHome();

    /// Returns the path of the home, as raw bytes.
    [[nodiscard]] std::string path() const { return m_directory.path().toStdString(); }

private:
    QTemporaryDir m_directory;
};

} // namespace harbex::test
