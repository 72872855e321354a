#include "base/FileDescriptor.h"
#include "model/FolderListJson.h"
#include "store/Bookmark.h"
#include "store/FolderStore.h"
#include "support/CapturedOutput.h"
#include "support/PrivateMounts.h"
#include "support/RandomSeed.h"
#include "support/SyscallInterceptor.h"
#include "support/TestMain.h"

#include <QCryptographicHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include <algorithm>
#include <array>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

using namespace harbex;
using namespace harbex::test;
namespace fs = std::filesystem;

namespace
{

const char* const listKey = "savedWatchedFolders";
const char* const selectionKey = "selectedWatchedFolderID";
const char* const someID = "0F8E6C1A-1111-4222-8333-ABCDEFABCDEF";

/// A list of which somebody has removed a key.
const QByteArray brokenList = R"([{"id":"0F8E6C1A-1111-4222-8333-ABCDEFABCDEF","url":"file:///a"}])";

QString text(const char* utf8)
{
    return QString::fromUtf8(utf8);
}

/// The folder of the preferences; the home is the same for all tests of this program.
fs::path folder()
{
    return fs::path(qEnvironmentVariable("XDG_CONFIG_HOME").toStdString()) / "harbex";
}
fs::path preferences()
{
    return folder() / "harbex.json";
}
QString preferencesPath()
{
    return QString::fromStdString(preferences().string());
}

QByteArray contentOf(const fs::path& path)
{
    QFile file(QString::fromStdString(path.string()));
    if (!file.open(QIODevice::ReadOnly)) return "(cannot be read)";
    return file.readAll();
}

void writePreferences(const QByteArray& content)
{
    fs::create_directories(folder());
    QFile file(preferencesPath());
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(content) != content.size())
        qFatal("cannot write %s", qPrintable(preferencesPath()));
}

/// What somebody else finds in the preferences now.
QJsonValue stored(const char* key)
{
    return QJsonDocument::fromJson(contentOf(preferences())).object().value(text(key));
}

/// The stored list; empty when there is none.
QByteArray storedList()
{
    const QJsonValue list = stored(listKey);
    return list.isArray() ? QJsonDocument(list.toArray()).toJson(QJsonDocument::Compact) : QByteArray();
}

/// Puts a list and a selection into the preferences as any other program would; both are JSON.
void store(const QByteArray& list, const QByteArray& selection = {})
{
    QByteArrayList pairs;
    if (!list.isNull()) pairs << "\"savedWatchedFolders\":" + list;
    if (!selection.isNull()) pairs << "\"selectedWatchedFolderID\":" + selection;
    writePreferences('{' + pairs.join(',') + '}');
}

/// The names of the files beside the preferences, sorted.
QStringList asideNames()
{
    QStringList names;
    for (const auto& entry : fs::directory_iterator(folder()))
        names.append(QString::fromStdString(entry.path().filename().string()));
    names.removeOne(text("harbex.json"));
    names.sort();
    return names;
}

QString asideName(const char* stem, const QByteArray& content)
{
    const QByteArray hash = QCryptographicHash::hash(content, QCryptographicHash::Sha256).toHex().first(16);
    return text(stem) + u'-' + QString::fromLatin1(hash) + text(".json");
}
QString asideListName(const QByteArray& list)
{
    return asideName(listKey, list);
}

WatchedFolder folderAt(const std::string& path, std::vector<FilterRule> rules = {})
{
    return {.url = FileUrl::fromPath(path), .bookmarkData = {}, .rules = std::move(rules)};
}

/// Two folders, the second with a rule, and the second is selected.
FolderState someState()
{
    FilterRule rule;
    rule.value = text("invoice \u00e9");
    rule.destination = FileUrl::fromPath("/home/u/Invoices");
    FolderState state;
    state.folders = {folderAt("/home/u/Downloads"), folderAt("/home/u/Desktop", {rule})};
    state.selectedFolderID = state.folders[1].id;
    return state;
}

/// A state whose list is a little longer than `length`.
FolderState longState(qsizetype length = 3'000'000)
{
    FolderState state = someState();
    state.folders[0].rules.resize(1);
    state.folders[0].rules[0].value = QString(length, u'x');
    return state;
}

bool isSame(const FolderState& a, const FolderState& b)
{
    return a.selectedFolderID == b.selectedFolderID &&
           std::ranges::equal(a.folders, b.folders, [](const WatchedFolder& x, const WatchedFolder& y) {
               return x.id == y.id && x.url == y.url && x.bookmarkData == y.bookmarkData &&
                      x.rules == y.rules;
           });
}

QByteArray encoded(const FolderState& state)
{
    return QJsonDocument(*encodeFolderList(state.folders)).toJson(QJsonDocument::Compact);
}

/// The JSON under which a selection is stored.
QByteArray jsonOf(const QUuid& id)
{
    return '"' + uuidText(id).toLatin1() + '"';
}

struct Loaded {
    FolderState state;
    QStringList lines;
};

Loaded load(FolderStore& store, FolderState current = {})
{
    CapturedOutput output;
    FolderState state = store.loadState(std::move(current));
    return {std::move(state), output.lines()};
}

/// What a program that starts now loads.
Loaded loadFresh(FolderState current = {})
{
    FolderStore store;
    return load(store, std::move(current));
}

/// The lines that saving prints.
QStringList save(FolderStore& store, const FolderState& state)
{
    CapturedOutput output;
    store.saveState(state);
    return output.lines();
}

QStringList saveFresh(const FolderState& state)
{
    FolderStore store;
    return save(store, state);
}

QStringList writeFailure()
{
    return {text("Failed to write the preferences: ") + preferencesPath()};
}
QStringList readFailure()
{
    return {text("Failed to read the preferences: ") + preferencesPath()};
}

