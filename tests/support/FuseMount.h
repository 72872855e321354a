#pragma once

#include <QProcess>
#include <QString>

#include <atomic>
#include <string>
#include <thread>
#include <utility>

namespace harbex::test
{

/// A folder on a FUSE file system, served by bindfs. The engine treats it as a remote volume. The program
/// ends with a message if the mount fails.
class FuseMount
{
public:
    class Silence;

    /// Mounts the folder `real` at the folder `place`.
    FuseMount(const std::string& real, std::string place);
    ~FuseMount();

    /// Kills the server. The mount stays, and every access to it fails.
    void killServer();

    /// Returns whether FUSE can be mounted on this system. Prints the reason to standard error if not. Call
    /// it in main() before the tests.
    [[nodiscard]] static bool isPossible(int argc, char** argv);

    /// Returns why FUSE cannot be mounted. Empty if it can. For tests that can run without it.
    [[nodiscard]] static QString reasonAgainst();

private:
    explicit FuseMount(std::string place) : m_place(std::move(place)) {}

    /// Starts the server. Returns the reason for a failure, or an empty text.
    [[nodiscard]] QString mount(const std::string& real);

    const std::string m_place;
    QProcess m_server;
};

/// Stops the server while the object exists, so that every request to it blocks. Declare it after all objects
/// that may block on the server, so that a failing test does not hang. It ends after one minute, because the
/// thread of the test may block too.
class FuseMount::Silence
{
public:
    explicit Silence(const FuseMount& folder);
    ~Silence();

    /// Returns whether the server is still stopped.
    [[nodiscard]] bool holds() const { return m_holds; }

    /// Lets the server continue.
    void end();

private:
    const pid_t m_server;
    std::atomic<bool> m_holds = true;
    std::jthread m_guard;
};

} // namespace harbex::test
