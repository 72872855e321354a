#include "support/SyscallInterceptor.h"

#include <QtGlobal>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <iterator>
#include <map>
#include <memory>
#include <poll.h>
#include <seccomp.h>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>

namespace harbex::test
{

namespace
{

constexpr int patienceMilliseconds = 60'000;
/// Larger than any errno.
constexpr int exitOfSetupFailure = 255;

void require(bool done, const char* what)
{
    if (!done) qFatal("system call interceptor: %s: %s", what, std::strerror(errno));
}

[[noreturn]] void failSetup(const char* what, int code)
{
    std::fprintf(stderr, "system call interceptor: %s: %s\n", what, std::strerror(code));
    ::_exit(exitOfSetupFailure);
}

/// Installs the filter in the calling process. Returns the descriptor of the notifications.
int installFilter(const std::vector<std::string>& names)
{
    const scmp_filter_ctx filter = ::seccomp_init(SCMP_ACT_ALLOW);
    if (!filter) failSetup("no filter", ENOMEM);
    for (const std::string& name : names) {
        const int number = ::seccomp_syscall_resolve_name(name.c_str());
        if (number < 0) continue;
        const int added = ::seccomp_rule_add(filter, SCMP_ACT_NOTIFY, number, 0);
        if (added != 0) failSetup(name.c_str(), -added);
    }
    const int loaded = ::seccomp_load(filter);
    if (loaded != 0) failSetup("not possible here: watching the system calls of another process", -loaded);
    return ::seccomp_notify_fd(filter);
}

[[noreturn]] void runFiltered(const std::vector<std::string>& names,
                              const std::function<Outcome<void>()>& work, int socket)
{
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int listener = installFilter(names);
    // Not with write(), which may be intercepted.
    if (::send(socket, &listener, sizeof listener, 0) != sizeof listener)
        failSetup("no connection to the test", errno);
    // The descriptor must exist until the test has its duplicate.
    char isTaken = 0;
    if (::recv(socket, &isTaken, 1, 0) != 1) failSetup("the test has ended", errno);
    const Outcome<void> outcome = work();
    // Skips destructors and buffers, because they belong to the test process.
    ::_exit(outcome ? 0 : outcome.error().code);
}

/// Returns a duplicate of a descriptor of another process.
FileDescriptor duplicateOf(pid_t process, int fd)
{
    const FileDescriptor other(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
    require(static_cast<bool>(other), "cannot open the child");
    FileDescriptor copy(static_cast<int>(::syscall(SYS_pidfd_getfd, other.get(), fd, 0)));
    require(static_cast<bool>(copy), "cannot take a descriptor of the child");
    return copy;
}

/// Lets the woken process run on the processor of the process that waits for it (Linux 6.6). Without this,
/// most of the time of a run is spent on waking processors.
void wakeWithoutDelay(int listener)
{
    constexpr unsigned long setFlags = _IOW('!', 4, uint64_t);
    constexpr unsigned long syncWakeUp = 1;
    // Older kernels fail. The result is the same there.
    ::ioctl(listener, setFlags, syncWakeUp);
}

/// A child process that works, and the test's side of it.
class Child
{
public:
    Child(const std::vector<std::string>& names, const InterceptedWork& work)
        : m_interceptor(work.interceptor)
    {
        int sockets[2];
        require(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sockets) == 0, "no sockets");
        const FileDescriptor ours(sockets[0]);
        FileDescriptor childs(sockets[1]);
        m_child = ::fork();
        require(m_child >= 0, "cannot fork");
        if (m_child == 0) runFiltered(names, work.work, childs.get());

        childs = FileDescriptor();
        int listener = -1;
        if (::recv(ours.get(), &listener, sizeof listener, 0) != sizeof listener)
            qFatal("system call interceptor: the child could not be set up, so nothing was tested");
        m_listener = duplicateOf(m_child, listener);
        require(::send(ours.get(), "", 1, 0) == 1, "no connection to the child");
        wakeWithoutDelay(m_listener.get());
        require(::seccomp_notify_alloc(&m_request, &m_response) == 0, "no memory");
    }
    ~Child() { ::seccomp_notify_free(m_request, m_response); }

    [[nodiscard]] int listener() const { return m_listener.get(); }
    [[nodiscard]] std::string lastCall() const
    {
        return m_run.calls.empty() ? "no call" : m_run.calls.back();
    }

    void answerCall()
    {
        std::memset(m_request, 0, sizeof *m_request);
        // The child may have been killed since poll().
        if (::seccomp_notify_receive(m_listener.get(), m_request) != 0) return;
        const InterceptedCall call = currentCall();
        m_run.calls.push_back(call.label());
        const Answer answer = m_interceptor(call);
        if (answer.kind == Answer::Kind::kill) {
            ::kill(m_child, SIGKILL);
            return;
        }
        std::memset(m_response, 0, sizeof *m_response);
        m_response->id = m_request->id;
        if (answer.kind == Answer::Kind::proceed) m_response->flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
        if (answer.kind == Answer::Kind::fail) m_response->error = -static_cast<int>(answer.value);
        if (answer.kind == Answer::Kind::give) m_response->val = answer.value;
        require(::seccomp_notify_respond(m_listener.get(), m_response) == 0, "cannot answer");
    }

    /// Returns the result of the child, which has ended.
    InterceptedRun result()
    {
        int status = 0;
        require(::waitpid(m_child, &status, 0) == m_child, "cannot wait");
        m_run.wasKilled = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
        if (!m_run.wasKilled && !WIFEXITED(status)) qFatal("the child crashed: signal %d", WTERMSIG(status));
        if (!m_run.wasKilled) m_run.error = WEXITSTATUS(status);
        return m_run;
    }

private:
    InterceptedCall currentCall()
    {
        char* name = ::seccomp_syscall_resolve_num_arch(m_request->data.arch, m_request->data.nr);
        require(name != nullptr, "a call without a name");
        InterceptedCall call;
        call.name = name;
        std::free(name);
        call.ordinal = ++m_counts[call.name];
        call.index = m_run.calls.size();
        std::copy_n(m_request->data.args, call.arguments.size(), call.arguments.begin());
        call.process = m_child;
        return call;
    }

    const Interceptor& m_interceptor;
    pid_t m_child = -1;
    FileDescriptor m_listener;
    seccomp_notif* m_request = nullptr;
    seccomp_notif_resp* m_response = nullptr;
    std::map<std::string, size_t> m_counts;
    InterceptedRun m_run;
};

FileDescriptor openMemory(pid_t process, int mode)
{
    const std::string path = "/proc/" + std::to_string(process) + "/mem";
    FileDescriptor memory(::open(path.c_str(), mode | O_CLOEXEC));
    require(static_cast<bool>(memory), "cannot open the memory of the child");
    return memory;
}

} // namespace

std::string InterceptedCall::text(size_t argument) const
{
    std::string found = readMemory(arguments[argument], 4096);
    found.resize(std::min(found.find('\0'), found.size()));
    return found;
}

std::string InterceptedCall::readMemory(uint64_t address, size_t size) const
{
    std::string bytes(size, '\0');
    const ssize_t read =
        ::pread(openMemory(process, O_RDONLY).get(), bytes.data(), bytes.size(), static_cast<off_t>(address));
    require(read > 0, "cannot read the memory of the child");
    bytes.resize(static_cast<size_t>(read));
    return bytes;
}

void InterceptedCall::writeMemory(uint64_t address, const std::string& bytes) const
{
    const ssize_t written = ::pwrite(openMemory(process, O_WRONLY).get(), bytes.data(), bytes.size(),
                                     static_cast<off_t>(address));
    require(written == static_cast<ssize_t>(bytes.size()), "cannot write the memory of the child");
}

std::string InterceptedCall::pathOfOpen(int fd) const
{
    const std::string link = "/proc/" + std::to_string(process) + "/fd/" + std::to_string(fd);
    std::error_code isNone;
    return std::filesystem::read_symlink(link, isNone).string();
}

FileDescriptor InterceptedCall::descriptor(size_t argument) const
{
    return duplicateOf(process, static_cast<int>(arguments[argument]));
}

std::vector<InterceptedRun> runIntercepted(const std::vector<std::string>& names,
                                           const std::vector<InterceptedWork>& works)
{
    // Otherwise both processes would write the buffered output.
    std::fflush(nullptr);
    std::vector<std::unique_ptr<Child>> children;
    std::vector<pollfd> polled;
    for (const InterceptedWork& work : works) {
        children.push_back(std::make_unique<Child>(names, work));
        polled.push_back({children.back()->listener(), POLLIN, 0});
    }
    std::vector<InterceptedRun> runs(works.size());
    for (size_t running = works.size(); running > 0;) {
        // The children end with this process.
        if (::poll(polled.data(), polled.size(), patienceMilliseconds) <= 0)
            qFatal("a child hangs after %s", children.front()->lastCall().c_str());
        for (size_t i = 0; i < polled.size(); ++i) {
            if ((polled[i].revents & POLLIN) != 0) {
                children[i]->answerCall();
            } else if (polled[i].revents != 0) {
                runs[i] = children[i]->result();
                polled[i].fd = -1;
                --running;
            }
        }
    }
    return runs;
}

const std::vector<std::string>& fileSystemCalls()
{
    static const std::vector<std::string> names = [] {
        std::istringstream text(
            "access chmod chown copy_file_range creat faccessat faccessat2 fallocate fchmod fchmodat "
            "fchmodat2 fchown fchownat fdatasync fgetxattr flistxattr flock fremovexattr fsetxattr fstat "
            "fstatfs fsync ftruncate futimesat getdents getdents64 getxattr ioctl lchown lgetxattr link "
            "linkat listxattr llistxattr lremovexattr lseek lsetxattr lstat mkdir mkdirat mknod mknodat "
            "newfstatat open openat openat2 pread64 preadv preadv2 pwrite64 pwritev pwritev2 read readlink "
            "readlinkat readv removexattr rename renameat renameat2 rmdir sendfile setxattr splice stat "
            "statfs statx symlink symlinkat sync sync_file_range syncfs truncate unlink unlinkat utime "
            "utimensat utimes write writev");
        return std::vector<std::string>(std::istream_iterator<std::string>(text), {});
    }();
    return names;
}

} // namespace harbex::test
