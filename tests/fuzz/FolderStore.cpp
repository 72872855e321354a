#include "store/FolderStore.h"
#include "fuzz/Require.h"
#include "model/FolderListJson.h"
#include "store/PreferencesFile.h"
#include "support/ScratchHome.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// What the preferences and what was put aside hold, one after the other.
QByteArrayList everythingKept(const QString& folder)
{
    QByteArrayList contents;
    for (const QFileInfo& info : QDir(folder).entryInfoList(QDir::Files | QDir::Hidden)) {
        QFile file(info.filePath());
        require(file.open(QIODevice::ReadOnly));
        contents << file.readAll();
    }
    return contents;
}

test::ScratchHome* home = nullptr;

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // In memory, where that is possible: each input is a file that is written and replaced.
    if (::access("/dev/shm", W_OK) == 0) qputenv("TMPDIR", "/dev/shm");
    home = new test::ScratchHome;
    std::atexit([] { delete home; });
    // The lines that tell of every failure are not what is looked for here.
    const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    require(nowhere >= 0 && ::dup2(nowhere, STDOUT_FILENO) >= 0);
    return 0;
}

/// Any bytes as the file of the preferences: it is loaded, and a save neither crashes nor loses what could
/// not be read.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char*>(data), qsizetype(size));
    FolderStore store;
    const QString folder = QFileInfo(store.path()).path();
    QDir(folder).removeRecursively();
    require(QDir().mkpath(folder));
    {
        QFile file(store.path());
        require(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size());
    }

    const FolderState loaded = store.loadState({});
    require(everythingKept(folder) == QByteArrayList{bytes});
    require(loaded.selectedFolderID.has_value() == !loaded.folders.empty());
    const FolderState again = FolderStore().loadState({});
    require(again.folders.size() == loaded.folders.size() &&
            again.selectedFolderID == loaded.selectedFolderID);

    const auto before = parsePreferences(bytes);
    require(before.has_value());
    FolderState another;
    another.folders.push_back({QUuid::createUuid(), FileUrl::fromPath("/somewhere"), std::nullopt, {}});
    store.saveState(another);
    const FolderState saved = FolderStore().loadState({});
    require(saved.folders.size() == 1 && saved.folders[0].id == another.folders[0].id);
    // A list that was understood has been replaced; one that was not is there, by itself or in the whole
    // file.
    const bool isUnderstood =
        !before->isDamaged &&
        (!before->hasFolderList || (before->folderList && decodeFolderList(*before->folderList)));
    const QByteArrayList kept = everythingKept(folder);
    const bool isKept = kept.contains(bytes) || (before->folderList && kept.contains(*before->folderList));
    require(isUnderstood || isKept);
    return 0;
}
