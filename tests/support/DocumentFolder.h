#pragma once

#include "store/Bookmark.h"
#include "support/EngineFiles.h"

#include <QByteArray>

#include <cerrno>
#include <filesystem>
#include <string>
#include <string_view>
#include <sys/xattr.h>

namespace harbex::test
{

/// A folder as the document portal hands it to a sandboxed program, with the attribute by which the portal
/// tells the real path. It is on an ordinary file system, in a new XDG_RUNTIME_DIR.
class DocumentFolder
{
public:
    /// Creates it at `place` in XDG_RUNTIME_DIR. `hostPath` is the attribute. Check isPossible().
    explicit DocumentFolder(std::string_view hostPath, const std::string& place = "doc/1a2b3c4d/Scans")
        : m_path(m_runtimeFolder.path() + '/' + place)
    {
        qputenv("XDG_RUNTIME_DIR", QByteArray::fromStdString(m_runtimeFolder.path()));
        std::filesystem::create_directories(m_path);
        m_isMade = ::setxattr(m_path.c_str(), "user.document-portal.host-path", hostPath.data(),
                              hostPath.size(), 0) == 0;
        if (!m_isMade && errno != EOPNOTSUPP) qFatal("no attribute at %s", m_path.c_str());
    }

    /// Returns false if the file system of temporary files keeps no attributes.
    [[nodiscard]] bool isPossible() const { return m_isMade; }

    [[nodiscard]] const std::string& path() const { return m_path; }
    [[nodiscard]] FileUrl url() const { return FileUrl::fromPath(m_path); }
    [[nodiscard]] QByteArray bookmark() const { return *createBookmark(m_path); }

private:
    ScratchFolder m_runtimeFolder;
    std::string m_path;
    bool m_isMade = false;
};

} // namespace harbex::test
