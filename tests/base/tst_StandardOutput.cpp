#include "base/FileDescriptor.h"
#include "base/StandardOutput.h"
#include "support/CapturedOutput.h"
#include "support/EngineFiles.h"
#include "support/SyscallInterceptor.h"
#include "support/TestMain.h"
#include "support/ThreadGroup.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <future>
#include <string>
#include <unistd.h>
#include <utility>

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

/// Reads from a pipe until its writers have closed it.
std::string drain(const FileDescriptor& reader)
{
    return contents("/proc/self/fd/" + std::to_string(reader.get())).toStdString();
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

/// A different line for each thread and number. Some lines are longer than the buffer of a pipe.
std::string lineOf(size_t thread, int number)
{
    const auto length = static_cast<size_t>(number % 50 == 0 ? 100'000 : number);
    return std::to_string(thread) + ' ' + std::to_string(number) + ' ' + std::string(length, 'x');
}

} // namespace

class TestStandardOutput : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void bytesAndALineEndAreWritten()
    {
        const std::string bytes("a\0b\xff\u00e9", 6);
        const std::string text = printedThroughAPipe([&bytes] {
            printLine(bytes);
            printLine("");
            printLine("third");
        });
        QCOMPARE(text, bytes + "\n\nthird\n");
    }

    void linesOfManyThreadsStayWhole()
    {
        constexpr size_t threads = 8;
        constexpr int linesOfEach = 200;
        const std::string text = printedThroughAPipe([] {
            const ThreadGroup writers(threads, [](size_t thread) {
                for (int number = 0; number < linesOfEach; ++number)
                    printLine(lineOf(thread, number));
            });
        });

        // The lines of each thread keep their order. The text ends with a line end.
        QMap<QByteArray, QByteArrayList> expected{{"", {""}}};
        for (size_t thread = 0; thread < threads; ++thread)
            for (int number = 0; number < linesOfEach; ++number)
                expected[QByteArray::number(thread)] << QByteArray::fromStdString(lineOf(thread, number));
        QMap<QByteArray, QByteArrayList> lines;
        for (const QByteArray& line : QByteArray::fromStdString(text).split('\n'))
            lines[line.left(1)] << line;
        QVERIFY(lines == expected);
    }

    void interruptedCallsAreRepeated()
    {
        const auto work = []() -> Outcome<void> {
            printLine("seen");
            return {};
        };
        const auto interruptFirst = [](const InterceptedCall& call) {
            return call.ordinal == 1 ? Answer::fail(EINTR) : Answer::proceed();
        };
        const CapturedOutput output;
        const auto calls = runIntercepted({"poll", "ppoll", "write"}, work, interruptFirst).calls;
        QCOMPARE(output.lines(), QByteArrayList{"seen"});
        QCOMPARE(calls.size(), 5U);
    }

    void anUnusableOutputLosesTheLineOnly()
    {
        // The program ignores this signal. Qt Test installs a handler.
        const auto oldHandler = std::signal(SIGPIPE, SIG_IGN);
        Pipe broken;
        broken.reader = FileDescriptor();
        const FileDescriptor full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
        QVERIFY(full);
        const std::pair<const char*, int> targets[] = {
            {"closed", -1}, {"broken pipe", broken.writer.get()}, {"full device", full.get()}};
        for (const auto& [name, target] : targets) {
            {
                const RedirectedOutput redirection(target);
                printLine("lost");
            }
            const std::string text = printedThroughAPipe([] { printLine("seen"); });
            QVERIFY2(text == "seen\n", name);
        }
        std::signal(SIGPIPE, oldHandler);
    }

    void aReaderThatDoesNotReadIsNotWaitedForLong()
    {
        for (const int flags : {0, O_NONBLOCK}) {
            Pipe pipe(flags);
            const std::string line(1'000, 'x');
            std::string first(static_cast<size_t>(::fcntl(pipe.reader.get(), F_GETPIPE_SZ)), '\0');
            const size_t linesAskedFor = 10 * first.size() / line.size();
            RedirectedOutput redirection(pipe.writer.get());
            pipe.writer = FileDescriptor();
            auto printing = std::async(std::launch::async, [&] {
                for (size_t i = 0; i < linesAskedFor; ++i)
                    printLine(line);
            });
            const bool wasDone = printing.wait_for(std::chrono::seconds(30)) == std::future_status::ready;
            const ssize_t size = ::read(pipe.reader.get(), first.data(), first.size());

            // When the pipe has room again, lines are written again.
            auto rest = std::async(std::launch::async, [&pipe] { return drain(pipe.reader); });
            printing.wait();
            printLine("seen");
            redirection.restore();
            const std::string last = rest.get();
            QVERIFY(wasDone);
            QVERIFY(size > 0);
            QCOMPARE(static_cast<size_t>(size) % (line.size() + 1), size_t(0));
            QCOMPARE(last, std::string("seen\n"));
        }
    }
};

HARBEX_TEST(TestStandardOutput)

#include "tst_StandardOutput.moc"
