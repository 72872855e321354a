#include "support/InterceptedMove.h"
#include "support/TestMain.h"
#include "support/TreeSnapshot.h"

#include <array>
#include <chrono>
#include <csignal>
#include <cstring>
#include <linux/fs.h>
#include <memory>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// Content that is another at every place.
std::string someBytes(size_t size)
{
    std::string bytes(size, '\0');
    uint32_t state = 12345;
    for (char& byte : bytes) {
        state = state * 1664525 + 1013904223;
        byte = static_cast<char>(state >> 24U);
    }
    return bytes;
}

void writeAt(const std::string& path, off_t at, const std::string& bytes)
{
    const FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    QCOMPARE(::pwrite(file.get(), bytes.data(), bytes.size(), at), ssize_t(bytes.size()));
}

std::string readAt(const std::string& path, off_t at, size_t size)
{
    std::string bytes(size, '?');
    const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    const ssize_t read = ::pread(file.get(), bytes.data(), bytes.size(), at);
    bytes.resize(read < 0 ? 0 : size_t(read));
    return bytes;
}

} // namespace

/// What becomes of the content of a file on its way to another volume.
class TestFileCopy : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void filesOfAnySize_data();
    void filesOfAnySize();
    void holes_data();
    void holes();
    void holesThatTheSourceDoesNotTell();
    void shortAndInterruptedReadsAndWrites_data();
    void shortAndInterruptedReadsAndWrites();
    void slowReads_data();
    void slowReads();
    void aWriteThatWritesNothing();
    void sharedBlocks_data();
    void sharedBlocks();
    void largerThanFilesMayBe_data();
    void largerThanFilesMayBe();
    void theKernelCopies();

private:
    /// What has to hold after a move that failed.
    void expectNothingHappened(const QByteArray& before) const;

    std::unique_ptr<ScratchFolder> m_here;
    std::unique_ptr<ScratchFolder> m_there;
    std::string m_source;
    std::string m_out;
    std::string m_target;
};

void TestFileCopy::init()
{
    m_here = std::make_unique<ScratchFolder>();
    m_there = std::make_unique<ScratchFolder>(folderOnAnotherVolume());
    m_source = m_here->makeFolder("in") + "/source.dat";
    m_out = m_there->makeFolder("out");
    m_target = m_out + "/target.dat";
}

void TestFileCopy::cleanup()
{
    m_here.reset();
    m_there.reset();
}

void TestFileCopy::filesOfAnySize_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<bool>("unnamedFiles");
    for (const int size : {0, 1, 4095, 4096, 4097, 131'071, 131'072, 131'073, 10'000'000}) {
        QTest::addRow("%d bytes", size) << size << true;
        QTest::addRow("%d bytes, no files without a name", size) << size << false;
    }
}

void TestFileCopy::filesOfAnySize()
{
    QFETCH(const int, size);
    QFETCH(const bool, unnamedFiles);
    writeFile(m_source, someBytes(size_t(size)));
    const QByteArray before = pictureOf(m_source);
    const InterceptedRun run = moveGated(m_source, m_target, Lacks{.unnamedFiles = !unnamedFiles});
    QCOMPARE(run.error, 0);
    QCOMPARE(pictureOf(m_target), before);
    QVERIFY(!exists(m_source));
    QCOMPARE(namesIn(m_out), QByteArrayList{"target.dat"});
}

void TestFileCopy::holes_data()
{
    QTest::addColumn<QList<qint64>>("places");
    QTest::addColumn<bool>("unnamedFiles");
    const qint64 gigabyte = 1 << 30;
    QTest::newRow("a hole only") << QList<qint64>() << true;
    QTest::newRow("data first") << QList<qint64>{0} << true;
    QTest::newRow("data last") << QList<qint64>{gigabyte - 4} << true;
    QTest::newRow("data here and there") << QList<qint64>{1 << 20, 1 << 22, 1 << 25, gigabyte / 2} << true;
    QTest::newRow("no files without a name") << QList<qint64>{1 << 20, gigabyte / 2} << false;
}

void TestFileCopy::holes()
{
    QFETCH(const QList<qint64>, places);
    QFETCH(const bool, unnamedFiles);
    constexpr off_t size = 1 << 30;
    writeFile(m_source, "");
    QCOMPARE(::truncate(m_source.c_str(), size), 0);
    for (const qint64 place : places)
        writeAt(m_source, place, "data");
    const std::array<timespec, 2> times = {{{1'000'000'000, 1}, {1'234'567'890, 987'654'321}}};
    QCOMPARE(::utimensat(AT_FDCWD, m_source.c_str(), times.data(), 0), 0);

    QCOMPARE(moveGated(m_source, m_target, Lacks{.unnamedFiles = !unnamedFiles}).error, 0);
    struct stat moved = {};
    QCOMPARE(::stat(m_target.c_str(), &moved), 0);
    QCOMPARE(moved.st_size, size);
    QVERIFY2(moved.st_blocks * 512 < 1'000'000, "the holes became blocks");
    QCOMPARE(moved.st_mtim.tv_sec, times[1].tv_sec);
    QCOMPARE(moved.st_mtim.tv_nsec, times[1].tv_nsec);
    for (const qint64 place : places)
        QCOMPARE(readAt(m_target, place, 4), std::string("data"));
    QCOMPARE(readAt(m_target, size - 1, 10).size(), 1U);
    QVERIFY(!exists(m_source));
}

