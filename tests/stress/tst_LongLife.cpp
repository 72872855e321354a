#include "support/CapturedOutput.h"
#include "support/EngineProbe.h"
#include "support/EngineResources.h"
#include "support/Stress.h"
#include "support/TestMain.h"

#include <array>
#include <fcntl.h>
#include <fstream>
#include <malloc.h>
#include <string>
#include <unistd.h>
#include <vector>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// Returns the resident memory of the process, in bytes.
size_t residentMemory()
{
    size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages >> pages;
    return pages * size_t(::sysconf(_SC_PAGESIZE));
}

/// Resources in use, without freed memory that the allocator keeps.
struct Use {
    size_t memory = (::malloc_trim(0), residentMemory());
    /// The allocated memory, in bytes.
    size_t held = ::mallinfo2().uordblks + ::mallinfo2().hblkhd;
    size_t descriptors = descriptorCount();
    size_t threads = threadCount();
};

void print(const char* when, const Use& use)
{
    qInfo("%s: %.1f MiB resident, %zu bytes held, %zu descriptors, %zu threads", when,
          double(use.memory) / (1 << 20), use.held, use.descriptors, use.threads);
}

} // namespace

/// The resources of an engine do not grow while it moves entries.
class TestLongLife : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void resourcesDoNotGrow()
    {
        constexpr size_t batch = 1'000;
        constexpr size_t settled = 2'000;
        const size_t count = stressSize(size_t(8'000), size_t(1'000'000));
        const FileDescriptor nowhere(::open("/dev/null", O_WRONLY | O_CLOEXEC));
        const RedirectedOutput redirected(nowhere.get());
        // The first volume is in memory, so that the disk costs little time.
        const ScratchFolder scratch(folderOnAnotherVolume());
        const ScratchFolder far;
        const std::string inbox = scratch.makeFolder("inbox");
        const std::array<std::string, 2> outs = {scratch.makeFolder("out"), far.makeFolder("out")};

        DownloadImageRedirector engine;
        // Every fiftieth file is copied to another volume. For every hundredth the first rule fails.
        QVERIFY(startAndWait(engine, {watched(inbox, {extensionIs("pdf", scratch.path() + "/missing"),
                                                      extensionIs("far", outs[1]), takeAll(outs[0])})}));
        QCOMPARE(engine.threadCount(), 0U);
        const Use start;
        Use then;
        for (size_t done = 0; done < count; done += batch) {
            for (size_t i = done; i < done + batch; ++i) {
                const char* const extension = i % 100 == 7 ? ".pdf" : i % 50 == 3 ? ".far" : ".jpg";
                scratch.arrive(inbox + "/a name of usual length " + std::to_string(i) + extension, {});
            }
            // The staging directory of a copy is an entry too.
            QTRY_VERIFY_WITH_TIMEOUT(namesIn(inbox).isEmpty() &&
                                         namesIn(outs[0]).size() + namesIn(outs[1]).size() ==
                                             qsizetype(batch),
                                     patience);
            for (const std::string& out : outs) {
                for (const QByteArray& name : namesIn(out))
                    removeEntry(out + '/' + name.toStdString());
            }
            if (done + batch == settled) then = Use();
        }
        QTRY_COMPARE_WITH_TIMEOUT(engine.threadCount(), 1U, patience);
        const Use now;
        print("after the first entries", then);
        print("after the last entry", now);
        QCOMPARE(now.descriptors, start.descriptors);
        QCOMPARE(now.threads, start.threads + 1);
        // In brief less than two bytes per move, in full much less than one.
        QVERIFY(now.held <= then.held + (8U << 10U));
        // The allocator returns whole pages only.
        QVERIFY(now.memory <= then.memory + (4U << 20U));
        reportRuns(count);
    }
};

HARBEX_MAIN(TestLongLife)
{
    // Starts this program again without the allocator's cache of freed blocks, because the blocks that each
    // thread keeps there count as allocated. The C library reads this setting only at the start.
    if (!qEnvironmentVariableIsSet("GLIBC_TUNABLES")) {
        qputenv("GLIBC_TUNABLES", "glibc.malloc.tcache_count=0");
        // The name of the program comes before that of the class.
        ::execv("/proc/self/exe", argv - 1);
        qFatal("The program cannot start itself.");
    }
    return runTest<QCoreApplication, TestLongLife>(argc, argv);
}

#include "tst_LongLife.moc"