/// Makes this process an ordinary user, who owns the home of this test.
class OrdinaryUser
{
public:
    OrdinaryUser()
    {
        if (::geteuid() != 0) return;
        giveHomeTo(nobody);
        // The saved user id stays, for the way back.
        if (::setresuid(nobody, nobody, 0) != 0) qFatal("cannot become an ordinary user");
    }
    ~OrdinaryUser()
    {
        if (::setresuid(0, 0, 0) == 0) giveHomeTo(0);
    }
    OrdinaryUser(const OrdinaryUser&) = delete;
    OrdinaryUser& operator=(const OrdinaryUser&) = delete;

private:
    static constexpr uid_t nobody = 65534;

    static void giveHomeTo(uid_t user)
    {
        const fs::path home = qEnvironmentVariable("HOME").toStdString();
        give(home, user);
        for (const auto& entry : fs::recursive_directory_iterator(home))
            give(entry.path(), user);
    }

    static void give(const fs::path& path, uid_t user)
    {
        if (::lchown(path.c_str(), user, static_cast<gid_t>(-1)) != 0) qFatal("cannot give %s", path.c_str());
    }
};

/// Changes the rights of a file or folder for the length of a scope.
class Rights
{
public:
    Rights(fs::path path, unsigned rights) : m_path(std::move(path)), m_old(fs::status(m_path).permissions())
    {
        fs::permissions(m_path, static_cast<fs::perms>(rights));
    }
    ~Rights() { fs::permissions(m_path, m_old); }
    Rights(const Rights&) = delete;
    Rights& operator=(const Rights&) = delete;

private:
    fs::path m_path;
    fs::perms m_old;
};

/// Lets no file of this process grow beyond `bytes` for the length of a scope: writing more fails.
class FileSizeLimit
{
public:
    explicit FileSizeLimit(rlim_t bytes)
    {
        m_oldHandler = std::signal(SIGXFSZ, SIG_IGN);
        ::getrlimit(RLIMIT_FSIZE, &m_old);
        const rlimit limit{bytes, m_old.rlim_max};
        if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) qFatal("no limit of file sizes");
    }
    ~FileSizeLimit()
    {
        ::setrlimit(RLIMIT_FSIZE, &m_old);
        std::signal(SIGXFSZ, m_oldHandler);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    rlimit m_old = {};
    void (*m_oldHandler)(int) = nullptr;
};

/// How often a file or folder is opened by `work`, for reading or writing.
size_t opensOf(const fs::path& path, const std::function<void()>& work)
{
    size_t opens = 0;
    const InterceptedRun run = runIntercepted(
        {"open", "openat", "openat2"},
        [&work]() -> Outcome<void> {
            work();
            return {};
        },
        [&](const InterceptedCall& call) {
            opens += call.text(call.name == "open" ? 0 : 1) == path;
            return Answer::proceed();
        });
    return run.succeeded() ? opens : 0;
}

} // namespace

class TestFolderStore : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();

    // What is stored.
    void savedStateLoadsAgain();
    void savingWritesExactly_data();
    void savingWritesExactly();
    void linkStaysALink_data();
    void linkStaysALink();
    void linkToANameThatIsNoTextIsLeftAlone();
    void encodingFailurePrintsTheLiteralLineAndStoresNothing();

    // Loading.
    void nothingStoredLeavesTheListAsItIs_data();
    void nothingStoredLeavesTheListAsItIs();
    void storedEmptyListReplacesTheOneInMemory();
    void ruleWithoutKindLoadsAsEmptyPrintsOneLineAndTheNextSaveReplacesIt();
    void loadingNeverChangesWhatIsStored();
    void loadingAndSavingReadTheFileOnce();
    void decodingErrorIsOneLine();
    void selectedIsTheStoredFolderOrTheFirst_data();
    void selectedIsTheStoredFolderOrTheFirst();
    void withNoFoldersTheSelectionIsAbsentAndItsKeyIsRemovedByTheNextSave();
    void allZeroSelectionIsAnIdLikeAnyOther();

    // Bookmarks.
    void whatHasABookmarkThatResolvesGetsTheResolvedUrl();
    void folderWhoseBookmarkNoLongerResolvesKeepsItsStoredUrl();
    void rulesAreResolvedWhateverBecameOfTheirFolder();
    void bookmarksAreNotMadeAnewByLoading();

    // Nothing is lost.
    void whatCannotBeUsedIsPutAsideBeforeItIsReplaced_data();
    void whatCannotBeUsedIsPutAsideBeforeItIsReplaced();
    void sameListIsPutAsideOnce();
    void keyWithAByteOrderMarkHidesNothing();
    void goodListIsNotPutAside();
    void goodListThatWasNotSeenIsPutAside_data();
    void goodListThatWasNotSeenIsPutAside();
    void whatIsPutAsideHasTheRightsOfTheStore();
    void whatCannotBePutAsideIsNotReplaced();

    // Faults of the file system.
    void whatIsForbiddenPrintsOneLineAndChangesNothing_data();
    void whatIsForbiddenPrintsOneLineAndChangesNothing();
    void somethingElseInItsPlacePrintsOneLineAndGoesOn();
    void noRoomForTheFilePrintsOneLineAndKeepsTheOldOne();
    void fullDiskPrintsOneLineAndKeepsTheOldOne();
    void whatCouldNotBeWrittenIsLoadedAgain();
    void fileEditedSinceWinsOverWhatCouldNotBeWritten();
    void closedStandardOutputChangesNothing();

    // The file changes while the program runs.
    void fileEditedWhileRunningIsSeen();
    void fileDeletedWhileRunningIsSeen();

    void randomDamageNeverCrashesAndLosesNothing();
};

