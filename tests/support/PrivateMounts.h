#pragma once

#include <string>

namespace harbex::test
{

/// The exit status of a program that needs what this system does not allow. ctest counts it as skipped.
constexpr int notPossibleHere = 77;

/// Moves the process into a world of its own in which it is root: what it mounts and the limits it sets
/// concern nobody else and end with it. Called before any test and before there is a second thread. Ends the
/// program with `notPossibleHere` when the system allows no user namespace (in many a container or chroot).
void enterPrivateNamespace();

/// The same for a test that needs no mounts of its own and shall see none of others. False, with the reason
/// in errno, when the system allows no user namespace.
bool tryPrivateNamespace();

/// Something that is mounted for the length of a scope.
class Mount
{
public:
    /// An empty file system in memory over `folder`, with the options of tmpfs ("size=1m").
    [[nodiscard]] static Mount memory(const std::string& folder, const std::string& options = {});

    /// What is in `source`, a second time, at `folder`.
    [[nodiscard]] static Mount again(const std::string& source, const std::string& folder);

    /// The folder `lower` with `upper` laid over it, at `merged`; what is changed there goes into `upper`.
    /// The empty folder `work` is on the same volume as `upper`.
    [[nodiscard]] static Mount overlay(const std::string& lower, const std::string& upper,
                                       const std::string& work, const std::string& merged);

    ~Mount();
    Mount(const Mount&) = delete;
    Mount& operator=(const Mount&) = delete;

    /// Refuses all writing from now on.
    void makeReadOnly() const;

    /// Unmounts as a person would. False when it is in use.
    [[nodiscard]] bool unmount();
    [[nodiscard]] bool isMounted() const { return m_isMounted; }

private:
    explicit Mount(std::string folder) : m_folder(std::move(folder)) {}

    std::string m_folder;
    bool m_isMounted = true;
};

/// Lets inotify watch only so many folders for this process. Only in a user namespace of one's own.
void limitWatches(int count);

} // namespace harbex::test
