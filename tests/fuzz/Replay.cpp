#include "support/RandomSeed.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
// Not every fuzz target defines it.
extern "C" [[gnu::weak]] int LLVMFuzzerInitialize(int* argc, char*** argv);

/// Passes each file of a folder to a fuzz target, and `copies` randomly damaged copies of it. If a
/// requirement fails, the program aborts. The name and the seed that were printed last repeat the input.
///
/// usage: replay_TARGET FOLDER COPIES
int main(int argc, char** argv)
{
    if (argc != 3) return 2;
    if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);
    const int copies = std::atoi(argv[2]);
    const auto pass = [](const QByteArray& bytes) {
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), size_t(bytes.size()));
    };
    std::mt19937 random = harbex::test::seededRandom();
    int count = 0;
    for (const QFileInfo& info : QDir(QString::fromUtf8(argv[1])).entryInfoList(QDir::Files)) {
        std::fprintf(stderr, "%s\n", qPrintable(info.fileName()));
        QFile file(info.filePath());
        if (!file.open(QIODevice::ReadOnly)) return 1;
        const QByteArray bytes = file.readAll();
        pass(bytes);
        for (int i = 0; i < copies; ++i)
            pass(harbex::test::randomlyDamaged(random, bytes));
        ++count;
    }
    return count > 0 ? 0 : 1;
}
