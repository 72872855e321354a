#include "support/MovePlaces.h"
#include "support/TestMain.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <linux/fs.h>
#include <sys/resource.h>
#include <unistd.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// Larger than all memory and than most disks.
constexpr off_t hugeSize = off_t(1) << 42;

/// Returns bytes that differ from their neighbours.
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

/// The content of a file that is moved to another volume.
class TestFileCopy : public QObject, private MovePlaces
{
    Q_OBJECT

private Q_SLOTS:
    void init() { makePlaces(folderOnAnotherVolume()); }

    void filesOfAnySize_data()
    {
        QTest::addColumn<int>("size");
        QTest::addColumn<bool>("unnamedFiles");
        for (const int size : {0, 1, 4095, 4096, 4097, 131'071, 131'072, 131'073, 10'000'000}) {
            QTest::addRow("%d bytes", size) << size << true;
            QTest::addRow("%d bytes, no unnamed files", size) << size << false;
        }
    }

    void filesOfAnySize()
    {
        QFETCH(const int, size);
        QFETCH(const bool, unnamedFiles);
        writeFile(source, someBytes(size_t(size)));
        QCOMPARE(move(Lacks{.unnamedFiles = !unnamedFiles}), moved());
    }

    void holes_data()
    {
        QTest::addColumn<QList<qint64>>("places");
        QTest::addColumn<bool>("unnamedFiles");
        QTest::newRow("a hole only") << QList<qint64>() << true;
        QTest::newRow("data first") << QList<qint64>{0} << true;
        QTest::newRow("data last") << QList<qint64>{hugeSize - 4} << true;
        QTest::newRow("data here and there")
            << QList<qint64>{1 << 20, 1 << 22, 1 << 25, hugeSize / 2} << true;
        QTest::newRow("no unnamed files") << QList<qint64>{1 << 20, hugeSize / 2} << false;
    }

    void holes()
    {
        QFETCH(const QList<qint64>, places);
        QFETCH(const bool, unnamedFiles);
        writeFile(source, "");
        resizeFile(source, hugeSize);
        for (const qint64 place : places)
            writeAt(source, place, "data");
        QCOMPARE(moveIntercepted(source, target, Lacks{.unnamedFiles = !unnamedFiles}).error, 0);
        struct stat moved = {};
        QCOMPARE(::stat(target.c_str(), &moved), 0);
        QCOMPARE(moved.st_size, hugeSize);
        QVERIFY2(moved.st_blocks * 512 < 1'000'000, "the holes became blocks");
        for (const qint64 place : places)
            QCOMPARE(readAt(target, place, 4), std::string("data"));
        QCOMPARE(readAt(target, hugeSize - 1, 10).size(), 1U);
        QVERIFY(!exists(source));
    }

    void holesThatTheFileSystemDoesNotReport()
    {
        writeFile(source, "begin");
        resizeFile(source, 3'000'000);
        writeAt(source, 2'000'000, "middle");
        const auto interceptor = [](const InterceptedCall& call) {
            return call.name == "lseek" ? Answer::fail(EINVAL) : Answer::proceed();
        };
        QCOMPARE(move(interceptor), moved());
    }

    void shortAndInterruptedReadsAndWrites_data()
    {
        QTest::addColumn<QByteArray>("call");
        QTest::addColumn<bool>("interrupted");
        for (const char* call : {"pread64", "pwrite64"}) {
            QTest::addRow("short %s", call) << QByteArray(call) << false;
            QTest::addRow("interrupted %s", call) << QByteArray(call) << true;
        }
    }

    void shortAndInterruptedReadsAndWrites()
    {
        QFETCH(const QByteArray, call);
        QFETCH(const bool, interrupted);
        writeFile(source, someBytes(1'000'003));
        int short_ = 0;
        const auto interceptor = [&](const InterceptedCall& current) {
            if (current.name != call.toStdString() || current.ordinal % 2 == 0) return Answer::proceed();
            if (interrupted) return Answer::fail(EINTR);
            // Transfers a third of the bytes instead of the child.
            const size_t size = current.arguments[2] / 3;
            const off_t at = off_t(current.arguments[3]);
            if (size == 0) return Answer::proceed();
            ++short_;
            const FileDescriptor file = current.descriptor(0);
            if (current.name == "pwrite64") {
                const std::string bytes = current.readMemory(current.arguments[1], size);
                return Answer::give(::pwrite(file.get(), bytes.data(), bytes.size(), at));
            }
            std::string bytes(size, '\0');
            const ssize_t read = ::pread(file.get(), bytes.data(), bytes.size(), at);
            bytes.resize(size_t(read));
            current.writeMemory(current.arguments[1], bytes);
            return Answer::give(read);
        };
        QCOMPARE(move(interceptor), moved());
        QVERIFY(interrupted || short_ > 3);
    }

    void aWriteThatWritesNothing()
    {
        writeFile(source, someBytes(300'000));
        const auto interceptor = [](const InterceptedCall& call) {
            return call.name == "pwrite64" && call.ordinal == 2 ? Answer::give(0) : Answer::proceed();
        };
        QCOMPARE(move(interceptor), kept(EIO));
    }

    void sharedBlocks_data()
    {
        QTest::addColumn<QByteArray>("more");
        QTest::addColumn<bool>("unnamedFiles");
        QTest::newRow("whole") << QByteArray() << true;
        QTest::newRow("whole, no unnamed files") << QByteArray() << false;
        QTest::newRow("one byte too much") << QByteArray("!") << true;
        QTest::newRow("one byte too much, no unnamed files") << QByteArray("!") << false;
    }

    // A simulated file system that supports reflinks.
    void sharedBlocks()
    {
        QFETCH(const QByteArray, more);
        QFETCH(const bool, unnamedFiles);
        writeFile(source, someBytes(300'000));
        const QByteArray shared = contents(source) + more;
        int clones = 0;
        const auto interceptor = [&](const InterceptedCall& call) {
            if (call.name != "ioctl" || call.arguments[1] != FICLONE) return Answer::proceed();
            ++clones;
            const FileDescriptor copy = call.descriptor(0);
            const ssize_t written = ::pwrite(copy.get(), shared.constData(), size_t(shared.size()), 0);
            return written == shared.size() ? Answer::give(0) : Answer::fail(EIO);
        };
        QCOMPARE(move(Lacks{.unnamedFiles = !unnamedFiles}, interceptor),
                 more.isEmpty() ? moved() : kept(EBUSY));
        QCOMPARE(clones, 1);
        QCOMPARE(run.count("pread64") + run.count("copy_file_range"), 0);
    }

    void aFileSizeLimit_data()
    {
        QTest::addColumn<bool>("isSparse");
        QTest::addColumn<bool>("unnamedFiles");
        QTest::newRow("data") << false << true;
        QTest::newRow("data, no unnamed files") << false << false;
        QTest::newRow("a hole") << true << true;
        QTest::newRow("a hole, no unnamed files") << true << false;
    }

    void aFileSizeLimit()
    {
        QFETCH(const bool, isSparse);
        QFETCH(const bool, unnamedFiles);
        writeFile(source, someBytes(isSparse ? 1000 : 200'000));
        if (isSparse) resizeFile(source, 200'000);
        remember();
        const auto work = [this]() -> Outcome<void> {
            std::signal(SIGXFSZ, SIG_IGN);
            const rlimit small = {100'000, 100'000};
            if (::setrlimit(RLIMIT_FSIZE, &small) != 0) return SystemError::last();
            return FileMove().moveItem(source, target);
        };
        const auto interceptor = [unnamedFiles](const InterceptedCall& call) {
            return Lacks{.unnamedFiles = !unnamedFiles}.refuses(call).value_or(Answer::proceed());
        };
        QCOMPARE(result(runIntercepted({"openat"}, work, interceptor).error), kept(EFBIG));
    }

    void theKernelCopies_data()
    {
        QTest::addColumn<int>("error");
        QTest::addColumn<bool>("byKernel");
        QTest::newRow("everything") << 0 << true;
        QTest::newRow("a part at a time") << 0 << true;
        QTest::newRow("stops early") << 0 << false;
        for (const int error : {EINTR, EIO, EXDEV, EINVAL, ENOSYS, EPERM})
            QTest::newRow(strerrorname_np(error)) << error << false;
    }

    // Within one file system, where copy_file_range() works.
    void theKernelCopies()
    {
        QFETCH(const int, error);
        QFETCH(const bool, byKernel);
        const QByteArray trouble = QTest::currentDataTag();
        makePlaces();
        writeFile(source, someBytes(3'000'003));
        const auto interceptor = [&](const InterceptedCall& call) {
            if (call.name == "ioctl") return Answer::fail(EOPNOTSUPP);
            if (call.name != "copy_file_range" || trouble == "everything") return crossing(call);
            if (error != 0) return Answer::fail(error);
            if (trouble == "stops early" && call.ordinal == 2) return Answer::give(0);
            // A million bytes at a time.
            const auto offset = [&call](size_t argument) {
                off_t value = 0;
                std::memcpy(&value, call.readMemory(call.arguments[argument], sizeof value).data(),
                            sizeof value);
                return value;
            };
            off_t inOffset = offset(1);
            off_t outOffset = offset(3);
            const size_t size = std::min<size_t>(call.arguments[4], 1'000'000);
            return Answer::give(::copy_file_range(call.descriptor(0).get(), &inOffset,
                                                  call.descriptor(2).get(), &outOffset, size, 0));
        };
        QCOMPARE(move(interceptor), moved());
        // Only the check for the end of the source reads.
        QCOMPARE(run.count("pread64") == 1, byKernel);
    }
};

HARBEX_TEST(TestFileCopy)

#include "tst_FileCopy.moc"
