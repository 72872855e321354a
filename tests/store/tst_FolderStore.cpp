#include "model/FolderListJson.h"
#include "store/Bookmark.h"
#include "store/FolderStore.h"
#include "support/CapturedOutput.h"
#include "support/EngineFiles.h"
#include "support/SameFolders.h"
#include "support/TestMain.h"

#include <QCryptographicHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QScopeGuard>

#include <csignal>
#include <filesystem>
#include <functional>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

using namespace harbex;
using namespace harbex::test;
namespace fs = std::filesystem;

namespace
{

const char* const someID = "0F8E6C1A-1111-4222-8333-ABCDEFABCDEF";

/// A list without the key "rules".
const QByteArray brokenList = R"([{"id":"0F8E6C1A-1111-4222-8333-ABCDEFABCDEF","url":"file:///a"}])";

/// The folder of the preferences. All tests of this program share the home.
std::string folder()
{
    return qEnvironmentVariable("XDG_CONFIG_HOME").toStdString() + "/harbex";
}
std::string preferences()
{
    return folder() + "/harbex.json";
}

/// Writes the preferences as another program does. Does nothing for a null content.
void writePreferences(const QByteArray& content)
{
    if (content.isNull()) return;
    fs::create_directories(folder());
    fs::remove(preferences());
    writeFile(preferences(), content.toStdString());
}

/// Preferences with a list and a selection, both as JSON. Null leaves the key out.
QByteArray preferencesWith(const QByteArray& list, const QByteArray& selection = {})
{
    QByteArrayList pairs;
    if (!list.isNull()) pairs << "\"savedWatchedFolders\":" + list;
    if (!selection.isNull()) pairs << "\"selectedWatchedFolderID\":" + selection;
    return '{' + pairs.join(',') + '}';
}

void store(const QByteArray& list, const QByteArray& selection = {})
{
    writePreferences(preferencesWith(list, selection));
}

/// The sorted names of the files beside the preferences, separated by spaces.
QByteArray asideNames()
{
    QByteArrayList names = namesIn(folder());
    names.removeOne("harbex.json");
    return names.join(' ');
}

QByteArray asideName(const QByteArray& stem, const QByteArray& content)
{
    const QByteArray hash = QCryptographicHash::hash(content, QCryptographicHash::Sha256).toHex();
    return stem + '-' + hash.first(16) + ".json";
}
QByteArray asideListName(const QByteArray& list)
{
    return asideName("savedWatchedFolders", list);
}

std::string asidePath(const QByteArray& name)
{
    return folder() + '/' + name.toStdString();
}

/// Two folders, the second with a rule. The second is selected.
FolderState someState()
{
    FilterRule rule;
    rule.value = QString::fromUtf8("invoice \u00e9");
    rule.destination = FileUrl::fromPath("/home/u/Invoices");
    FolderState state;
    state.folders = {{.url = FileUrl::fromPath("/home/u/Downloads"), .bookmarkData = {}, .rules = {}},
                     {.url = FileUrl::fromPath("/home/u/Desktop"), .bookmarkData = {}, .rules = {rule}}};
    state.selectedFolderID = state.folders[1].id;
    return state;
}

/// A state whose list is a little longer than `length`.
FolderState longState(qsizetype length = 3'000'000)
{
    FolderState state = someState();
    state.folders[1].rules[0].value = QString(length, u'x');
    return state;
}

FolderState withFirstSelected(FolderState state)
{
    state.selectedFolderID = state.folders.at(0).id;
    return state;
}

bool isSame(const FolderState& a, const FolderState& b)
{
    return a.selectedFolderID == b.selectedFolderID && test::isSame(a.folders, b.folders);
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
    QByteArrayList lines;
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
QByteArrayList save(FolderStore& store, const FolderState& state)
{
    CapturedOutput output;
    store.saveState(state);
    return output.lines();
}

QByteArrayList saveFresh(const FolderState& state)
{
    FolderStore store;
    return save(store, state);
}

/// The line that says that the preferences cannot be read or written.
QByteArrayList failureTo(const char* action)
{
    return {QByteArray("Failed to ") + action + " the preferences: " + preferences().c_str()};
}

/// Gives a file or folder other rights and makes this process an ordinary user, who owns the home of this
/// test. Both end with the scope of the result.
[[nodiscard]] auto asUserWithRights(const std::string& path, unsigned rights)
{
    const bool wasRoot = ::geteuid() == 0;
    const auto giveHomeTo = [](uid_t user) {
        const std::string home = qEnvironmentVariable("HOME").toStdString();
        bool isGiven = ::lchown(home.c_str(), user, static_cast<gid_t>(-1)) == 0;
        for (const auto& entry : fs::recursive_directory_iterator(home))
            isGiven = ::lchown(entry.path().c_str(), user, static_cast<gid_t>(-1)) == 0 && isGiven;
        if (!isGiven) qFatal("cannot give %s to %u", home.c_str(), user);
    };
    if (wasRoot) {
        constexpr uid_t nobody = 65534;
        giveHomeTo(nobody);
        // The saved user id stays root, so that the process can become root again.
        if (::setresuid(nobody, nobody, 0) != 0) qFatal("cannot become an ordinary user");
    }
    const fs::perms oldRights = fs::status(path).permissions();
    fs::permissions(path, static_cast<fs::perms>(rights));
    return qScopeGuard([=] {
        fs::permissions(path, oldRights);
        if (wasRoot && ::setresuid(0, 0, 0) == 0) giveHomeTo(0);
    });
}

/// Returns the lines that saving prints while no file of this process can grow beyond `bytes`. Captured
/// output is a file too.
QByteArrayList saveWithoutRoom(FolderStore& store, const FolderState& state, rlim_t bytes = 100'000)
{
    rlimit old = {};
    ::getrlimit(RLIMIT_FSIZE, &old);
    const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{bytes, old.rlim_max};
    if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) qFatal("no limit of file sizes");
    QByteArrayList lines = save(store, state);
    ::setrlimit(RLIMIT_FSIZE, &old);
    std::signal(SIGXFSZ, oldHandler);
    return lines;
}

} // namespace

class TestFolderStore : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        fs::remove_all(folder());
        QCOMPARE(FolderStore().path().toStdString(), preferences());
    }

    void savedStateLoadsAgain()
    {
        FolderState state = someState();
        state.folders[0].bookmarkData = QByteArray("no bookmark\0\xff", 13);
        // The zero id is an id like any other.
        state.folders[1].id = QUuid();
        state.selectedFolderID = QUuid();
        FolderStore folderStore;
        QCOMPARE(save(folderStore, state), QByteArrayList());
        for (const Loaded& loaded : {load(folderStore), loadFresh()}) {
            QCOMPARE(loaded.lines, QByteArrayList());
            QVERIFY(isSame(loaded.state, state));
        }
    }

    void savingWritesExactly()
    {
        const auto check = [](const FolderState& state, const QByteArray& expected) {
            QCOMPARE(saveFresh(state), QByteArrayList());
            QCOMPARE(contents(preferences()), expected);
            QCOMPARE(asideNames(), QByteArray());
        };
        const QUuid id(QString::fromUtf8(someID));
        const FolderState state{{{id, FileUrl::fromPath("/a"), {}, {}}}, id};
        const QByteArray full =
            R"({"savedWatchedFolders":[{"id":"0F8E6C1A-1111-4222-8333-ABCDEFABCDEF","rules":[],"url":"file:///a"}],)"
            R"("selectedWatchedFolderID":"0F8E6C1A-1111-4222-8333-ABCDEFABCDEF"})";
        const QByteArray none = R"({"savedWatchedFolders":[]})";
        check(state, full);
        check({}, none);
        // Other keys stay.
        writePreferences(R"( {"other": [1, {"b":null}], "x":"\u00e9", "z":9007199254740993} )");
        check({}, "{\"other\":[1,{\"b\":null}],\"savedWatchedFolders\":[],\"x\":\"\u00e9\","
                  "\"z\":9007199254740993}");
    }

    void linkStaysALink()
    {
        const FolderState state = someState();
        for (const bool hasTarget : {true, false}) {
            for (const bool isRelative : {true, false}) {
                const ScratchFolder elsewhere;
                const std::string target = elsewhere.path() + "/settings";
                const std::string second = elsewhere.path() + "/second";
                if (hasTarget) writeFile(target, preferencesWith("[]").toStdString());
                fs::create_directories(folder());
                fs::remove(preferences());
                if (isRelative) makeLink(second, "settings");
                makeLink(preferences(), isRelative ? second : target);
                QCOMPARE(saveFresh(state), QByteArrayList());
                QVERIFY(fs::is_symlink(preferences()));
                QVERIFY(fs::is_regular_file(fs::symlink_status(target)));
                QVERIFY(isSame(loadFresh().state, state));
            }
        }
    }

    void linkToANameThatIsNoTextIsLeftAlone()
    {
        const std::string target = folder() + "/settings\xff";
        store("[]");
        renameEntry(preferences(), target);
        makeLink(preferences(), target);
        QCOMPARE(saveFresh(someState()), failureTo("write"));
        QVERIFY(fs::is_symlink(preferences()));
        QCOMPARE(contents(target), preferencesWith("[]"));
        QCOMPARE(asideNames(), QByteArray("settings\xff"));
    }

    void failedEncodingPrintsOneLineAndStoresNothing()
    {
        FolderState bad = someState();
        bad.folders[1].rules[0].value = QString(QChar(0xd800));
        const QByteArrayList expected = {"Failed to save folders: \\(error)"};
        QCOMPARE(saveFresh(bad), expected);
        QVERIFY(!fs::exists(preferences()));
        store("[]");
        QCOMPARE(saveFresh(bad), expected);
        QCOMPARE(contents(preferences()), preferencesWith("[]"));
    }

    void onlyAStoredListReplacesTheListInMemory()
    {
        const FolderState current = someState();
        for (const QByteArray& content :
             {QByteArray(), QByteArray(""), QByteArray("{}"), QByteArray(R"({"other":[]})")}) {
            fs::remove_all(folder());
            writePreferences(content);
            const Loaded loaded = loadFresh(current);
            QCOMPARE(loaded.lines, QByteArrayList());
            QVERIFY(isSame(loaded.state, withFirstSelected(current)));
            QVERIFY(isSame(loadFresh().state, {}));
            QCOMPARE(fs::exists(preferences()), !content.isNull());
        }
        // The selection is read without a list too.
        store({}, jsonOf(current.folders[1].id));
        QVERIFY(isSame(loadFresh(current).state, current));
        store("[]", jsonOf(*current.selectedFolderID));
        QVERIFY(isSame(loadFresh(current).state, {}));
    }

    void selectedIsTheStoredFolderOrTheFirst()
    {
        FolderState state = someState();
        state.folders[1].id = QUuid(QString::fromUtf8(someID));
        const auto check = [&state](const QByteArray& selection, size_t expected) {
            store(encoded(state), selection);
            // The selection before the load does not matter.
            for (const FolderState& current : {FolderState(), state, FolderState{{}, QUuid::createUuid()}}) {
                const Loaded loaded = loadFresh(current);
                QCOMPARE(loaded.lines, QByteArrayList());
                QVERIFY2(isSame(loaded.state, {state.folders, state.folders[expected].id}), selection);
            }
            QCOMPARE(contents(preferences()), preferencesWith(encoded(state), selection));
        };
        const QByteArray id = someID;
        check('"' + id + '"', 1);
        check('"' + id.toLower() + '"', 1);
        // None, and none of a folder.
        check({}, 0);
        check("\"11111111-1111-4222-8333-ABCDEFABCDEF\"", 0);
        const QByteArrayList others = {"\"\"", "\"{" + id + "}\"", "[\"" + id + "\"]", "5", "null"};
        for (const QByteArray& other : others)
            check(other, 0);
    }

    void urlsFollowTheirBookmarks()
    {
        const ScratchFolder scratch(qEnvironmentVariable("HOME").toStdString());
        const std::string before = scratch.makeFolder("before");
        const std::string after = scratch.makeFolder("other") + "/after";
        const QByteArray bookmark = *createBookmark(before);
        const QByteArray lost = *createBookmark(scratch.path()) + "damaged";
        const FileUrl oldUrl = FileUrl::fromPath(before);
        const FileUrl newUrl = FileUrl::fromPath(after);

        FolderState state = someState();
        state.folders[0].bookmarkData = bookmark;
        // The rules of a folder are resolved whether its own bookmark resolves or not.
        state.folders[1].bookmarkData = lost;
        std::vector<FilterRule>& rules = state.folders[1].rules;
        rules.resize(4);
        rules[0].destinationBookmarkData = lost;
        rules[1].destination = oldUrl;
        rules[1].destinationBookmarkData = bookmark;
        rules[2].destinationBookmarkData = bookmark;
        // Without a bookmark the URL stays, and loading creates no bookmark.
        rules[3].destination = oldUrl;
        saveFresh(state);
        const QByteArray stored = contents(preferences());
        renameEntry(before, after);

        FolderState expected = state;
        expected.folders[0].url = newUrl;
        expected.folders[1].rules[1].destination = newUrl;
        expected.folders[1].rules[2].destination = newUrl;
        // A busy machine may not find a moved folder in time.
        Loaded loaded;
        const auto areFollowed = [&] {
            loaded = loadFresh();
            return isSame(loaded.state, expected);
        };
        QTRY_VERIFY(areFollowed());
        QCOMPARE(loaded.lines, QByteArrayList());
        QCOMPARE(contents(preferences()), stored);
        // A bookmark of a folder that is gone changes nothing.
        fs::remove(after);
        loaded = loadFresh();
        QCOMPARE(loaded.lines, QByteArrayList());
        QVERIFY(isSame(loaded.state, state));
    }

    void unusableContentIsPutAsideBeforeItIsReplaced()
    {
        const auto list = [](const QByteArray& json, const char* error, bool isWholeFile = true) {
            const QByteArray content = "{\"other\":1,\"savedWatchedFolders\":" + json + '}';
            checkUnusable(content, QByteArray("Failed to load folders: ") + error,
                          isWholeFile ? QByteArray() : json);
        };
        const QByteArray noKind = encoded(someState()).replace("\"kind\":\"Image\",", "");
        list(brokenList, "[0].rules: missing key", false);
        list(noKind, "[1].rules[0].kind: missing key", false);
        list("[5,6]", "[0]: expected an object", false);
        // Qt writes these in another form, so the whole file is put aside.
        list("[\n  5\n]", "[0]: expected an object");
        list(R"([{"a":1,"a":2}])", "[0].id: missing key");
        for (const char* value : {"{}", "5", "null", "false", "\"[]\""})
            list(value, "top level: expected an array");

        const auto file = [](const QByteArray& content, const char* error = "offset ") {
            checkUnusable(content, failureTo("read")[0] + ": " + error, {});
        };
        for (const char* content : {R"({"savedWatchedFolders":[],})", R"({"savedWatchedFolders":[])",
                                    R"({"savedWatchedFolders":[]}x)", "\xff\xfe[General]\n", "\n"})
            file(content);
        file(QByteArray(4096, '\0'));
        file(QByteArray(100'000, '['));
        file("[]", "top level: expected an object");
    }

    void sameListIsPutAsideOnce()
    {
        FolderStore folderStore;
        const QByteArray name = asideListName(brokenList);
        const fs::file_time_type longAgo;
        for (int i = 0; i < 3; ++i) {
            store(brokenList);
            QCOMPARE(save(folderStore, someState()), QByteArrayList());
            QCOMPARE(asideNames(), name);
            // The existing file is not written again.
            if (i == 0) fs::last_write_time(asidePath(name), longAgo);
            QVERIFY(fs::last_write_time(asidePath(name)) == longAgo);
        }
        store("[1]");
        QCOMPARE(save(folderStore, someState()), QByteArrayList());
        QCOMPARE(asideNames().split(' ').size(), 2);
    }

    void keyWithAByteOrderMarkHidesNothing()
    {
        for (const char* key : {"savedWatchedFolders", "selectedWatchedFolderID"}) {
            const QByteArray content = QByteArray("{\"\xef\xbb\xbf") + key + "\":[1]}";
            writePreferences(content);
            const FolderState state = someState();
            QCOMPARE(saveFresh(state), QByteArrayList());
            QVERIFY(isSame(loadFresh().state, state));
            QCOMPARE(contents(asidePath(asideName("harbex", content))), content);
        }
    }

    // The list appears after a server did not answer, or another program writes it.
    void goodListThatWasNotLoadedIsPutAside()
    {
        const QByteArray list = encoded(someState());
        const auto check = [](const std::function<void(FolderStore&)>& atLoading, const QByteArray& atSaving,
                              bool isPutAside) {
            fs::remove_all(folder());
            FolderStore folderStore;
            atLoading(folderStore);
            store(atSaving);
            // The list of the last save is known, so it is not put aside.
            for (const FolderState& state : {FolderState(), someState(), FolderState()}) {
                QCOMPARE(save(folderStore, state), QByteArrayList());
                QVERIFY(contents(preferences()).contains(encoded(state)));
                QCOMPARE(asideNames(), isPutAside ? asideListName(atSaving) : QByteArray());
            }
        };
        const auto loading = [](const QByteArray& content) {
            return [content](FolderStore& folderStore) {
                writePreferences(content);
                load(folderStore);
            };
        };
        check(loading(preferencesWith(list)), list, false);
        check(loading(preferencesWith(list)), "[]", false);
        check(loading({}), list, true);
        check(loading(preferencesWith("[]")), list, true);
        check(loading("{"), list, true);
        const auto unreadable = [&list](FolderStore& folderStore) {
            writePreferences(preferencesWith(list));
            const auto user = asUserWithRights(preferences(), 0);
            load(folderStore);
        };
        check(unreadable, list, true);
    }

    void whatCannotBePutAsideIsNotReplaced()
    {
        store(brokenList);
        // A folder has the name of the file.
        const std::string aside = asidePath(asideListName(brokenList));
        fs::create_directories(aside);
        FolderStore folderStore;
        QCOMPARE(save(folderStore, someState()), failureTo("write"));
        QCOMPARE(contents(preferences()), preferencesWith(brokenList));
        fs::remove(aside);
        QCOMPARE(save(folderStore, someState()), QByteArrayList());
        QCOMPARE(asideNames(), asideListName(brokenList));
    }

    void missingRightsPrintOneLineAndChangeNothing()
    {
        const auto check = [](const char* closed, unsigned rights, bool isLink = false) {
            fs::remove_all(folder());
            FolderStore folderStore;
            const FolderState state = someState();
            save(folderStore, state);
            const QByteArray before = contents(preferences());
            if (isLink) {
                const std::string target = folder() + "-target";
                renameEntry(preferences(), target);
                makeLink(preferences(), target);
            }
            {
                const auto user = asUserWithRights(folder() + closed, rights);
                const FolderState current = someState();
                const Loaded loaded = load(folderStore, current);
                const bool isReadable = (rights & 0444U) != 0;
                QCOMPARE(loaded.lines, isReadable ? QByteArrayList() : failureTo("read"));
                QVERIFY(isSame(loaded.state, isReadable ? state : withFirstSelected(current)));
                QCOMPARE(save(folderStore, {}), failureTo("write"));
            }
            QCOMPARE(contents(preferences()), before);
            QCOMPARE(asideNames(), QByteArray());
            QCOMPARE(save(folderStore, {}), QByteArrayList());
            QCOMPARE(contents(preferences()), preferencesWith("[]"));
        };
        for (const unsigned rights : {0U, 0222U, 0444U})
            check("/harbex.json", rights);
        for (const unsigned rights : {0U, 0555U})
            check("", rights);
        check("/harbex.json", 0444U, true);
    }

    void anotherKindOfEntryPrintsOneLineAndStays()
    {
        const FolderState current = someState();
        FolderStore folderStore;
        // A file instead of the folder means that there are no preferences.
        writeFile(folder(), "");
        QCOMPARE(load(folderStore, current).lines, QByteArrayList());
        QCOMPARE(save(folderStore, current), failureTo("write"));
        QCOMPARE(fs::file_size(folder()), std::uintmax_t(0));
        fs::remove(folder());
        // A folder instead of the file means that they cannot be read.
        fs::create_directories(preferences());
        const Loaded loaded = loadFresh(current);
        QCOMPARE(loaded.lines, failureTo("read"));
        QVERIFY(isSame(loaded.state, withFirstSelected(current)));
        QCOMPARE(save(folderStore, {}), failureTo("write"));
        QVERIFY(fs::is_directory(preferences()));
        QCOMPARE(asideNames(), QByteArray());
        fs::remove(preferences());
        QCOMPARE(save(folderStore, current), QByteArrayList());
        QVERIFY(isSame(load(folderStore).state, current));
    }

    void withoutRoomTheOldFileStays()
    {
        // There is room for the first bytes, or for the first blocks.
        for (const auto& [room, length] : {std::pair(8'192U, 10'000), std::pair(100'000U, 3'000'000)}) {
            FolderStore folderStore;
            const FolderState old = someState();
            save(folderStore, old);
            const QByteArray before = contents(preferences());
            FolderState state = longState(length);
            QCOMPARE(saveWithoutRoom(folderStore, state, room), failureTo("write"));
            QCOMPARE(contents(preferences()), before);
            QCOMPARE(asideNames(), QByteArray());
            QVERIFY(isSame(loadFresh().state, old));

            // The store keeps what it could not write.
            const Loaded loaded = load(folderStore);
            QCOMPARE(loaded.lines, QByteArrayList());
            QVERIFY(isSame(loaded.state, state));
            state.selectedFolderID = QUuid::createUuid();
            QCOMPARE(saveWithoutRoom(folderStore, state, room), failureTo("write"));
            QVERIFY(isSame(load(folderStore).state, withFirstSelected(state)));
            // The next state that can be written replaces it.
            QCOMPARE(save(folderStore, old), QByteArrayList());
            QVERIFY(isSame(load(folderStore).state, old));
        }
    }

    void fileEditedAfterAFailedSaveWins()
    {
        const FolderState theirs = someState();
        for (const bool isBroken : {false, true}) {
            FolderStore folderStore;
            save(folderStore, {});
            QCOMPARE(saveWithoutRoom(folderStore, longState()), failureTo("write"));
            store(isBroken ? brokenList : encoded(theirs), jsonOf(*theirs.selectedFolderID));
            const Loaded loaded = load(folderStore);
            QCOMPARE(loaded.lines.size(), isBroken ? 1 : 0);
            QVERIFY(isSame(loaded.state, isBroken ? FolderState() : theirs));
            QCOMPARE(save(folderStore, loaded.state), QByteArrayList());
            QCOMPARE(asideNames(), isBroken ? asideListName(brokenList) : QByteArray());
        }
    }

private:
    /// `line` is the beginning of the line that loading prints. `list` is the list that is put aside; null if
    /// it is the whole file.
    static void checkUnusable(const QByteArray& content, const QByteArray& line, const QByteArray& list)
    {
        constexpr fs::perms rights = fs::perms::owner_read | fs::perms::owner_write;
        fs::remove_all(folder());
        writePreferences(content);
        fs::permissions(preferences(), rights);
        FolderStore folderStore;
        const FolderState current = someState();
        // A bad list counts as an empty list. Without any list, the list in memory stays.
        const bool isBadList = line.startsWith("Failed to load folders");
        const FolderState expected = isBadList ? FolderState() : withFirstSelected(current);
        for (int i = 0; i < 2; ++i) {
            const Loaded loaded = load(folderStore, current);
            QCOMPARE(loaded.lines.size(), 1);
            QVERIFY2(loaded.lines[0].startsWith(line), loaded.lines[0]);
            QVERIFY2(isSame(loaded.state, expected), line);
        }
        QCOMPARE(contents(preferences()), content);
        QCOMPARE(asideNames(), QByteArray());

        QCOMPARE(save(folderStore, expected), QByteArrayList());
        const QByteArray name = list.isNull() ? asideName("harbex", content) : asideListName(list);
        QCOMPARE(asideNames(), name);
        QCOMPARE(contents(asidePath(name)), list.isNull() ? content : list);
        QVERIFY2(fs::status(asidePath(name)).permissions() == rights, line);
        QVERIFY2(fs::status(preferences()).permissions() == rights, line);
        QCOMPARE(contents(preferences()).contains("\"other\":1"), isBadList);
        const Loaded loaded = load(folderStore);
        QCOMPARE(loaded.lines, QByteArrayList());
        QVERIFY2(isSame(loaded.state, expected), line);
    }
};

HARBEX_TEST(TestFolderStore)

#include "tst_FolderStore.moc"
