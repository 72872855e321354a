#include "model/FolderListJson.h"
#include "store/Bookmark.h"
#include "store/FolderStore.h"
#include "support/CapturedOutput.h"
#include "support/EngineFiles.h"
#include "support/TestMain.h"

#include <QCryptographicHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QScopeGuard>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <sys/resource.h>
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
const QByteArrayList failureOfBrokenList = {"Failed to load folders: [0].rules: missing key"};

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

QByteArray encoded(const FolderState& state)
{
    return QJsonDocument(*encodeFolderList(state.folders)).toJson(QJsonDocument::Compact);
}

/// The JSON under which a selection is stored.
QByteArray jsonOf(const QUuid& id)
{
    return '"' + uuidText(id).toLatin1() + '"';
}

/// A state and the lines that were printed, as a text.
QByteArray textOf(const FolderState& state, const QByteArrayList& lines = {})
{
    const QByteArray selected = state.selectedFolderID ? jsonOf(*state.selectedFolderID) : "nothing";
    return lines.join('\n') + "\nselected " + selected + " of " + encoded(state);
}

QByteArray load(FolderStore& store, FolderState current = {})
{
    const CapturedOutput output;
    const FolderState state = store.loadState(std::move(current));
    return textOf(state, output.lines());
}

/// What a program that starts now loads.
QByteArray loadFresh(FolderState current = {})
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
        const std::string command = "chown -hR " + std::to_string(user) + " \"$HOME\"";
        if (std::system(command.c_str()) != 0) qFatal("cannot give the home to %u", user);
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
    // Otherwise the signal ends the process.
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit old = {};
    ::getrlimit(RLIMIT_FSIZE, &old);
    const rlimit limit{bytes, old.rlim_max};
    if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) qFatal("no limit of file sizes");
    QByteArrayList lines = save(store, state);
    ::setrlimit(RLIMIT_FSIZE, &old);
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
        QCOMPARE(load(folderStore), textOf(state));
        QCOMPARE(loadFresh(), textOf(state));
    }

    void savingWritesExactly()
    {
        const auto check = [](const FolderState& state, const QByteArray& expected) {
            QCOMPARE(saveFresh(state), QByteArrayList());
            QCOMPARE(contents(preferences()), expected);
            QCOMPARE(asideNames(), QByteArray());
        };
        const QUuid id(someID);
        const FolderState state{{{id, FileUrl::fromPath("/a"), {}, {}}}, id};
        const QByteArray full =
            R"({"savedWatchedFolders":[{"id":"0F8E6C1A-1111-4222-8333-ABCDEFABCDEF","rules":[],"url":"file:///a"}],)"
            R"("selectedWatchedFolderID":"0F8E6C1A-1111-4222-8333-ABCDEFABCDEF"})";
        check(state, full);
        check({}, R"({"savedWatchedFolders":[]})");
        // Other keys stay.
        writePreferences(R"( {"other": [1, {"b":null}], "x":"\u00e9", "z":9007199254740993} )");
        check({}, "{\"other\":[1,{\"b\":null}],\"savedWatchedFolders\":[],\"x\":\"\u00e9\","
                  "\"z\":9007199254740993}");
    }

    void linkStaysALink()
    {
        const FolderState state = someState();
        for (const bool hasTarget : {true, false}) {
            const ScratchFolder elsewhere;
            const std::string target = elsewhere.path() + "/settings";
            if (hasTarget) writeFile(target, preferencesWith("[]").toStdString());
            makeLink(elsewhere.path() + "/second", "settings");
            fs::create_directories(folder());
            fs::remove(preferences());
            makeLink(preferences(), elsewhere.path() + "/second");
            QCOMPARE(saveFresh(state), QByteArrayList());
            QVERIFY(fs::is_symlink(preferences()));
            QVERIFY(fs::is_symlink(elsewhere.path() + "/second"));
            QVERIFY(fs::is_regular_file(fs::symlink_status(target)));
            QCOMPARE(loadFresh(), textOf(state));
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
            QCOMPARE(loadFresh(current), textOf(withFirstSelected(current)));
            QCOMPARE(loadFresh(), textOf({}));
            QCOMPARE(fs::exists(preferences()), !content.isNull());
        }
        // The selection is read without a list too.
        store({}, jsonOf(current.folders[1].id));
        QCOMPARE(loadFresh(current), textOf(current));
        store("[]", jsonOf(*current.selectedFolderID));
        QCOMPARE(loadFresh(current), textOf({}));
    }

    void selectedIsTheStoredFolderOrTheFirst()
    {
        FolderState state = someState();
        state.folders[1].id = QUuid(someID);
        const auto check = [&state](const QByteArray& selection, size_t expected) {
            store(encoded(state), selection);
            // The selection before the load does not matter.
            for (const FolderState& current : {FolderState(), state, FolderState{{}, QUuid::createUuid()}})
                QCOMPARE(loadFresh(current), textOf({state.folders, state.folders[expected].id}));
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
        QTRY_COMPARE(loadFresh(), textOf(expected));
        QCOMPARE(contents(preferences()), stored);
        // A bookmark of a folder that is gone changes nothing.
        fs::remove(after);
        QCOMPARE(loadFresh(), textOf(state));
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

        const QByteArray failure = failureTo("read")[0] + ": ";
        for (const QByteArray& content :
             {QByteArray(R"({"savedWatchedFolders":[],})"), QByteArray(R"({"savedWatchedFolders":[])"),
              QByteArray(R"({"savedWatchedFolders":[]}x)"), QByteArray("\xff\xfe[General]\n"),
              QByteArray("\n"), QByteArray(4096, '\0'), QByteArray(100'000, '[')})
            checkUnusable(content, failure + parseJson(content).error().description.toUtf8(), {});
        checkUnusable("[]", failure + "top level: expected an object", {});
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
            QCOMPARE(loadFresh(), textOf(state));
            QCOMPARE(contents(asidePath(asideName("harbex", content))), content);
        }
    }

    // The list appears after a server did not answer, or another program writes it.
    void goodListThatWasNotLoadedIsPutAside()
    {
        const QByteArray list = encoded(someState());
        const auto check = [](const QByteArray& atLoading, const QByteArray& listAtSaving, bool isPutAside,
                              unsigned rightsAtLoading = 0755) {
            fs::remove_all(folder());
            fs::create_directories(folder());
            writePreferences(atLoading);
            FolderStore folderStore;
            {
                const auto user = asUserWithRights(folder(), rightsAtLoading);
                load(folderStore);
            }
            store(listAtSaving);
            // The list of the last save is known, so it is not put aside.
            for (const FolderState& state : {FolderState(), someState(), FolderState()}) {
                QCOMPARE(save(folderStore, state), QByteArrayList());
                QVERIFY(contents(preferences()).contains(encoded(state)));
                QCOMPARE(asideNames(), isPutAside ? asideListName(listAtSaving) : QByteArray());
            }
        };
        check(preferencesWith(list), list, false);
        check(preferencesWith(list), "[]", false);
        check({}, list, true);
        check(preferencesWith("[]"), list, true);
        check("{", list, true);
        check(preferencesWith(list), list, true, 0);
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
                const bool isReadable = (rights & 0444U) != 0;
                QCOMPARE(load(folderStore, current),
                         isReadable ? textOf(state) : textOf(withFirstSelected(current), failureTo("read")));
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
        QCOMPARE(load(folderStore, current), textOf(withFirstSelected(current)));
        QCOMPARE(save(folderStore, current), failureTo("write"));
        QCOMPARE(fs::file_size(folder()), std::uintmax_t(0));
        fs::remove(folder());
        // A folder instead of the file means that they cannot be read.
        fs::create_directories(preferences());
        QCOMPARE(loadFresh(current), textOf(withFirstSelected(current), failureTo("read")));
        QCOMPARE(save(folderStore, {}), failureTo("write"));
        QVERIFY(fs::is_directory(preferences()));
        QCOMPARE(asideNames(), QByteArray());
        fs::remove(preferences());
        QCOMPARE(save(folderStore, current), QByteArrayList());
        QCOMPARE(load(folderStore), textOf(current));
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
            QCOMPARE(loadFresh(), textOf(old));

            // The store keeps what it could not write.
            QCOMPARE(load(folderStore), textOf(state));
            state.selectedFolderID = QUuid::createUuid();
            QCOMPARE(saveWithoutRoom(folderStore, state, room), failureTo("write"));
            QCOMPARE(load(folderStore), textOf(withFirstSelected(state)));
            // The next state that can be written replaces it.
            QCOMPARE(save(folderStore, old), QByteArrayList());
            QCOMPARE(load(folderStore), textOf(old));
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
            const FolderState loaded = isBroken ? FolderState() : theirs;
            QCOMPARE(load(folderStore), textOf(loaded, isBroken ? failureOfBrokenList : QByteArrayList()));
            QCOMPARE(save(folderStore, loaded), QByteArrayList());
            QCOMPARE(asideNames(), isBroken ? asideListName(brokenList) : QByteArray());
        }
    }

private:
    /// `line` is what loading prints. `list` is the list that is put aside; null if it is the whole file.
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
        for (int i = 0; i < 2; ++i)
            QCOMPARE(load(folderStore, current), textOf(expected, {line}));
        QCOMPARE(contents(preferences()), content);
        QCOMPARE(asideNames(), QByteArray());

        QCOMPARE(save(folderStore, expected), QByteArrayList());
        const QByteArray name = list.isNull() ? asideName("harbex", content) : asideListName(list);
        QCOMPARE(asideNames(), name);
        QCOMPARE(contents(asidePath(name)), list.isNull() ? content : list);
        QVERIFY2(fs::status(asidePath(name)).permissions() == rights, line);
        QVERIFY2(fs::status(preferences()).permissions() == rights, line);
        QCOMPARE(contents(preferences()).contains("\"other\":1"), isBadList);
        QCOMPARE(load(folderStore), textOf(expected));
    }
};

HARBEX_TEST(TestFolderStore)

#include "tst_FolderStore.moc"