void TestFolderStore::init()
{
    fs::remove_all(folder());
    QCOMPARE(FolderStore().path(), preferencesPath());
}

void TestFolderStore::savedStateLoadsAgain()
{
    FolderState state = someState();
    state.folders[0].bookmarkData = QByteArray("no bookmark\0\xff", 13);
    state.folders[1].url = FileUrl::fromPath("/a \xff\n\u00e9");
    state.folders[1].rules[0].value = text("\\\"\n\U0001F600\x01") + QChar(u'\0');
    FolderStore folderStore;
    QCOMPARE(save(folderStore, state), QStringList());
    QCOMPARE(asideNames(), QStringList());
    for (const Loaded& loaded : {load(folderStore), loadFresh()}) {
        QCOMPARE(loaded.lines, QStringList());
        QVERIFY(isSame(loaded.state, state));
    }
}

void TestFolderStore::savingWritesExactly_data()
{
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<bool>("isEmpty");
    QTest::addColumn<QByteArray>("after");
    const QByteArray full =
        R"({"savedWatchedFolders":[{"id":"0F8E6C1A-1111-4222-8333-ABCDEFABCDEF","rules":[],"url":"file:///a"}],)"
        R"("selectedWatchedFolderID":"0F8E6C1A-1111-4222-8333-ABCDEFABCDEF"})";
    const QByteArray none = R"({"savedWatchedFolders":[]})";
    QTest::newRow("first") << QByteArray() << false << full;
    QTest::newRow("nothing, first") << QByteArray() << true << none;
    QTest::newRow("again") << none << false << full;
    QTest::newRow("nothing again") << full << true << none;
    QTest::newRow("other keys stay")
        << QByteArray(R"( {"other": [1, {"b":null}], "x":"\u00e9", "z":9007199254740993} )") << true
        << QByteArray("{\"other\":[1,{\"b\":null}],\"savedWatchedFolders\":[],\"x\":\"\u00e9\","
                      "\"z\":9007199254740993}");
}

void TestFolderStore::savingWritesExactly()
{
    QFETCH(const QByteArray, before);
    QFETCH(const bool, isEmpty);
    QFETCH(const QByteArray, after);
    if (!before.isNull()) writePreferences(before);
    FolderState state;
    if (!isEmpty) {
        const QUuid id(text(someID));
        state = {{{id, FileUrl::fromPath("/a"), {}, {}}}, id};
    }
    QCOMPARE(saveFresh(state), QStringList());
    QCOMPARE(contentOf(preferences()), after);
    QCOMPARE(asideNames(), QStringList());
}

void TestFolderStore::linkStaysALink_data()
{
    QTest::addColumn<bool>("isRelative");
    QTest::addColumn<bool>("hasTarget");
    QTest::newRow("link") << false << true;
    QTest::newRow("link to a relative link") << true << true;
    QTest::newRow("link to nothing") << false << false;
    QTest::newRow("link to a relative link to nothing") << true << false;
}

void TestFolderStore::linkStaysALink()
{
    QFETCH(const bool, isRelative);
    QFETCH(const bool, hasTarget);
    const QTemporaryDir elsewhere;
    const fs::path target = elsewhere.filePath(text("settings")).toStdString();
    const fs::path second = elsewhere.filePath(text("second")).toStdString();
    store("[]");
    fs::rename(preferences(), target);
    if (!hasTarget) fs::remove(target);
    if (isRelative) fs::create_symlink("settings", second);
    fs::create_symlink(isRelative ? second : target, preferences());
    const FolderState state = someState();
    QCOMPARE(saveFresh(state), QStringList());
    QVERIFY(fs::is_symlink(preferences()));
    QVERIFY(fs::is_regular_file(fs::symlink_status(target)));
    QVERIFY(isSame(loadFresh().state, state));
}

void TestFolderStore::linkToANameThatIsNoTextIsLeftAlone()
{
    const fs::path target = folder() / "settings\xff";
    store("[]");
    fs::rename(preferences(), target);
    fs::create_symlink(target, preferences());
    QCOMPARE(saveFresh(someState()), writeFailure());
    QVERIFY(fs::is_symlink(preferences()));
    QCOMPARE(storedList(), QByteArray("[]"));
    QCOMPARE(asideNames().size(), 1);
}

void TestFolderStore::encodingFailurePrintsTheLiteralLineAndStoresNothing()
{
    FolderState bad = someState();
    bad.folders[1].rules[0].value = QString(QChar(0xd800));
    const QStringList expected(QStringLiteral("Failed to save folders: \\(error)"));

    // Nothing was stored before.
    QCOMPARE(saveFresh(bad), expected);
    QVERIFY(!fs::exists(preferences()));
    // Something was.
    saveFresh(someState());
    const QByteArray before = contentOf(preferences());
    bad.selectedFolderID.reset();
    QCOMPARE(saveFresh(bad), expected);
    QCOMPARE(contentOf(preferences()), before);
}

void TestFolderStore::nothingStoredLeavesTheListAsItIs_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::newRow("no file") << QByteArray();
    QTest::newRow("empty file") << QByteArray("");
    QTest::newRow("empty object") << QByteArray("{}");
    QTest::newRow("other key") << QByteArray(R"({"other":[]})");
}

void TestFolderStore::nothingStoredLeavesTheListAsItIs()
{
    QFETCH(const QByteArray, content);
    if (!content.isNull()) writePreferences(content);
    const FolderState current = someState();
    const Loaded loaded = loadFresh(current);
    QCOMPARE(loaded.lines, QStringList());
    QVERIFY(isSame(loaded.state, {current.folders, current.folders[0].id}));
    QVERIFY(isSame(loadFresh().state, {}));
    QCOMPARE(fs::exists(preferences()), !content.isNull());
    // The selection is read all the same.
    store({}, jsonOf(current.folders[1].id));
    QVERIFY(isSame(loadFresh(current).state, current));
}

