#pragma once

#include <QProcess>
#include <QString>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

namespace harbex::test
{

/// A folder seen through a file system that runs as an ordinary program (FUSE): bindfs of Debian. To the
/// engine it is a volume that a server has. Ends the program with a message when it cannot be mounted.
class FuseMount
{
public:
    class Silence;

    /// Shows the folder `real` at the folder `place`.
    FuseMount(const std::string& real, std::string place);
    ~FuseMount();
    FuseMount(const FuseMount&) = delete;
    FuseMount& operator=(const FuseMount&) = delete;

    /// Whether such a file system can be mounted here; says why not on standard error. For main(), which
    /// gives its arguments, before the tests.
    [[nodiscard]] static bool isPossible(int argc, char** argv);

    /// Why it cannot; empty if it can. For a test that goes on without.
    [[nodiscard]] static QString reasonAgainst();

private:
    const std::string m_place;
    QProcess m_server;
};

/// For as long as this lives, the server answers nothing: whoever asks it waits. Declared after whatever may
/// wait for it, so that a test that fails does not hang. Ends by itself after a minute, because nobody could
/// end it while the thread of the test waits.
class FuseMount::Silence
{
public:
    explicit Silence(const FuseMount& folder);
    ~Silence();
    Silence(const Silence&) = delete;
    Silence& operator=(const Silence&) = delete;

    /// Whether the server has answered nothing so far.
    [[nodiscard]] bool holds() const { return m_holds; }

    /// Lets the server answer again.
    void end();

private:
    const pid_t m_server;
    std::atomic<bool> m_holds = true;
    std::jthread m_guard;
};

} // namespace harbex::test
