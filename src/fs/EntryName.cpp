#include "fs/EntryName.h"

namespace harbex
{

namespace
{

/// Leaves "/" unchanged.
std::string_view withoutTrailingSlashes(std::string_view path)
{
    while (path.size() > 1 && path.back() == '/')
        path.remove_suffix(1);
    return path;
}

} // namespace

std::string_view lastPathComponent(std::string_view path)
{
    path = withoutTrailingSlashes(path);
    if (path == "/") return path;
    const size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

std::string parentPath(std::string_view path)
{
    path = withoutTrailingSlashes(path);
    const size_t slash = path.rfind('/');
    if (slash == std::string_view::npos) return path.empty() ? "" : ".";
    return std::string(withoutTrailingSlashes(path.substr(0, slash + 1)));
}

std::string_view pathExtension(std::string_view name)
{
    const size_t dot = name.rfind('.');
    if (dot == std::string_view::npos || dot == 0) return {};
    return name.substr(dot + 1);
}

} // namespace harbex
