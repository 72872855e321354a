#pragma once

#include <string>

namespace harbex::test
{

/// Exit status of a test that cannot run on this system. ctest reports it as skipped.
constexpr int notPossibleHere = 77;

/// Moves the process into its own user and mount namespace, in which it is root. Its mounts and limits affect
/// no other process and end with it. Call it before any test and before a second thread starts. Ends the
/// program with `notPossibleHere` if the system forbids user namespaces, as many containers and chroots do.
void enterPrivateNamespace();

/// Like enterPrivateNamespace(), but returns false and sets errno if the system forbids user namespaces. For
/// tests that mount nothing but must not see new mounts of other processes.
bool tryPrivateNamespace();

/// A mount that exists until the end of a scope.
class Mount
{
public:
    /// Mounts an empty tmpfs at `folder`. `options` are mount options of tmpfs ("size=1m").
    [[nodiscard]] static Mount memory(const std::string& folder, const std::string& options = {});

    /// Mounts the folder `source` a second time, at `folder` (bind mount).
    [[nodiscard]] static Mount again(const std::string& source, const std::string& folder);

    /// Mounts an overlay of `lower` and `upper` at `merged`. Changes go into `upper`. The empty folder `work`
    /// must be on the volume of `upper`.
    [[nodiscard]] static Mount overlay(const std::string& lower, const std::string& upper,
                                       const std::string& work, const std::string& merged);

    ~Mount();
    Mount(const Mount&) = delete;
    Mount& operator=(const Mount&) = delete;

    /// Remounts read-only.
    void makeReadOnly() const;

    /// Unmounts. Returns false if the mount is in use.
    [[nodiscard]] bool unmount();

private:
    explicit Mount(std::string folder) : m_folder(std::move(folder)) {}

    std::string m_folder;
    bool m_isMounted = true;
};

/// Limits the number of inotify watches of this process. Works only in a private user namespace.
void limitWatches(int count);

} // namespace harbex::test
