#include "support/MovePlaces.h"
#include "support/TestMain.h"

#include <algorithm>
#include <cstring>
#include <linux/fs.h>
#include <random>
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
    std::ranges::generate(bytes, [random = std::minstd_rand()]() mutable { return char(random()); });
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

/// The content of a file that is moved to another volume, with and without unnamed files.
class TestFileCopy : public QObject, private MovePlaces
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase_data()
    {
        QTest::addColumn<bool>("noUnnamedFiles");
        QTest::newRow("unnamed files") << false;
        QTest::newRow("no unnamed files") << true;
    }

    void init()
    {
        QFETCH_GLOBAL(const bool, noUnnamedFiles);
        lacks.unnamedFiles = noUnnamedFiles;
        makePlaces(folderOnAnotherVolume());
    }

    void filesOfAnySize()
    {
        for (const int size : {0, 1, 4095, 4096, 4097, 131'071, 131'072, 131'073, 10'000'000}) {
            clearPlaces();
            writeFile(source, someBytes(size_t(size)));
            QCOMPARE(move(), moved());
        }
    }

    void holes()
    {
        const std::vector<off_t> severalPlaces = {1 << 20, 1 << 22, 1 << 25, hugeSize / 2};
        for (const std::vector<off_t>& places : {{}, {0}, {hugeSize - 4}, severalPlaces}) {
            clearPlaces();
            writeFile(source, "");
            resizeFile(source, hugeSize);
            for (const off_t place : places)
                writeAt(source, place, "data");
            // Not with move(), which reads all of the file for the comparison.
            QCOMPARE(tryMove(), 0);
            const struct stat status = statusOf(target);
            QCOMPARE(status.st_size, hugeSize);
            QVERIFY2(status.st_blocks * 512 < 1'000'000, "the holes became blocks");
            for (const off_t place : places)
                QCOMPARE(readAt(target, place, 4), std::string("data"));
            QCOMPARE(readAt(target, hugeSize - 1, 10).size(), 1U);
            QVERIFY(!exists(source));
        }
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

    // As in the document portal of Debian 12.
    void aFileSystemThatTakesFilesForLinks()
    {
        writeFile(source, someBytes(300'000));
        int refusals = 0;
        const auto interceptor = [&](const InterceptedCall& call) {
            const auto flags = call.name == "openat" ? call.arguments[2] : 0;
            if ((flags & O_NOFOLLOW) == 0 || (flags & (O_PATH | O_DIRECTORY | O_CREAT)) != 0)
                return Answer::proceed();
            ++refusals;
            return Answer::fail(ELOOP);
        };
        QCOMPARE(move(interceptor), moved());
        QCOMPARE(refusals, 1);
    }

    void shortAndInterruptedReadsAndWrites()
    {
        for (const std::string name : {"pread64", "pwrite64"}) {
            clearPlaces();
            writeFile(source, someBytes(1'000'003));
            int transfers = 0;
            const auto interceptor = [&](const InterceptedCall& call) {
                const size_t size = call.arguments[2] / 3;
                if (call.name != name || call.ordinal % 3 == 0 || size == 0) return Answer::proceed();
                if (call.ordinal % 3 == 1) return Answer::fail(EINTR);
                // Transfers a third of the bytes instead of the child.
                ++transfers;
                const off_t at = off_t(call.arguments[3]);
                const FileDescriptor file = call.descriptor(0);
                if (name == "pwrite64") {
                    const std::string bytes = call.readMemory(call.arguments[1], size);
                    return Answer::give(::pwrite(file.get(), bytes.data(), bytes.size(), at));
                }
                std::string bytes(size, '\0');
                const ssize_t read = ::pread(file.get(), bytes.data(), bytes.size(), at);
                bytes.resize(size_t(read));
                call.writeMemory(call.arguments[1], bytes);
                return Answer::give(read);
            };
            QCOMPARE(move(interceptor), moved());
            QVERIFY(transfers > 3);
        }
    }

    void aWriteThatWritesNothing()
    {
        writeFile(source, someBytes(300'000));
        const auto interceptor = [](const InterceptedCall& call) {
            return call.name == "pwrite64" && call.ordinal == 2 ? Answer::give(0) : Answer::proceed();
        };
        QCOMPARE(move(interceptor), kept(EIO));
    }

    // A simulated file system that supports reflinks.
    void sharedBlocks()
    {
        for (const char* more : {"", "!"}) {
            clearPlaces();
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
            const bool isTooLong = *more != '\0';
            QCOMPARE(move(interceptor), isTooLong ? kept(EBUSY) : moved());
            QCOMPARE(clones, 1);
            QCOMPARE(run.count("pread64") + run.count("copy_file_range"), 0);
        }
    }

    // Within one file system, where copy_file_range() works. It copies some parts here, and then no more.
    void theKernelCopies()
    {
        makePlaces();
        for (const Answer& noMore : {Answer::give(0), Answer::fail(EXDEV)}) {
            for (const size_t parts : {0U, 1U, 4U}) {
                clearPlaces();
                writeFile(source, someBytes(3'000'003));
                const auto interceptor = [&](const InterceptedCall& call) {
                    if (call.name == "ioctl") return Answer::fail(EOPNOTSUPP);
                    if (call.name != "copy_file_range") return crossing(call);
                    if (call.ordinal > parts) return noMore;
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
                QCOMPARE(run.count("pread64") == 1, parts == 4);
            }
        }
    }
};

HARBEX_TEST(TestFileCopy)

#include "tst_FileCopy.moc"
