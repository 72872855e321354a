#include "support/SyscallInterceptor.h"

#include <QtGlobal>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <poll.h>
#include <seccomp.h>
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
    if (!done) qFatal("system call gate: %s: %s", what, std::strerror(errno));
}

[[noreturn]] void failSetup(const char* what, int code)
{
    std::fprintf(stderr, "system call gate: %s: %s\n", what, std::strerror(code));
    ::_exit(exitOfSetupFailure);
}

/// A message that contains one descriptor.
class DescriptorMessage
{
public:
    DescriptorMessage()
    {
        m_header.msg_iov = &m_piece;
        m_header.msg_iovlen = 1;
        m_header.msg_control = m_control;
        m_header.msg_controllen = sizeof m_control;
    }

    bool send(int socket, int fd)
    {
        cmsghdr* control = CMSG_FIRSTHDR(&m_header);
        control->cmsg_level = SOL_SOCKET;
        control->cmsg_type = SCM_RIGHTS;
        control->cmsg_len = CMSG_LEN(sizeof fd);
        std::memcpy(CMSG_DATA(control), &fd, sizeof fd);
        return ::sendmsg(socket, &m_header, 0) == 1;
    }

    FileDescriptor receive(int socket)
    {
        if (::recvmsg(socket, &m_header, MSG_CMSG_CLOEXEC) != 1) return {};
        const cmsghdr* control = CMSG_FIRSTHDR(&m_header);
        if (!control) return {};
        int fd = -1;
        std::memcpy(&fd, CMSG_DATA(control), sizeof fd);
        return FileDescriptor(fd);
    }

private:
    char m_byte = 0;
    iovec m_piece = {&m_byte, 1};
    alignas(cmsghdr) char m_control[CMSG_SPACE(sizeof(int))] = {};
    msghdr m_header = {};
};

/// Installs the filter in the calling process and sends the notification descriptor through `socket`.
void closeGate(const std::vector<std::string>& names, int socket)
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
    if (!DescriptorMessage().send(socket, ::seccomp_notify_fd(filter)))
        failSetup("cannot hand over the gate", errno);
    ::seccomp_release(filter);
}

[[noreturn]] void runBehindGate(const std::vector<std::string>& names,
                                const std::function<Outcome<void>()>& work, int socket)
{
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    closeGate(names, socket);
    const Outcome<void> outcome = work();
    // Skips destructors and buffers, because they belong to the test process.
    ::_exit(outcome ? 0 : outcome.error().code);
}

/// The test's side: receives and answers the intercepted calls.
class GateWatch
{
public:
    GateWatch(pid_t child, FileDescriptor gate, const Interceptor& keeper)
        : m_child(child), m_gate(std::move(gate)), m_keeper(keeper)
    {
        require(::seccomp_notify_alloc(&m_request, &m_response) == 0, "no memory");
    }
    ~GateWatch() { ::seccomp_notify_free(m_request, m_response); }
    GateWatch(const GateWatch&) = delete;
    GateWatch& operator=(const GateWatch&) = delete;

    /// Answers calls until the child has ended.
    InterceptedRun run()
    {
        while (waitForCall()) {
            std::memset(m_request, 0, sizeof *m_request);
            // The child may have been killed since poll().
            if (::seccomp_notify_receive(m_gate.get(), m_request) == 0) answer();
        }
        int status = 0;
        require(::waitpid(m_child, &status, 0) == m_child, "cannot wait");
        m_run.wasKilled = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
        if (!m_run.wasKilled && !WIFEXITED(status))
            qFatal("the work behind the gate crashed: signal %d", WTERMSIG(status));
        if (!m_run.wasKilled) m_run.error = WEXITSTATUS(status);
        return m_run;
    }

private:
    bool waitForCall() const
    {
        pollfd polled = {m_gate.get(), POLLIN, 0};
        const int ready = ::poll(&polled, 1, patienceMilliseconds);
        if (ready != 1) {
            ::kill(m_child, SIGKILL);
            qFatal("the work behind the gate hangs after %s",
                   m_run.calls.empty() ? "no call" : m_run.calls.back().c_str());
        }
        return (polled.revents & POLLIN) != 0;
    }

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