void TestFolderStore::storedEmptyListReplacesTheOneInMemory()
{
    store("[]");
    QVERIFY(isSame(loadFresh(someState()).state, {}));
}

void TestFolderStore::ruleWithoutKindLoadsAsEmptyPrintsOneLineAndTheNextSaveReplacesIt()
{
    const QByteArray list = encoded(someState()).replace("\"kind\":\"Image\",", "");
    QVERIFY(!list.contains("kind"));
    store(list, jsonOf(QUuid(text(someID))));

    FolderStore folderStore;
    const Loaded loaded = load(folderStore, someState());
    QCOMPARE(loaded.lines, QStringList(text("Failed to load folders: [1].rules[0].kind: missing key")));
    QVERIFY(isSame(loaded.state, {}));
    QCOMPARE(save(folderStore, loaded.state), QStringList());
    QCOMPARE(storedList(), QByteArray("[]"));
    QVERIFY(stored(selectionKey).isUndefined());
}

void TestFolderStore::loadingNeverChangesWhatIsStored()
{
    for (const QByteArray& list : {brokenList, encoded(someState()), QByteArray("5"), QByteArray("{")}) {
        store(list, "\"no UUID\"");
        const QByteArray before = contentOf(preferences());
        (void)loadFresh();
        (void)loadFresh(someState());
        QCOMPARE(contentOf(preferences()), before);
        QCOMPARE(asideNames(), QStringList());
    }
}

void TestFolderStore::loadingAndSavingReadTheFileOnce()
{
    for (const QByteArray& list : {brokenList, encoded(someState())}) {
        store(list);
        QCOMPARE(opensOf(preferences(), [] { (void)FolderStore().loadState({}); }), 1U);
        QCOMPARE(opensOf(preferences(), [] { FolderStore().saveState({}); }), 1U);
    }
}

void TestFolderStore::decodingErrorIsOneLine()
{
    store(encoded(someState()).replace("\"Name\"", "\"Na\\nme\\r\\u2028\""));
    QCOMPARE(loadFresh().lines,
             QStringList(text("Failed to load folders: "
                              "[1].rules[0].field: unknown value \"Na\\nme\\r\\u{2028}\"")));
}

void TestFolderStore::selectedIsTheStoredFolderOrTheFirst_data()
{
    QTest::addColumn<QByteArray>("selection");
    QTest::addColumn<size_t>("expected");
    const QByteArray id = someID;
    const size_t first = 0;
    const size_t second = 1;
    QTest::newRow("second") << QByteArray('"' + id + '"') << second;
    QTest::newRow("lower case") << QByteArray('"' + id.toLower() + '"') << second;
    QTest::newRow("none") << QByteArray() << first;
    QTest::newRow("no folder") << QByteArray("\"11111111-1111-4222-8333-ABCDEFABCDEF\"") << first;
    // Each of these would be the second folder to a more generous reader.
    QTest::newRow("empty") << QByteArray("\"\"") << first;
    QTest::newRow("braces") << QByteArray("\"{" + id + "}\"") << first;
    QTest::newRow("text behind it") << QByteArray('"' + id + " \"") << first;
    QTest::newRow("no hyphens") << QByteArray('"' + QByteArray(id).replace("-", "") + '"') << first;
    QTest::newRow("array") << QByteArray("[\"" + id + "\"]") << first;
    QTest::newRow("number") << QByteArray("5") << first;
    QTest::newRow("null") << QByteArray("null") << first;
}

void TestFolderStore::selectedIsTheStoredFolderOrTheFirst()
{
    QFETCH(const QByteArray, selection);
    QFETCH(const size_t, expected);
    FolderState state = someState();
    state.folders[1].id = QUuid(text(someID));
    store(encoded(state), selection);
    // Whatever was selected before.
    for (const FolderState& current : {FolderState(), state, FolderState{{}, QUuid::createUuid()}}) {
        const Loaded loaded = loadFresh(current);
        QCOMPARE(loaded.lines, QStringList());
        QVERIFY(isSame(loaded.state, {state.folders, state.folders[expected].id}));
    }
}

void TestFolderStore::withNoFoldersTheSelectionIsAbsentAndItsKeyIsRemovedByTheNextSave()
{
    store("[]", jsonOf(QUuid::createUuid()));
    FolderStore folderStore;
    const Loaded loaded = load(folderStore);
    QVERIFY(!loaded.state.selectedFolderID);
    save(folderStore, loaded.state);
    QCOMPARE(contentOf(preferences()), QByteArray(R"({"savedWatchedFolders":[]})"));
}

void TestFolderStore::allZeroSelectionIsAnIdLikeAnyOther()
{
    FolderState state = someState();
    state.folders[1].id = QUuid();
    state.selectedFolderID = QUuid();
    saveFresh(state);
    QCOMPARE(stored(selectionKey).toString(), text("00000000-0000-0000-0000-000000000000"));
    QVERIFY(isSame(loadFresh().state, state));
}

