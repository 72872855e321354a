#include "base/FileDescriptor.h"
#include "base/StandardOutput.h"
#include "support/CapturedOutput.h"
#include "support/Eventually.h"
#include "support/TestMain.h"

#include <array>
#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <future>
#include <string>
#include <sys/ioctl.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace harbex;
using namespace harbex::test;

namespace
{

struct Pipe {
    FileDescriptor reader;
    FileDescriptor writer;

    explicit Pipe(int flags = 0)
    {
        std::array<int, 2> ends = {};
        if (::pipe2(ends.data(), O_CLOEXEC | flags) != 0) qFatal("no pipe");
        reader = FileDescriptor(ends[0]);
        writer = FileDescriptor(ends[1]);
    }
};

/// All that comes out of a pipe until its writers have closed it.
std::string drain(const FileDescriptor& reader)
{
    std::string text;
    std::array<char, 4096> buffer = {};
    for (;;) {
        const ssize_t size = ::read(reader.get(), buffer.data(), buffer.size());
        if (size < 0 && errno == EINTR) continue;
        if (size <= 0) return text;
        text.append(buffer.data(), static_cast<size_t>(size));
    }
}

int pipeCapacity(const Pipe& pipe)
{
    return ::fcntl(pipe.reader.get(), F_GETPIPE_SZ);
}

int bytesIn(const Pipe& pipe)
{
    int size = 0;
    return ::ioctl(pipe.reader.get(), FIONREAD, &size) == 0 ? size : -1;
}

/// What arrives at the other end of a pipe while `print` runs with the pipe as standard output.
template <class Print>
std::string printedThroughAPipe(Print print)
{
    Pipe pipe;
    auto text = std::async(std::launch::async, [&pipe] { return drain(pipe.reader); });
    RedirectedOutput redirection(pipe.writer.get());
    pipe.writer = FileDescriptor();
    print();
    redirection.restore();
    return text.get();
}

/// A line of its own for each thread and number; as long as several pipe buffers for some.
std::string lineOf(int thread, int number)
{
    const auto length = static_cast<size_t>(number % 50 == 0 ? 100'000 : number);
    return std::to_string(thread) + ' ' + std::to_string(number) + ' ' +
           std::string(length, static_cast<char>('a' + thread));
}

/// Lets a signal interrupt this process every millisecond.
class Interruptions
{
public:
    Interruptions()
    {
        struct sigaction action = {};
        action.sa_handler = [](int) { ++count; };
        // Without SA_RESTART, so that a write under way ends early.
        ::sigaction(SIGALRM, &action, &m_oldAction);
        setInterval(1'000);
    }
    ~Interruptions()
    {
        setInterval(0);
        ::sigaction(SIGALRM, &m_oldAction, nullptr);
    }
    Interruptions(const Interruptions&) = delete;
    Interruptions& operator=(const Interruptions&) = delete;

    inline static std::atomic<int> count = 0;

private:
    static void setInterval(suseconds_t microseconds)
    {
        const itimerval timer{.it_interval = {0, microseconds}, .it_value = {0, microseconds}};
        ::setitimer(ITIMER_REAL, &timer, nullptr);
    }

    struct sigaction m_oldAction = {};
};

} // namespace

class TestStandardOutput : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void linesGetTheirEnd();
    void bytesAreWrittenAsTheyAre();
    void linesOfManyThreadsStayWhole();
    void interruptedWritesStayWhole();
    void closedStandardOutputLosesTheLineOnly();
    void brokenPipeLosesTheLineOnly();
    void fullDeviceLosesTheLineOnly();
    void fullPipeThatDoesNotBlockLosesTheLineOnly();
    void aReaderThatDoesNotReadIsNotWaitedForLong();
};

void TestStandardOutput::linesGetTheirEnd()
{
    CapturedOutput output;
    printLine("first");
    printLine("");
    printLine("third");
    QCOMPARE(output.lines(), QStringList({QStringLiteral("first"), QString(), QStringLiteral("third")}));
}

void TestStandardOutput::bytesAreWrittenAsTheyAre()
{
    const std::string_view line("a\0b\xff\u00e9", 6);
    const std::string text = printedThroughAPipe([&line] { printLine(line); });
    QCOMPARE(text, std::string(line) + '\n');
}

void TestStandardOutput::linesOfManyThreadsStayWhole()
{
    constexpr int threads = 8;
    constexpr int linesOfEach = 200;
    const std::string text = printedThroughAPipe([] {
        std::vector<std::jthread> writers;
        writers.reserve(threads);
        for (int thread = 0; thread < threads; ++thread) {
            writers.emplace_back([thread] {
                for (int number = 0; number < linesOfEach; ++number)
                    printLine(lineOf(thread, number));
            });
        }
    });

    std::array<int, threads> next = {};
    size_t begin = 0;
    while (begin < text.size()) {
        const size_t end = text.find('\n', begin);
        QVERIFY(end != std::string::npos);
        const int thread = text[begin] - '0';
        QVERIFY(thread >= 0 && thread < threads);
        // The lines of one thread keep their order.
        QVERIFY(text.substr(begin, end - begin) == lineOf(thread, next.at(static_cast<size_t>(thread))++));
        begin = end + 1;
    }
    for (const int count : next)
        QCOMPARE(count, linesOfEach);
}

void TestStandardOutput::interruptedWritesStayWhole()
{
    // More than a pipe holds, so that the writes wait for the reader and are interrupted while they do.
    const std::string line(4'000'000, 'x');
    Pipe pipe;
    std::atomic<bool> isPrinted = false;
    std::string text;
    {
        std::jthread reader([&] {
            sigset_t signals;
            ::sigemptyset(&signals);
            ::sigaddset(&signals, SIGALRM);
            ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
            // Not a byte is taken before a write was interrupted while it waited at the full pipe.
            while (!isPrinted && bytesIn(pipe) < pipeCapacity(pipe))
                std::this_thread::yield();
            const int before = Interruptions::count;
            while (!isPrinted && Interruptions::count < before + 5)
                std::this_thread::yield();
            text = drain(pipe.reader);
        });
        const Interruptions interruptions;
        RedirectedOutput redirection(pipe.writer.get());
        pipe.writer = FileDescriptor();
        printLine(line);
        isPrinted = true;
        redirection.restore();
    }
    QVERIFY(text == line + '\n');
}

void TestStandardOutput::closedStandardOutputLosesTheLineOnly()
{
    RedirectedOutput redirection(-1);
    printLine("lost");
    redirection.restore();

    CapturedOutput output;
    printLine("seen");
    QCOMPARE(output.lines(), QStringList(QStringLiteral("seen")));
}

void TestStandardOutput::brokenPipeLosesTheLineOnly()
{
    // As the program has it. Qt Test has put a handler of its own in the place of what was set before.
    const auto oldHandler = std::signal(SIGPIPE, SIG_IGN);
    Pipe pipe;
    pipe.reader = FileDescriptor();
    RedirectedOutput redirection(pipe.writer.get());
    printLine("lost");
    redirection.restore();
    std::signal(SIGPIPE, oldHandler);

    CapturedOutput output;
    printLine("seen");
    QCOMPARE(output.lines(), QStringList(QStringLiteral("seen")));
}

void TestStandardOutput::fullDeviceLosesTheLineOnly()
{
    const FileDescriptor full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
    QVERIFY(full);
    RedirectedOutput redirection(full.get());
    printLine("lost");
    redirection.restore();

    CapturedOutput output;
    printLine("seen");
    QCOMPARE(output.lines(), QStringList(QStringLiteral("seen")));
}

void TestStandardOutput::fullPipeThatDoesNotBlockLosesTheLineOnly()
{
    Pipe pipe(O_NONBLOCK);
    const std::string line(1'000, 'x');
    const auto linesAskedFor = static_cast<size_t>(10 * pipeCapacity(pipe)) / line.size();
    RedirectedOutput redirection(pipe.writer.get());
    for (size_t i = 0; i < linesAskedFor; ++i)
        printLine(line);
    redirection.restore();
    pipe.writer = FileDescriptor();

    const std::string text = drain(pipe.reader);
    QCOMPARE(text.size() % (line.size() + 1), size_t(0));
    QVERIFY(!text.empty() && text.size() < linesAskedFor * line.size());
}

void TestStandardOutput::aReaderThatDoesNotReadIsNotWaitedForLong()
{
    Pipe pipe;
    const std::string line(1'000, 'x');
    const auto linesAskedFor = static_cast<size_t>(10 * pipeCapacity(pipe)) / line.size();
    RedirectedOutput redirection(pipe.writer.get());
    pipe.writer = FileDescriptor();
    std::atomic<bool> isDone = false;
    std::thread printing([&] {
        for (size_t i = 0; i < linesAskedFor; ++i)
            printLine(line);
        isDone = true;
    });
    const bool wasDone = eventually([&isDone] { return isDone.load(); });
    std::string first(static_cast<size_t>(bytesIn(pipe)), '\0');
    QCOMPARE(::read(pipe.reader.get(), first.data(), first.size()), ssize_t(first.size()));

    // Once there is room again the lines come through again.
    auto rest = std::async(std::launch::async, [&pipe] { return drain(pipe.reader); });
    printing.join();
    printLine("seen");
    redirection.restore();
    const std::string last = rest.get();
    QVERIFY(wasDone);
    QCOMPARE(first.size() % (line.size() + 1), size_t(0));
    QVERIFY(!first.empty() && first.size() < linesAskedFor * line.size());
    QCOMPARE(last, std::string("seen\n"));
}

HARBEX_TEST_MAIN(TestStandardOutput)

#include "tst_StandardOutput.moc"
