#include "store/Document.h"

#include <QByteArray>

#include <array>
#include <climits>
#include <cstring>
#include <sys/xattr.h>

namespace harbex
{

std::optional<std::string> pathInDocument(const std::string& path)
{
    const std::string runtimeFolder = qgetenv("XDG_RUNTIME_DIR").toStdString();
    const std::string documents = runtimeFolder + "/doc/";
    if (runtimeFolder.empty() || !path.starts_with(documents)) return std::nullopt;
    const size_t endOfId = path.find('/', documents.size());
    if (endOfId == std::string::npos || endOfId + 1 == path.size()) return std::nullopt;
    return path.substr(endOfId + 1);
}

std::optional<std::string> hostPathOf(const std::string& path)
{
    // Outside of a document anybody can set this attribute to any text.
    if (!pathInDocument(path)) return std::nullopt;
    std::array<char, PATH_MAX> text;
    const ssize_t size = ::getxattr(path.c_str(), "user.document-portal.host-path", text.data(), text.size());
    if (size <= 0) return std::nullopt;
    // The value ends with a NUL.
    return std::string(text.data(), ::strnlen(text.data(), static_cast<size_t>(size)));
}

} // namespace harbex