void TestFolderStore::whatHasABookmarkThatResolvesGetsTheResolvedUrl()
{
    const QTemporaryDir scratch;
    const fs::path before = scratch.filePath(text("before")).toStdString();
    const fs::path after = scratch.filePath(text("after")).toStdString();
    fs::create_directory(before);
    FolderState state = someState();
    state.folders[0].url = FileUrl::fromPath(before.string());
    state.folders[0].bookmarkData = *createBookmark(before.string());
    FilterRule& rule = state.folders[1].rules[0];
    rule.destinationBookmarkData = state.folders[0].bookmarkData;
    // A destination is set by its bookmark alone.
    for (const auto& destination : {std::optional(state.folders[0].url), std::optional<FileUrl>()}) {
        rule.destination = destination;
        saveFresh(state);
        fs::rename(before, after);
        const Loaded loaded = loadFresh();
        fs::rename(after, before);
        FolderState expected = state;
        expected.folders[0].url = FileUrl::fromPath(after.string());
        expected.folders[1].rules[0].destination = expected.folders[0].url;
        QCOMPARE(loaded.lines, QStringList());
        QVERIFY(isSame(loaded.state, expected));
    }
}

void TestFolderStore::folderWhoseBookmarkNoLongerResolvesKeepsItsStoredUrl()
{
    const QTemporaryDir scratch;
    const fs::path place = scratch.filePath(text("folder")).toStdString();
    fs::create_directory(place);
    FolderState state = someState();
    state.folders[0].bookmarkData = *createBookmark(place.string());
    state.folders[1].rules[0].destinationBookmarkData = state.folders[0].bookmarkData;
    state.folders[1].bookmarkData = QByteArray("damaged");
    saveFresh(state);
    fs::remove(place);
    const Loaded loaded = loadFresh();
    QCOMPARE(loaded.lines, QStringList());
    QVERIFY(isSame(loaded.state, state));
}

void TestFolderStore::rulesAreResolvedWhateverBecameOfTheirFolder()
{
    const QTemporaryDir scratch;
    const std::string place = scratch.path().toStdString();
    FolderState state = someState();
    state.folders[1].bookmarkData = QByteArray("damaged");
    state.folders[1].rules[0].destinationBookmarkData = *createBookmark(place);
    saveFresh(state);
    const Loaded loaded = loadFresh();
    QVERIFY(loaded.state.folders.at(1).url == state.folders[1].url);
    QVERIFY(loaded.state.folders[1].rules.at(0).destination == FileUrl::fromPath(place));
}

void TestFolderStore::bookmarksAreNotMadeAnewByLoading()
{
    const QTemporaryDir scratch;
    FolderState state = someState();
    state.folders[0].url = FileUrl::fromPath(scratch.path().toStdString());
    saveFresh(state);
    QVERIFY(!loadFresh().state.folders.at(0).bookmarkData);
}

