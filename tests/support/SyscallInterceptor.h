#pragma once

#include "base/FileDescriptor.h"
#include "base/Outcome.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace harbex::test
{

// Intercepts system calls. The code under test runs in a child process. The kernel stops the child before
// each chosen system call until the test answers. The code under test needs no changes, and no privileges are
// needed.

/// An intercepted system call that waits for an answer.
class InterceptedCall
{
public:
    std::string name;
    /// Number of this call among the calls with the same name, from 1.
    size_t ordinal = 0;
    /// Number of intercepted calls before this one, with any name.
    size_t index = 0;
    std::array<uint64_t, 6> arguments = {};
    pid_t process = -1;

    /// For example "renameat2 #1". For test messages.
    [[nodiscard]] std::string label() const { return name + " #" + std::to_string(ordinal); }

    /// Returns the string (a path, a name) that an argument points to. Raw bytes.
    [[nodiscard]] std::string text(size_t argument) const;

    /// Reads and writes the memory of the child.
    [[nodiscard]] std::string readMemory(uint64_t address, size_t size) const;
    void writeMemory(uint64_t address, const std::string& bytes) const;

    /// Returns the path of the file that the child has open as `fd`. Empty if there is none.
    [[nodiscard]] std::string pathOfOpen(int fd) const;

    /// Returns a duplicate of the child's descriptor that is passed as this argument.
    [[nodiscard]] FileDescriptor descriptor(size_t argument) const;
};

/// Answer to an intercepted call.
struct Answer {
    enum class Kind { proceed, fail, give, kill };
    Kind kind = Kind::proceed;
    int64_t value = 0;

    /// The kernel executes the call.
    static Answer proceed() { return {}; }
    /// The call is not executed and fails with this errno.
    static Answer fail(int code) { return {Kind::fail, code}; }
    /// The call is not executed and returns this value.
    static Answer give(int64_t result) { return {Kind::give, result}; }
    /// The child is killed with SIGKILL.
    static Answer kill() { return {Kind::kill, 0}; }
};

/// Result of the child process.
struct InterceptedRun {
    bool wasKilled = false;
    /// The errno of the failed work. 0 if it succeeded.
    int error = 0;
    /// Labels of the intercepted calls, in order.
    std::vector<std::string> calls;

    [[nodiscard]] bool succeeded() const { return !wasKilled && error == 0; }

    /// Returns how many intercepted calls had this name.
    [[nodiscard]] long count(const std::string& name) const
    {
        return std::ranges::count_if(
            calls, [&name](const std::string& label) { return label.starts_with(name + ' '); });
    }
};

/// Is asked about each intercepted call while the child waits.
using Interceptor = std::function<Answer(const InterceptedCall&)>;

/// Work for a child process, and the interceptor of its calls.
struct InterceptedWork {
    std::function<Outcome<void>()> work;
    Interceptor interceptor;
};

/// Runs each work in its own child process, all at the same time. Asks the interceptors about each call with
/// one of these names, one call after another. Ignores names that this architecture does not have. Returns
/// when all children have ended. Ends the program with a message if the kernel does not support seccomp user
/// notification, or if no child makes an intercepted call for one minute.
[[nodiscard]] std::vector<InterceptedRun> runIntercepted(const std::vector<std::string>& names,
                                                         const std::vector<InterceptedWork>& works);

/// Runs one work in a child process.
[[nodiscard]] inline InterceptedRun runIntercepted(const std::vector<std::string>& names,
                                                   const std::function<Outcome<void>()>& work,
                                                   const Interceptor& interceptor)
{
    return runIntercepted(names, {{work, interceptor}}).front();
}

/// Returns the names of the system calls that read or change files, except close().
[[nodiscard]] const std::vector<std::string>& fileSystemCalls();

} // namespace harbex::test