    void answer()
    {
        const InterceptedCall call = currentCall();
        m_run.calls.push_back(call.label());
        const Answer answer = m_keeper(call);
        if (answer.kind == Answer::Kind::kill) {
            ::kill(m_child, SIGKILL);
            return;
        }
        std::memset(m_response, 0, sizeof *m_response);
        m_response->id = m_request->id;
        if (answer.kind == Answer::Kind::proceed) m_response->flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
        if (answer.kind == Answer::Kind::fail) m_response->error = -static_cast<int>(answer.value);
        if (answer.kind == Answer::Kind::give) m_response->val = answer.value;
        require(::seccomp_notify_respond(m_gate.get(), m_response) == 0, "cannot answer");
    }

    const pid_t m_child;
    const FileDescriptor m_gate;
    const Interceptor& m_keeper;
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
    const FileDescriptor child(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
    require(static_cast<bool>(child), "cannot open the child");
    FileDescriptor copy(
        static_cast<int>(::syscall(SYS_pidfd_getfd, child.get(), static_cast<int>(arguments[argument]), 0)));
    require(static_cast<bool>(copy), "cannot take a descriptor of the child");
    return copy;
}

InterceptedRun runIntercepted(const std::vector<std::string>& names,
                              const std::function<Outcome<void>()>& work, const Interceptor& keeper)
{
    int sockets[2];
    require(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sockets) == 0, "no sockets");
    const FileDescriptor ours(sockets[0]);
    FileDescriptor childs(sockets[1]);
    // Otherwise both processes would write the buffered output.
    std::fflush(nullptr);
    const pid_t child = ::fork();
    require(child >= 0, "cannot fork");
    if (child == 0) runBehindGate(names, work, childs.get());

    childs = FileDescriptor();
    FileDescriptor gate = DescriptorMessage().receive(ours.get());
    if (!gate) qFatal("system call gate: it could not be set up, so nothing was tested");
    return GateWatch(child, std::move(gate), keeper).run();
}

const std::vector<std::string>& fileSystemCalls()
{
    static const std::vector<std::string> names = {"access",
                                                   "chmod",
                                                   "chown",
                                                   "copy_file_range",
                                                   "creat",
                                                   "faccessat",
                                                   "faccessat2",
                                                   "fallocate",
                                                   "fchmod",
                                                   "fchmodat",
                                                   "fchmodat2",
                                                   "fchown",
                                                   "fchownat",
                                                   "fdatasync",
                                                   "fgetxattr",
                                                   "flistxattr",
                                                   "flock",
                                                   "fremovexattr",
                                                   "fsetxattr",
                                                   "fstat",
                                                   "fstatfs",
                                                   "fsync",
                                                   "ftruncate",
                                                   "futimesat",
                                                   "getdents",
                                                   "getdents64",
                                                   "getxattr",
                                                   "ioctl",
                                                   "lchown",
                                                   "lgetxattr",
                                                   "link",
                                                   "linkat",
                                                   "listxattr",
                                                   "llistxattr",
                                                   "lremovexattr",
                                                   "lseek",
                                                   "lsetxattr",
                                                   "lstat",
                                                   "mkdir",
                                                   "mkdirat",
                                                   "mknod",
                                                   "mknodat",
                                                   "newfstatat",
                                                   "open",
                                                   "openat",
                                                   "openat2",
                                                   "pread64",
                                                   "preadv",
                                                   "preadv2",
                                                   "pwrite64",
                                                   "pwritev",
                                                   "pwritev2",
                                                   "read",
                                                   "readlink",
                                                   "readlinkat",
                                                   "readv",
                                                   "removexattr",
                                                   "rename",
                                                   "renameat",
                                                   "renameat2",
                                                   "rmdir",
                                                   "sendfile",
                                                   "setxattr",
                                                   "splice",
                                                   "stat",
                                                   "statfs",
                                                   "statx",
                                                   "symlink",
                                                   "symlinkat",
                                                   "sync",
                                                   "sync_file_range",
                                                   "syncfs",
                                                   "truncate",
                                                   "unlink",
                                                   "unlinkat",
                                                   "utime",
                                                   "utimensat",
                                                   "utimes",
                                                   "write",
                                                   "writev"};
    return names;
}

} // namespace harbex::test