void TestFileCopy::holesThatTheSourceDoesNotTell()
{
    writeFile(m_source, "begin");
    QCOMPARE(::truncate(m_source.c_str(), 3'000'000), 0);
    writeAt(m_source, 2'000'000, "middle");
    const QByteArray before = pictureOf(m_source);
    const InterceptedRun run = moveGated(m_source, m_target, [](const InterceptedCall& call) {
        return call.name == "lseek" ? Answer::fail(EINVAL) : Answer::proceed();
    });
    QCOMPARE(run.error, 0);
    QCOMPARE(pictureOf(m_target), before);
}

void TestFileCopy::shortAndInterruptedReadsAndWrites_data()
{
    QTest::addColumn<QByteArray>("call");
    QTest::addColumn<bool>("interrupted");
    for (const char* call : {"pread64", "pwrite64"}) {
        QTest::addRow("short %s", call) << QByteArray(call) << false;
        QTest::addRow("interrupted %s", call) << QByteArray(call) << true;
    }
}

void TestFileCopy::shortAndInterruptedReadsAndWrites()
{
    QFETCH(const QByteArray, call);
    QFETCH(const bool, interrupted);
    writeFile(m_source, someBytes(1'000'003));
    const QByteArray before = pictureOf(m_source);
    int short_ = 0;
    const auto keeper = [&](const InterceptedCall& gated) {
        if (gated.name != call.toStdString() || gated.ordinal % 2 == 0) return Answer::proceed();
        if (interrupted) return Answer::fail(EINTR);
        // Does a third of what was asked for, in place of the child.
        const size_t size = gated.arguments[2] / 3;
        const off_t at = off_t(gated.arguments[3]);
        if (size == 0) return Answer::proceed();
        ++short_;
        const FileDescriptor file = gated.descriptor(0);
        if (gated.name == "pwrite64") {
            const std::string bytes = gated.readMemory(gated.arguments[1], size);
            return Answer::give(::pwrite(file.get(), bytes.data(), bytes.size(), at));
        }
        std::string bytes(size, '\0');
        const ssize_t read = ::pread(file.get(), bytes.data(), bytes.size(), at);
        bytes.resize(size_t(read));
        gated.writeMemory(gated.arguments[1], bytes);
        return Answer::give(read);
    };
    QCOMPARE(moveGated(m_source, m_target, keeper).error, 0);
    QVERIFY(interrupted || short_ > 3);
    QCOMPARE(pictureOf(m_target), before);
    QVERIFY(!exists(m_source));
}

void TestFileCopy::expectNothingHappened(const QByteArray& before) const
{
    QCOMPARE(pictureOf(m_source), before);
    QCOMPARE(namesIn(m_out), QByteArrayList());
}

void TestFileCopy::slowReads_data()
{
    QTest::addColumn<bool>("byTheKernel");
    QTest::newRow("read and written") << false;
    QTest::newRow("the kernel copies") << true;
}

void TestFileCopy::slowReads()
{
    QFETCH(const bool, byTheKernel);
    const std::string target = byTheKernel ? m_here->makeFolder("out") + "/target" : m_target;
    writeFile(m_source, someBytes(byTheKernel ? 20'000'003 : 1'000'003));
    const QByteArray before = pictureOf(m_source);
    int slow = 0;
    const auto keeper = [&](const InterceptedCall& call) {
        if (call.name == "ioctl") return Answer::fail(EOPNOTSUPP);
        if (call.name == "pread64" || call.name == "copy_file_range" || call.name == "read") {
            ++slow;
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
        }
        return byTheKernel ? crossing(call) : Answer::proceed();
    };
    QCOMPARE(moveGated(m_source, target, keeper).error, 0);
    QVERIFY(slow > 3);
    QCOMPARE(pictureOf(target), before);
    QVERIFY(!exists(m_source));
}

