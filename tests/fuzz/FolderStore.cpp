#include "store/FolderStore.h"
#include "fuzz/Require.h"
#include "model/FolderListJson.h"
#include "support/EngineFiles.h"
#include "support/ScratchHome.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <unistd.h>

using namespace harbex;
using namespace harbex::test;
namespace fs = std::filesystem;

namespace
{

/// Returns the contents of the configuration file and of its backups.
QByteArrayList everythingKept(const std::string& folder)
{
    QByteArrayList all;
    for (const QByteArray& name : namesIn(folder))
        all << contents(folder + '/' + name.toStdString());
    return all;
}

ScratchHome* home = nullptr;

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // Uses a file system in memory if possible, because each input writes several files.
    if (::access("/dev/shm", W_OK) == 0) qputenv("TMPDIR", "/dev/shm");
    home = new ScratchHome;
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
    const std::string path = store.path().toStdString();
    const std::string folder = fs::path(path).parent_path();
    fs::remove_all(folder);
    fs::create_directories(folder);
    writeFile(path, bytes.toStdString());

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
    const QJsonDocument before = QJsonDocument::fromJson(bytes);
    const QJsonValue list = before.object().value(QStringLiteral("savedWatchedFolders"));
    const bool isUnderstood =
        bytes.isEmpty() || (before.isObject() && (list.isUndefined() || decodeFolderList(list)));
    const QByteArrayList kept = everythingKept(folder);
    const bool isWholeKept = kept.contains(bytes);
    require(isUnderstood || isWholeKept ||
            kept.contains(QJsonDocument(list.toArray()).toJson(QJsonDocument::Compact)));
    // Other keys are kept. toJson() drops a byte order mark at the start of a text.
    const QJsonObject others = QJsonDocument::fromJson(before.toJson()).object();
    const QJsonObject after = QJsonDocument::fromJson(contents(path)).object();
    for (const QString& key : others.keys()) {
        const bool isOurs =
            key == QLatin1String("savedWatchedFolders") || key == QLatin1String("selectedWatchedFolderID");
        require(isOurs || isWholeKept || after.value(key) == others.value(key));
    }
    return 0;
}
