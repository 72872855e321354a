#pragma once

#include <QDir>
#include <QTemporaryDir>

namespace harbex::test
{

/// A scratch home directory. HOME and the XDG variables point into it, and the address of the session bus is
/// invalid. The destructor removes the directory. Create it before any code asks Qt for standard paths.
class ScratchHome
{
public:
    ScratchHome()
    {
        if (!m_directory.isValid()) qFatal("no scratch folder: %s", qPrintable(m_directory.errorString()));
        const auto point = [this](const char* variable, const QString& folder) {
            QDir(m_directory.path()).mkpath(folder);
            qputenv(variable, m_directory.filePath(folder).toUtf8());
        };
        point("HOME", QStringLiteral("."));
        point("XDG_CONFIG_HOME", QStringLiteral("config"));
        point("XDG_DATA_HOME", QStringLiteral("data"));
        point("XDG_CACHE_HOME", QStringLiteral("cache"));
        point("XDG_RUNTIME_DIR", QStringLiteral("runtime"));
        QFile::setPermissions(m_directory.filePath(QStringLiteral("runtime")),
                              QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent");
    }

private:
    QTemporaryDir m_directory;
};

} // namespace harbex::test
