#include "store/FolderStore.h"
#include "fuzz/Require.h"
#include "model/FolderListJson.h"
#include "support/ScratchHome.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// Returns the contents of the configuration file and of its backups.
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
    // Uses a file system in memory if possible, because each input writes several files.
    if (::access("/dev/shm", W_OK) == 0) qputenv("TMPDIR", "/dev/shm");
    home = new test::ScratchHome;
    std::atexit([] { delete home; });
    // Hides the lines that the store prints for every failure.
    const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    require(nowhere >= 0 && ::dup2(nowhere, STDOUT_FILENO) >= 0);
    return 0;
}

/// Uses any bytes as the configuration file. Loading and saving must not crash, and saving must keep what
/// could not be read.
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

    FolderState another;
    another.folders.push_back({QUuid::createUuid(), FileUrl::fromPath("/somewhere"), std::nullopt, {}});
    store.saveState(another);
    const FolderState saved = FolderStore().loadState({});
    require(saved.folders.size() == 1 && saved.folders[0].id == another.folders[0].id);
    // A list that could be decoded is replaced. Otherwise a backup of the list or of the whole file exists.
    // Other keys are kept.
    const QJsonDocument before = QJsonDocument::fromJson(bytes);
    QJsonObject object = before.object();
    const QJsonValue list = object.value(QStringLiteral("savedWatchedFolders"));
    const bool isUnderstood =
        bytes.isEmpty() || (before.isObject() && (list.isUndefined() || decodeFolderList(list)));
    const QByteArrayList kept = everythingKept(folder);
    const bool isKept =
        kept.contains(bytes) || kept.contains(QJsonDocument(list.toArray()).toJson(QJsonDocument::Compact));
    require(isUnderstood || isKept);
    QFile file(store.path());
    require(file.open(QIODevice::ReadOnly));
    const QJsonObject after = QJsonDocument::fromJson(file.readAll()).object();
    for (const char* key : {"savedWatchedFolders", "selectedWatchedFolderID"})
        object.remove(QLatin1String(key));
    for (const QString& key : object.keys())
        require(after.value(key) == object.value(key));
    return 0;
}
