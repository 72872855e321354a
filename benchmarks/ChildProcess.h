#pragma once

#include <QProcess>
#include <QStringList>

#include <filesystem>
#include <string>

namespace harbex::bench
{

/// A child process. The destructor ends it, and it also ends with the benchmark. Its standard output is
/// discarded. Failures end the benchmark. Use it on one thread.
class ChildProcess
{
public:
    explicit ChildProcess(const char* program, const QStringList& arguments = {});
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    [[nodiscard]] std::string id() const { return std::to_string(m_process.processId()); }

    /// Returns its folder in /proc.
    [[nodiscard]] std::filesystem::path proc() const { return "/proc/" + id(); }

    /// Waits until the process has stopped itself. resume() continues it.
    void waitUntilStopped() const;

    /// Stops all of its threads with SIGSTOP and waits for that.
    void stop() const;

    /// Continues the process with SIGCONT.
    void resume() const;

private:
    QProcess m_process;
};

} // namespace harbex::bench