void TestFileCopy::aWriteThatWritesNothing()
{
    writeFile(m_source, someBytes(300'000));
    const QByteArray before = pictureOf(m_source);
    const InterceptedRun run = moveGated(m_source, m_target, [](const InterceptedCall& call) {
        return call.name == "pwrite64" && call.ordinal == 2 ? Answer::give(0) : Answer::proceed();
    });
    QCOMPARE(run.error, EIO);
    expectNothingHappened(before);
}

void TestFileCopy::sharedBlocks_data()
{
    QTest::addColumn<QByteArray>("more");
    QTest::addColumn<bool>("unnamedFiles");
    QTest::newRow("whole") << QByteArray() << true;
    QTest::newRow("whole, no files without a name") << QByteArray() << false;
    QTest::newRow("one byte too much") << QByteArray("!") << true;
    QTest::newRow("one byte too much, no files without a name") << QByteArray("!") << false;
}

// As a file system does it that can let two files share their blocks.
void TestFileCopy::sharedBlocks()
{
    QFETCH(const QByteArray, more);
    QFETCH(const bool, unnamedFiles);
    writeFile(m_source, someBytes(300'000));
    const QByteArray before = pictureOf(m_source);
    const QByteArray shared = contents(m_source) + more;
    int clones = 0;
    const auto keeper = [&](const InterceptedCall& call) {
        if (call.name != "ioctl" || call.arguments[1] != FICLONE) return Answer::proceed();
        ++clones;
        const FileDescriptor target = call.descriptor(0);
        const ssize_t written = ::pwrite(target.get(), shared.constData(), size_t(shared.size()), 0);
        return written == shared.size() ? Answer::give(0) : Answer::fail(EIO);
    };
    const InterceptedRun run = moveGated(m_source, m_target, Lacks{.unnamedFiles = !unnamedFiles}, keeper);
    QCOMPARE(clones, 1);
    QCOMPARE(run.error, more.isEmpty() ? 0 : EBUSY);
    if (!more.isEmpty()) {
        expectNothingHappened(before);
        return;
    }
    QCOMPARE(pictureOf(m_target), before);
    QVERIFY(!exists(m_source));
    QCOMPARE(namesIn(m_out), QByteArrayList{"target.dat"});
    for (const std::string& label : run.calls)
        QVERIFY2(!label.starts_with("pread64") && !label.starts_with("copy_file_range"), label.c_str());
}

void TestFileCopy::largerThanFilesMayBe_data()
{
    QTest::addColumn<bool>("isSparse");
    QTest::addColumn<bool>("unnamedFiles");
    QTest::newRow("data") << false << true;
    QTest::newRow("data, no files without a name") << false << false;
    QTest::newRow("a hole") << true << true;
    QTest::newRow("a hole, no files without a name") << true << false;
}

void TestFileCopy::largerThanFilesMayBe()
{
    QFETCH(const bool, isSparse);
    QFETCH(const bool, unnamedFiles);
    writeFile(m_source, someBytes(isSparse ? 1000 : 200'000));
    if (isSparse) QCOMPARE(::truncate(m_source.c_str(), 200'000), 0);
    const QByteArray before = pictureOf(m_source);
    const InterceptedRun run = runIntercepted(
        {"openat"},
        [this]() -> Outcome<void> {
            std::signal(SIGXFSZ, SIG_IGN);
            const rlimit small = {100'000, 100'000};
            if (::setrlimit(RLIMIT_FSIZE, &small) != 0) return SystemError::last();
            return FileMove().moveItem(m_source, m_target);
        },
        [unnamedFiles](const InterceptedCall& call) {
            return Lacks{.unnamedFiles = !unnamedFiles}.refuses(call).value_or(Answer::proceed());
        });
    QCOMPARE(run.error, EFBIG);
    expectNothingHappened(before);
}

// Within one file system, where the kernel can copy by itself.
void TestFileCopy::theKernelCopies()
{
    const std::string target = m_here->makeFolder("out") + "/target";
    for (const char* trouble :
         {"none", "short", "stops early", "EINTR", "EIO", "EXDEV", "EINVAL", "ENOSYS", "EPERM"}) {
        const std::string name = trouble;
        writeFile(m_source, someBytes(3'000'003));
        const QByteArray before = pictureOf(m_source);
        size_t read = 0;
        const auto keeper = [&](const InterceptedCall& call) {
            if (call.name == "ioctl") return Answer::fail(EOPNOTSUPP);
            if (call.name == "pread64") ++read;
            if (call.name != "copy_file_range" || name == "none") return crossing(call);
            if (name == "EINTR") return Answer::fail(EINTR);
            if (name == "EIO") return Answer::fail(EIO);
            if (name == "EXDEV") return Answer::fail(EXDEV);
            if (name == "EINVAL") return Answer::fail(EINVAL);
            if (name == "ENOSYS") return Answer::fail(ENOSYS);
            if (name == "EPERM") return Answer::fail(EPERM);
            if (name == "stops early" && call.ordinal == 2) return Answer::give(0);
            // A million bytes at a time.
            const auto offset = [&call](size_t argument) {
                off_t value = 0;
                std::memcpy(&value, call.readMemory(call.arguments[argument], sizeof value).data(),
                            sizeof value);
                return value;
            };
            off_t in = offset(1);
            off_t out = offset(3);
            return Answer::give(::copy_file_range(call.descriptor(0).get(), &in, call.descriptor(2).get(),
                                                  &out, std::min<size_t>(call.arguments[4], 1'000'000), 0));
        };
        const InterceptedRun run = moveGated(m_source, target, keeper);
        QVERIFY2(run.error == 0, trouble);
        QVERIFY2(pictureOf(target) == before, trouble);
        QVERIFY(!exists(m_source));
        // The one read looks for an end beyond the end.
        const bool byKernel = name == "none" || name == "short";
        QVERIFY2(byKernel == (read == 1), trouble);
        removeEntry(target);
    }
}

HARBEX_TEST_MAIN(TestFileCopy)

#include "tst_FileCopy.moc"
