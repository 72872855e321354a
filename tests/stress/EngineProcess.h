#pragma once

#include "base/FileDescriptor.h"

#include <QByteArrayList>

#include <chrono>
#include <string>
#include <sys/types.h>
#include <vector>

namespace harbex::test
{

/// An engine in a process of its own: this program, started a second time. Ends with this object.
class EngineProcess
{
public:
    /// Watches each folder `from` and takes everything that arrives there to `into`. Returns when it runs.
    struct Folder {
        std::string from;
        std::string into;
    };
    explicit EngineProcess(const std::vector<Folder>& folders);
    ~EngineProcess();
    EngineProcess(const EngineProcess&) = delete;
    EngineProcess& operator=(const EngineProcess&) = delete;

    /// Takes the processor away from it until resume().
    void suspend() const;
    void resume() const;

    /// The lines of its activity log so far, oldest first, without times.
    [[nodiscard]] QByteArrayList messages() const;

    /// Whether this program was started to be such a process, by its arguments; runEngine() is its main
    /// function then.
    [[nodiscard]] static bool isWanted(int argc, char** argv);
    [[nodiscard]] static int runEngine(int argc, char** argv);

private:
    FileDescriptor m_output;
    pid_t m_process = -1;
};

} // namespace harbex::test