void TestFolderStore::whatCannotBeUsedIsPutAsideBeforeItIsReplaced_data()
{
    QTest::addColumn<QByteArray>("content");
    // The beginning of the line that loading prints.
    QTest::addColumn<QString>("line");
    // What is put aside; nothing where it is the whole file.
    QTest::addColumn<QByteArray>("list");
    const auto withList = [](const QByteArray& list) {
        return "{\"other\":1,\"savedWatchedFolders\":" + list + "}";
    };
    const QString list = text("Failed to load folders: ");
    QTest::newRow("list that does not decode")
        << withList(brokenList) << list + text("[0].rules: missing key") << brokenList;
    QTest::newRow("list of something else")
        << withList("[5,6]") << list + text("[0]: expected an object") << QByteArray("[5,6]");
    QTest::newRow("list on several lines")
        << withList("[\n  5\n]") << list + text("[0]: expected an object") << QByteArray();
    QTest::newRow("list with a key that stands there twice")
        << withList(R"([{"a":1,"a":2}])") << list + text("[0].id: missing key") << QByteArray();
    for (const char* value : {"{}", "5", "null", "false", "\"[]\""})
        QTest::addRow("list that is %s", value)
            << withList(value) << list + text("top level: expected an array") << QByteArray();

    const QString file = readFailure()[0] + text(": ");
    QTest::newRow("comma too much") << withList("[],") << file + text("offset ") << QByteArray();
    QTest::newRow("cut off") << withList("[]").chopped(1) << file + text("offset ") << QByteArray();
    QTest::newRow("something behind it") << withList("[]") + "x" << file + text("offset ") << QByteArray();
    QTest::newRow("zeroes") << QByteArray(4096, '\0') << file + text("offset ") << QByteArray();
    QTest::newRow("no JSON") << QByteArray("\xff\xfe[General]\n") << file + text("offset ") << QByteArray();
    QTest::newRow("space") << QByteArray("\n") << file + text("offset ") << QByteArray();
    QTest::newRow("nested too deep") << QByteArray(100'000, '[') << file + text("offset ") << QByteArray();
    QTest::newRow("no object") << QByteArray("[]") << file + text("top level: expected an object")
                               << QByteArray();
}

void TestFolderStore::whatCannotBeUsedIsPutAsideBeforeItIsReplaced()
{
    QFETCH(const QByteArray, content);
    QFETCH(const QString, line);
    QFETCH(const QByteArray, list);
    writePreferences(content);
    FolderStore folderStore;
    const FolderState current = someState();
    FolderState expected;
    // Only the list itself, if there is one, takes the place of the one in memory.
    if (line.startsWith(readFailure()[0])) expected = {current.folders, current.folders[0].id};
    // Not only the first time.
    for (int i = 0; i < 2; ++i) {
        const Loaded loaded = load(folderStore, current);
        QCOMPARE(loaded.lines.size(), 1);
        QVERIFY2(loaded.lines[0].startsWith(line), qPrintable(loaded.lines[0]));
        QVERIFY(isSame(loaded.state, expected));
    }
    QCOMPARE(save(folderStore, expected), QStringList());
    const QString name = list.isNull() ? asideName("harbex", content) : asideListName(list);
    QCOMPARE(asideNames(), QStringList(name));
    QCOMPARE(contentOf(folder() / name.toStdString()), list.isNull() ? content : list);
    QCOMPARE(stored("other").toInt(), line.startsWith(text("Failed to load folders")) ? 1 : 0);
    const Loaded loaded = load(folderStore);
    QCOMPARE(loaded.lines, QStringList());
    QVERIFY(isSame(loaded.state, expected));
}

void TestFolderStore::sameListIsPutAsideOnce()
{
    FolderStore folderStore;
    QStringList expected;
    for (const QByteArray& list : {brokenList, QByteArray("[1]")}) {
        expected.append(asideListName(list));
        expected.sort();
        const fs::path aside = folder() / asideListName(list).toStdString();
        for (int i = 0; i < 3; ++i) {
            store(list);
            QCOMPARE(save(folderStore, someState()), QStringList());
            QCOMPARE(asideNames(), expected);
            // Not even written again.
            if (i == 0) fs::last_write_time(aside, fs::file_time_type());
            QVERIFY(fs::last_write_time(aside) == fs::file_time_type());
        }
    }
}

void TestFolderStore::keyWithAByteOrderMarkHidesNothing()
{
    for (const char* key : {listKey, selectionKey}) {
        const QByteArray content = QByteArray("{\"\xef\xbb\xbf") + key + "\":[1]}";
        writePreferences(content);
        const FolderState state = someState();
        QCOMPARE(saveFresh(state), QStringList());
        QVERIFY(isSame(loadFresh().state, state));
        QCOMPARE(contentOf(folder() / asideName("harbex", content).toStdString()), content);
    }
}

void TestFolderStore::goodListIsNotPutAside()
{
    for (int i = 0; i < 3; ++i) {
        store(encoded(someState()), "\"no UUID\"");
        QCOMPARE(saveFresh(someState()), QStringList());
        saveFresh({});
    }
    QCOMPARE(asideNames(), QStringList());
}

void TestFolderStore::goodListThatWasNotSeenIsPutAside_data()
{
    QTest::addColumn<QByteArray>("atLoading");
    QTest::addColumn<bool>("isPutAside");
    QTest::newRow("there") << QByteArray("there") << false;
    QTest::newRow("not there yet") << QByteArray("missing") << true;
    QTest::newRow("unreadable") << QByteArray("unreadable") << true;
    QTest::newRow("another one") << QByteArray("another") << true;
    QTest::newRow("damaged") << QByteArray("damaged") << true;
}

// Of a home on a server that did not answer, or of somebody's editor.
void TestFolderStore::goodListThatWasNotSeenIsPutAside()
{
    QFETCH(const QByteArray, atLoading);
    QFETCH(const bool, isPutAside);
    const QByteArray list = encoded(someState());
    FolderStore folderStore;
    if (atLoading == "damaged")
        writePreferences("{");
    else if (atLoading != "missing")
        store(atLoading == "another" ? QByteArray("[]") : list);
    if (atLoading == "unreadable") {
        const OrdinaryUser user;
        const Rights rights(preferences(), 0);
        load(folderStore, {});
    } else {
        load(folderStore, {});
    }
    if (atLoading != "there") store(list);
    for (int i = 0; i < 2; ++i) {
        QCOMPARE(save(folderStore, {}), QStringList());
        QCOMPARE(storedList(), QByteArray("[]"));
        QCOMPARE(asideNames(), isPutAside ? QStringList(asideListName(list)) : QStringList());
    }
}

void TestFolderStore::whatIsPutAsideHasTheRightsOfTheStore()
{
    store(brokenList);
    fs::permissions(preferences(), fs::perms::owner_read | fs::perms::owner_write);
    saveFresh({});
    QVERIFY(fs::status(folder() / asideListName(brokenList).toStdString()).permissions() ==
            (fs::perms::owner_read | fs::perms::owner_write));
}

void TestFolderStore::whatCannotBePutAsideIsNotReplaced()
{
    store(brokenList);
    const QByteArray before = contentOf(preferences());
    // Something is in its way.
    fs::create_directories(folder() / asideListName(brokenList).toStdString());
    FolderStore folderStore;
    QCOMPARE(save(folderStore, someState()), writeFailure());
    QCOMPARE(contentOf(preferences()), before);
    fs::remove(folder() / asideListName(brokenList).toStdString());
    QCOMPARE(save(folderStore, someState()), QStringList());
    QCOMPARE(asideNames(), QStringList(asideListName(brokenList)));
}

void TestFolderStore::whatIsForbiddenPrintsOneLineAndChangesNothing_data()
{
    QTest::addColumn<bool>("isFolder");
    QTest::addColumn<bool>("isLink");
    QTest::addColumn<unsigned>("rights");
    QTest::newRow("unreadable file") << false << false << 0U;
    QTest::newRow("file that can only be written") << false << false << 0222U;
    QTest::newRow("unreadable folder") << true << false << 0U;
    QTest::newRow("read-only folder") << true << false << 0555U;
    QTest::newRow("file that somebody protected") << false << false << 0444U;
    QTest::newRow("file that somebody protected, behind a link") << false << true << 0444U;
}

void TestFolderStore::whatIsForbiddenPrintsOneLineAndChangesNothing()
{
    QFETCH(const bool, isFolder);
    QFETCH(const bool, isLink);
    QFETCH(const unsigned, rights);
    FolderStore folderStore;
    const FolderState state = someState();
    save(folderStore, state);
    const QByteArray before = contentOf(preferences());
    if (isLink) {
        const fs::path target = folder().parent_path() / "real";
        fs::rename(preferences(), target);
        fs::create_symlink(target, preferences());
    }
    {
        const OrdinaryUser user;
        const Rights changed(isFolder ? folder() : preferences(), rights);
        const FolderState current = someState();
        const Loaded loaded = load(folderStore, current);
        const bool isReadable = (rights & 0444U) != 0;
        QCOMPARE(loaded.lines, isReadable ? QStringList() : readFailure());
        QVERIFY(
            isSame(loaded.state, isReadable ? state : FolderState{current.folders, current.folders[0].id}));
        QCOMPARE(save(folderStore, {}), writeFailure());
    }
    QCOMPARE(contentOf(preferences()), before);
    QCOMPARE(asideNames(), QStringList());
    QCOMPARE(save(folderStore, {}), QStringList());
    QCOMPARE(storedList(), QByteArray("[]"));
}

void TestFolderStore::somethingElseInItsPlacePrintsOneLineAndGoesOn()
{
    const FolderState current = someState();
    FolderStore folderStore;
    // A file in the place of the folder: there are no preferences.
    QVERIFY(::mknod(folder().c_str(), S_IFREG | 0600, 0) == 0);
    QCOMPARE(load(folderStore, current).lines, QStringList());
    QCOMPARE(save(folderStore, current), writeFailure());
    QCOMPARE(fs::file_size(folder()), std::uintmax_t(0));
    fs::remove(folder());
    // A folder in the place of the file: they cannot be read.
    fs::create_directories(preferences());
    const Loaded loaded = loadFresh(current);
    QCOMPARE(loaded.lines, readFailure());
    QVERIFY(isSame(loaded.state, {current.folders, current.folders[0].id}));
    QCOMPARE(save(folderStore, {}), writeFailure());
    QVERIFY(fs::is_directory(preferences()));
    QCOMPARE(asideNames(), QStringList());
    fs::remove(preferences());
    // Saving works again.
    QCOMPARE(save(folderStore, current), QStringList());
    QVERIFY(isSame(load(folderStore).state, current));
}

void TestFolderStore::noRoomForTheFilePrintsOneLineAndKeepsTheOldOne()
{
    FolderStore folderStore;
    const FolderState state = someState();
    save(folderStore, state);
    const QByteArray before = contentOf(preferences());
    {
        const FileSizeLimit limit(100'000);
        QCOMPARE(save(folderStore, longState()), writeFailure());
    }
    QCOMPARE(contentOf(preferences()), before);
    QCOMPARE(asideNames(), QStringList());
    QVERIFY(isSame(loadFresh().state, state));

    // No room for what is put aside either.
    store(QByteArray("[") + QByteArray(200'000, ' '));
    const QByteArray broken = contentOf(preferences());
    {
        const FileSizeLimit limit(100'000);
        QCOMPARE(load(folderStore).lines.size(), 1);
        QCOMPARE(save(folderStore, someState()), writeFailure());
    }
    QCOMPARE(contentOf(preferences()), broken);
    QCOMPARE(asideNames(), QStringList());
}

namespace
{

/// Runs `check` in a child process whose folder of the preferences is a file system of 256 KiB. Gives what
/// `check` gives, empty when all is well.
QByteArray onASmallDisk(const std::function<QByteArray()>& check)
{
    std::array<int, 2> ends = {};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) return "no pipe";
    const FileDescriptor reader(ends[0]);
    FileDescriptor writer(ends[1]);
    const pid_t child = ::fork();
    if (child == 0) {
        enterPrivateNamespace();
        const Mount disk = Mount::memory(folder().string(), "size=256k");
        const QByteArray answer = check();
        // A short text fits into the pipe; the parent reads it in any case.
        const ssize_t size = ::write(writer.get(), answer.constData(), static_cast<size_t>(answer.size()));
        ::_exit(size == answer.size() ? 0 : 1);
    }
    writer = FileDescriptor();
    QFile answer;
    if (!answer.open(reader.get(), QIODevice::ReadOnly)) return "no answer";
    const QByteArray text = answer.readAll();
    int status = 0;
    ::waitpid(child, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == notPossibleHere) return "not possible here";
    return status == 0 ? text : "the child ended with status " + QByteArray::number(status);
}

} // namespace

void TestFolderStore::fullDiskPrintsOneLineAndKeepsTheOldOne()
{
    fs::create_directories(folder());
    const QByteArray answer = onASmallDisk([]() -> QByteArray {
        FolderStore folderStore;
        const FolderState state = someState();
        if (!save(folderStore, state).isEmpty()) return "saving fails from the start";
        const QByteArray before = contentOf(preferences());

        FileDescriptor filler(::open((folder() / "filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        const QByteArray block(4096, 'x');
        while (::write(filler.get(), block.constData(), static_cast<size_t>(block.size())) > 0) {
        }
        if (errno != ENOSPC) return "the disk is not full";
        // At first there is no room at all, then some, in which the new file only begins.
        constexpr std::array<std::pair<off_t, qsizetype>, 3> rooms = {
            {{0, 3'000'000}, {8192, 10'000}, {100'000, 3'000'000}}};
        for (const auto& [freed, length] : rooms) {
            if (::ftruncate(filler.get(), ::lseek(filler.get(), 0, SEEK_END) - freed) != 0) return "no room";
            if (save(folderStore, longState(length)) != writeFailure()) return "not the one line";
            if (contentOf(preferences()) != before) return "the old file was changed";
            if (asideNames() != QStringList(text("filler"))) return "something was left behind";
            if (!isSame(loadFresh().state, state)) return "the old state does not load";
        }
        filler = FileDescriptor();
        fs::remove(folder() / "filler");
        FolderState later = state;
        later.folders.pop_back();
        if (!save(folderStore, later).isEmpty()) return "saving fails when there is room again";
        return storedList() == encoded(later) ? "" : "not what was saved";
    });
    if (answer == "not possible here") QSKIP("no disk of its own size without a namespace of one's own");
    QCOMPARE(answer, QByteArray());
}

void TestFolderStore::whatCouldNotBeWrittenIsLoadedAgain()
{
    FolderStore folderStore;
    save(folderStore, {});
    FolderState state = longState();
    {
        const FileSizeLimit limit(100'000);
        QCOMPARE(save(folderStore, state), writeFailure());
        const Loaded loaded = load(folderStore);
        QCOMPARE(loaded.lines, QStringList());
        QVERIFY(isSame(loaded.state, state));
    }
    // It is one that can be selected from, and the next that can be written takes its place.
    state.selectedFolderID = QUuid::createUuid();
    {
        const FileSizeLimit limit(100'000);
        QCOMPARE(save(folderStore, state), writeFailure());
    }
    QVERIFY(load(folderStore).state.selectedFolderID == state.folders[0].id);
    const FolderState written = someState();
    QCOMPARE(save(folderStore, written), QStringList());
    QVERIFY(isSame(load(folderStore).state, written));
}

void TestFolderStore::fileEditedSinceWinsOverWhatCouldNotBeWritten()
{
    const FolderState theirs = someState();
    for (const bool isBroken : {false, true}) {
        FolderStore folderStore;
        save(folderStore, {});
        {
            const FileSizeLimit limit(100'000);
            QCOMPARE(save(folderStore, longState()), writeFailure());
        }
        store(isBroken ? brokenList : encoded(theirs), jsonOf(*theirs.selectedFolderID));
        const Loaded loaded = load(folderStore);
        QCOMPARE(loaded.lines.size(), isBroken ? 1 : 0);
        QVERIFY(isSame(loaded.state, isBroken ? FolderState() : theirs));
        QCOMPARE(save(folderStore, loaded.state), QStringList());
        QCOMPARE(asideNames(), isBroken ? QStringList(asideListName(brokenList)) : QStringList());
    }
}

void TestFolderStore::closedStandardOutputChangesNothing()
{
    store(brokenList);
    FolderStore folderStore;
    FolderState state;
    {
        const RedirectedOutput closed(-1);
        state = folderStore.loadState(someState());
        folderStore.saveState(state);
    }
    QVERIFY(isSame(state, {}));
    QCOMPARE(storedList(), QByteArray("[]"));
}

void TestFolderStore::fileEditedWhileRunningIsSeen()
{
    FolderStore folderStore;
    const FolderState state = someState();
    save(folderStore, state);
    // Of the same size and in quick succession.
    QByteArray content = contentOf(preferences());
    for (const char* name : {"Desk1op", "Desk2op", "Desk3op", "Desk4op"}) {
        content.replace(content.indexOf("Desk"), 7, name);
        writePreferences(content);
        QCOMPARE(load(folderStore).state.folders.at(1).url.lastPathComponent(), std::string(name));
        QCOMPARE(loadFresh().state.folders.at(1).url.lastPathComponent(), std::string(name));
    }
}

void TestFolderStore::fileDeletedWhileRunningIsSeen()
{
    FolderStore folderStore;
    save(folderStore, someState());
    fs::remove_all(folder());
    const FolderState current = someState();
    QVERIFY(isSame(load(folderStore, current).state, {current.folders, current.folders[0].id}));
    QVERIFY(!fs::exists(preferences()));
    save(folderStore, current);
    QVERIFY(isSame(load(folderStore).state, current));
}

void TestFolderStore::randomDamageNeverCrashesAndLosesNothing()
{
    std::mt19937 random = seededRandom();
    const FolderState state = someState();
    store(encoded(state), jsonOf(*state.selectedFolderID));
    const QByteArray good = contentOf(preferences());
    int undamaged = 0;
    int lists = 0;
    int files = 0;
    for (int i = 0; i < 600; ++i) {
        QByteArray content = good;
        const auto place =
            static_cast<qsizetype>(randomBelow(random, static_cast<size_t>(content.size()) + 1));
        static const QByteArray pieces[] = {"\n", "\"", "\\", ":", "[", "}", ",", "\xef\xbb\xbf", "null"};
        switch (randomBelow(random, 5)) {
        case 0:
            content.insert(place, static_cast<char>(randomBelow(random, 256)));
            break;
        case 1:
            content.remove(place, static_cast<qsizetype>(randomBelow(random, 30)) + 1);
            break;
        case 2:
            content.truncate(place);
            break;
        case 3:
            // Most often it stays JSON.
            std::fill_n(content.begin() + place, std::min(content.size() - place, qsizetype(1)), 'x');
            break;
        default:
            content.insert(place, pieces[randomBelow(random, std::size(pieces))]);
            break;
        }
        fs::remove_all(folder());
        writePreferences(content);
        FolderStore folderStore;
        const Loaded loaded = load(folderStore);
        QCOMPARE(save(folderStore, loaded.state), QStringList());
        const QStringList names = asideNames();
        QVERIFY2(names.size() >= loaded.lines.size() && names.size() <= 1, content);
        for (const QString& name : names) {
            const QByteArray aside = contentOf(folder() / name.toStdString());
            const bool isWhole = name.startsWith(text("harbex-"));
            QVERIFY2(isWhole ? aside == content : content.contains(aside) && aside.startsWith("[{"), content);
            ++(isWhole ? files : lists);
        }
        undamaged += names.isEmpty();
        QVERIFY2(isSame(load(folderStore).state, loaded.state), content);
    }
    // All of it happens, or the damage would show nothing.
    QVERIFY(undamaged > 20 && lists > 20 && files > 20);
}

HARBEX_TEST_MAIN(TestFolderStore)

#include "tst_FolderStore.moc"
