#pragma once

#include <QTemporaryDir>

namespace harbex::test
{

/// A scratch home directory. HOME and the XDG variables point into it, and the address of the session bus is
/// invalid. The destructor removes the directory. Create it before any code asks Qt for standard paths.
class ScratchHome
{
public:
    ScratchHome();

private:
    QTemporaryDir m_directory;
};

} // namespace harbex::test
