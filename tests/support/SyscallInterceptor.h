#pragma once

#include "base/FileDescriptor.h"
#include "base/Outcome.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace harbex::test
{

// Lets a test stand between some code and the kernel: the code runs in a process of its own, which the kernel
// stops before each of the chosen system calls until the test has said what shall become of it. The code
// itself knows nothing of this, and no privilege is needed.

/// A system call that waits at the gate.
class GatedCall
{
public:
    std::string name;
    /// The how many-th call of this name it is, from 1.
    size_t ordinal = 0;
    /// How many calls came before it, whatever their names.
    size_t index = 0;
    std::array<uint64_t, 6> arguments = {};
    pid_t process = -1;

    /// "renameat2 #1": how a failing test says where it was.
    [[nodiscard]] std::string label() const { return name + " #" + std::to_string(ordinal); }

    /// The text (a path, a name) that an argument points to.
    [[nodiscard]] std::string text(size_t argument) const;

    /// Memory of the waiting process.
    [[nodiscard]] std::string readMemory(uint64_t address, size_t size) const;
    void writeMemory(uint64_t address, const std::string& bytes) const;

    /// The path of what the waiting process has open as `fd`; empty when that is nothing with a path.
    [[nodiscard]] std::string pathOfOpen(int fd) const;

    /// A descriptor of our own for the open file that an argument of the call names.
    [[nodiscard]] FileDescriptor descriptor(size_t argument) const;
};

/// What becomes of a call.
struct Answer {
    enum class Kind { proceed, fail, give, kill };
    Kind kind = Kind::proceed;
    int64_t value = 0;

    /// The kernel does it.
    static Answer proceed() { return {}; }
    /// It is not done, and fails with this errno.
    static Answer fail(int code) { return {Kind::fail, code}; }
    /// It is not done, and returns this.
    static Answer give(int64_t result) { return {Kind::give, result}; }
    /// The process ends here by SIGKILL.
    static Answer kill() { return {Kind::kill, 0}; }
};

/// How the process behind the gate ended.
struct InterceptedRun {
    bool wasKilled = false;
    /// The errno with which the work failed; 0 when it succeeded.
    int error = 0;
    /// The labels of the calls that came to the gate.
    std::vector<std::string> calls;

    [[nodiscard]] bool succeeded() const { return !wasKilled && error == 0; }
};

/// Asked about each call; may do anything while the call waits.
using Interceptor = std::function<Answer(const GatedCall&)>;

/// Runs `work` in a child process that waits at each call of the given names (those that this kind of machine
/// does not have are left out). Returns when it has ended. Ends the program with a message when the kernel
/// does not allow gates (seccomp user notification), or when the child does nothing for a minute.
[[nodiscard]] InterceptedRun runIntercepted(const std::vector<std::string>& names,
                                            const std::function<Outcome<void>()>& work,
                                            const Interceptor& keeper);

/// Every call by which a program looks at or changes files, besides closing them.
[[nodiscard]] const std::vector<std::string>& fileSystemCalls();

} // namespace harbex::test
