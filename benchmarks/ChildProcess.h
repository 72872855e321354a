#pragma once

#include <QProcess>
#include <QStringList>

#include <filesystem>
#include <string>

namespace harbex::bench
{

/// A program that runs until the end of this object, or of the benchmark. Nobody reads its standard output.
/// What goes wrong ends the benchmark. One thread.
class ChildProcess
{
public:
    explicit ChildProcess(const char* program, const QStringList& arguments = {});
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    [[nodiscard]] std::string id() const { return std::to_string(m_process.processId()); }

    /// Its folder in /proc.
    [[nodiscard]] std::filesystem::path proc() const { return "/proc/" + id(); }

    /// Returns when it has stopped itself; it goes on with resume().
    void waitUntilStopped() const;

    /// Stops all of its threads: SIGSTOP.
    void stop() const;

    /// SIGCONT.
    void resume() const;

private:
    QProcess m_process;
};

} // namespace harbex::bench
