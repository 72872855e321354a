#include "support/CapturedOutput.h"
#include "support/EngineOutput.h"
#include "support/EngineProbe.h"
#include "support/EngineResources.h"
#include "support/Stress.h"

#include <array>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <malloc.h>
#include <unistd.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// The memory that the process really uses, in bytes.
size_t residentMemory()
{
    size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages >> pages;
    return pages * size_t(::sysconf(_SC_PAGESIZE));
}

/// What was asked of the allocator and not given back, in bytes.
size_t heldMemory()
{
    const struct mallinfo2 heap = ::mallinfo2();
    return heap.uordblks + heap.hblkhd;
}

/// What is in use; what was freed and only kept by the allocator is none of it.
struct Use {
    size_t memory = (::malloc_trim(0), residentMemory());
    size_t held = heldMemory();
    size_t descriptors = descriptorCount();
    size_t threads = threadCount();
};

void print(const char* when, const Use& use)
{
    qInfo("%s: %.1f MiB resident, %zu bytes held, %zu descriptors, %zu threads", when,
          double(use.memory) / (1 << 20), use.held, use.descriptors, use.threads);
}

size_t countEntries(const std::string& folder)
{
    return size_t(
        std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator()));
}

} // namespace

/// One engine that moves and moves: what it uses does not grow.
class TestLongLife : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void theLastEntryCostsNoMoreThanTheTenThousandth();
};

void TestLongLife::theLastEntryCostsNoMoreThanTheTenThousandth()
{
    constexpr size_t batch = 2'000;
    constexpr size_t settled = 10'000;
    const size_t count = stressSize(size_t(20'000), size_t(1'000'000));
    const FileDescriptor nowhere(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    const RedirectedOutput redirected(nowhere.get());
    const ScratchFolder scratch;
    const ScratchFolder far(folderOnAnotherVolume());
    const std::string prepared = scratch.makeFolder("prepared");
    const std::string inbox = scratch.makeFolder("inbox");
    const std::array<std::string, 2> outs = {scratch.makeFolder("out"), far.makeFolder("out")};

    DownloadImageRedirector engine;
    // Every tenth goes to another volume, so that copying is part of a long life too; for every hundredth the
    // first rule fails.
    QVERIFY(startAndWait(
        engine, {watched(inbox, {takeExtension(RuleOperator::isEqual, "pdf", scratch.path() + "/missing"),
                                 takeExtension(RuleOperator::isEqual, "far", outs[1]), takeAll(outs[0])})}));
    Use then;
    for (size_t done = 0; done < count; done += batch) {
        for (size_t i = done; i < done + batch; ++i) {
            const std::string name = "/a name of usual length " + std::to_string(i) +
                                     (i % 100 == 7  ? ".pdf"
                                      : i % 10 == 3 ? ".far"
                                                    : ".jpg");
            writeFile(prepared + name, "");
            renameEntry(prepared + name, inbox + name);
        }
        QTRY_VERIFY_WITH_TIMEOUT(countEntries(outs[0]) + countEntries(outs[1]) == batch, patience);
        for (const std::string& out : outs) {
            for (const QByteArray& name : namesIn(out))
                removeEntry(out + '/' + name.toStdString());
        }
        QCOMPARE(countEntries(inbox), 0U);
        if (done + batch != settled) continue;
        QTRY_COMPARE_WITH_TIMEOUT(engine.threadCount(), 1U, patience);
        then = Use();
        print("after 10,000 entries", then);
    }
    QTRY_COMPARE_WITH_TIMEOUT(engine.threadCount(), 1U, patience);
    const Use now;
    print("after the last entry", now);
    QCOMPARE(now.descriptors, then.descriptors);
    QCOMPARE(now.threads, then.threads);
    // Less than half a byte for every entry in the full form, and in brief less than the smallest leak a
    // move.
    QVERIFY(now.held <= then.held + (256U << 10U));
    // What the allocator cannot give back for want of whole pages comes on top.
    QVERIFY(now.memory <= then.memory + (4U << 20U));
    reportRuns(count);
}

HARBEX_ENGINE_TEST_MAIN(TestLongLife)

#include "tst_LongLife.moc"
