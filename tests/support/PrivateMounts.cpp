#include "support/PrivateMounts.h"

#include <QtGlobal>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

namespace harbex::test
{

namespace
{

void require(bool done, const char* what)
{
    if (!done) qFatal("%s: %s", what, std::strerror(errno));
}

void write(const char* path, const std::string& text)
{
    std::ofstream file(path);
    file << text << std::flush;
    require(static_cast<bool>(file), path);
}

void mount(const char* source, const std::string& folder, const char* type, unsigned long flags,
           const std::string& options = {})
{
    require(::mount(source, folder.c_str(), type, flags, options.c_str()) == 0, "cannot mount");
}

} // namespace

void enterPrivateNamespace()
{
    if (tryPrivateNamespace()) return;
    std::fprintf(stderr, "not possible here: a namespace of one's own: %s\n", std::strerror(errno));
    // Skips destructors and exit handlers of the test program.
    std::_Exit(notPossibleHere);
}

bool tryPrivateNamespace()
{
    const uid_t user = ::getuid();
    const gid_t group = ::getgid();
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
    // The kernel requires this before an ordinary user may map groups.
    write("/proc/self/setgroups", "deny");
    write("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
    write("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
    mount("none", "/", nullptr, MS_REC | MS_PRIVATE);
    return true;
}

Mount Mount::memory(const std::string& folder, const std::string& options)
{
    mount("none", folder, "tmpfs", MS_NOSUID | MS_NODEV, options);
    return Mount(folder);
}

Mount Mount::again(const std::string& source, const std::string& folder)
{
    mount(source.c_str(), folder, nullptr, MS_BIND);
    return Mount(folder);
}

Mount Mount::overlay(const std::string& lower, const std::string& upper, const std::string& work,
                     const std::string& merged)
{
    mount("none", merged, "overlay", MS_NOSUID | MS_NODEV,
          "userxattr,lowerdir=" + lower + ",upperdir=" + upper + ",workdir=" + work);
    return Mount(merged);
}

Mount::~Mount()
{
    // Detaches even if the mount is in use, because the folder below it must be removed.
    if (m_isMounted) require(::umount2(m_folder.c_str(), MNT_DETACH) == 0, "cannot unmount");
}

void Mount::makeReadOnly() const
{
    mount("none", m_folder, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY | MS_NOSUID | MS_NODEV);
}

bool Mount::unmount()
{
    if (::umount2(m_folder.c_str(), 0) == 0) m_isMounted = false;
    return !m_isMounted;
}

void limitWatches(int count)
{
    write("/proc/sys/user/max_inotify_watches", std::to_string(count));
}

} // namespace harbex::test
