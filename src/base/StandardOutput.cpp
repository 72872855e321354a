#include "base/StandardOutput.h"

#include "base/Mutex.h"

#include <cerrno>
#include <climits>
#include <poll.h>
#include <string>
#include <unistd.h>

namespace harbex
{

namespace
{

constexpr int pollTimeoutMilliseconds = 1000;

/// Serializes writes to standard output.
class LineWriter
{
public:
    void write(std::string_view text) EXCLUDES(m_mutex)
    {
        const MutexLock lock(m_mutex);
        while (!text.empty() && isReady()) {
            // A pipe that poll() reports as writable takes PIPE_BUF bytes without blocking.
            const std::string_view piece = text.substr(0, PIPE_BUF);
            const ssize_t written = ::write(STDOUT_FILENO, piece.data(), piece.size());
            if (written < 0 && errno == EINTR) continue;
            // The output is closed or full. The program continues without this text.
            if (written <= 0) return;
            text.remove_prefix(static_cast<size_t>(written));
        }
    }

private:
    /// Returns whether a write does not block. Waits up to pollTimeoutMilliseconds. After a timeout it does
    /// not wait again until the output has been writable.
    bool isReady() REQUIRES(m_mutex)
    {
        pollfd output{.fd = STDOUT_FILENO, .events = POLLOUT, .revents = 0};
        int ready = 0;
        do {
            ready = ::poll(&output, 1, m_isStuck ? 0 : pollTimeoutMilliseconds);
        } while (ready < 0 && errno == EINTR);
        m_isStuck = ready == 0;
        return !m_isStuck;
    }

    Mutex m_mutex;
    bool m_isStuck GUARDED_BY(m_mutex) = false;
};

} // namespace

void printLine(std::string_view line)
{
    static LineWriter writer;
    std::string text;
    text.reserve(line.size() + 1);
    text.append(line).push_back('\n');
    writer.write(text);
}

} // namespace harbex
