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

#include <algorithm>
#include <csignal>
#include <filesystem>
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

QString text(const char* utf8)
{
    return QString::fromUtf8(utf8);
}

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
    rule.value = text("invoice \u00e9");
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

/// The line that says that the preferences cannot be read or written.
QStringList failureTo(const char* action)
{
    return {
        text("Failed to %1 the preferences: %2").arg(text(action), QString::fromStdString(preferences()))};
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

/// The lines that saving prints while no file of this process can grow beyond `bytes`. Captured output is a
/// file too.
QStringList saveWithoutRoom(FolderStore& store, const FolderState& state, rlim_t bytes = 100'000)
{
    rlimit old = {};
    ::getrlimit(RLIMIT_FSIZE, &old);
    const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
    CapturedOutput output;
    const rlimit limit{bytes, old.rlim_max};
    if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) qFatal("no limit of file sizes");
    store.saveState(state);
    ::setrlimit(RLIMIT_FSIZE, &old);
    std::signal(SIGXFSZ, oldHandler);
    return output.lines();
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
        state.folders[1].url = FileUrl::fromPath("/a \xff\n\u00e9");
        state.folders[1].rules[0].value = text("\\\"\n\U0001F600\x01") + QChar(u'\0');
        state.selectedFolderID = QUuid();
        FolderStore folderStore;
        QCOMPARE(save(folderStore, state), QStringList());
        QCOMPARE(asideNames(), QByteArray());
        for (const Loaded& loaded : {load(folderStore), loadFresh()}) {
            QCOMPARE(loaded.lines, QStringList());
            QVERIFY(isSame(loaded.state, state));
        }
    }

    void savingWritesExactly_data()
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

    void savingWritesExactly()
    {
        QFETCH(const QByteArray, before);
        QFETCH(const bool, isEmpty);
        QFETCH(const QByteArray, after);
        writePreferences(before);
        const QUuid id(text(someID));
        const FolderState state{{{id, FileUrl::fromPath("/a"), {}, {}}}, id};
        QCOMPARE(saveFresh(isEmpty ? FolderState() : state), QStringList());
        QCOMPARE(contents(preferences()), after);
        QCOMPARE(asideNames(), QByteArray());
    }

    void linkStaysALink_data()
    {
        QTest::addColumn<bool>("isRelative");
        QTest::addColumn<bool>("hasTarget");
        QTest::newRow("link") << false << true;
        QTest::newRow("link to a relative link") << true << true;
        QTest::newRow("link to nothing") << false << false;
        QTest::newRow("link to a relative link to nothing") << true << false;
    }

    void linkStaysALink()
    {
        QFETCH(const bool, isRelative);
        QFETCH(const bool, hasTarget);
        const ScratchFolder elsewhere;
        const std::string target = elsewhere.path() + "/settings";
        const std::string second = elsewhere.path() + "/second";
        store("[]");
        renameEntry(preferences(), target);
        if (!hasTarget) fs::remove(target);
        if (isRelative) makeLink(second, "settings");
        makeLink(preferences(), isRelative ? second : target);
        const FolderState state = someState();
        QCOMPARE(saveFresh(state), QStringList());
        QVERIFY(fs::is_symlink(preferences()));
        QVERIFY(fs::is_regular_file(fs::symlink_status(target)));
        QVERIFY(isSame(loadFresh().state, state));
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
        const QStringList expected(QStringLiteral("Failed to save folders: \\(error)"));
        QCOMPARE(saveFresh(bad), expected);
        QVERIFY(!fs::exists(preferences()));
        store("[]");
        QCOMPARE(saveFresh(bad), expected);
        QCOMPARE(contents(preferences()), preferencesWith("[]"));
    }

    void withoutAStoredListTheListInMemoryStays_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::newRow("no file") << QByteArray();
        QTest::newRow("empty file") << QByteArray("");
        QTest::newRow("empty object") << QByteArray("{}");
        QTest::newRow("other key") << QByteArray(R"({"other":[]})");
    }

    void withoutAStoredListTheListInMemoryStays()
    {
        QFETCH(const QByteArray, content);
        writePreferences(content);
        const FolderState current = someState();
        const Loaded loaded = loadFresh(current);
        QCOMPARE(loaded.lines, QStringList());
        QVERIFY(isSame(loaded.state, withFirstSelected(current)));
        QVERIFY(isSame(loadFresh().state, {}));
        QCOMPARE(fs::exists(preferences()), !content.isNull());
        // The selection is read without a list too.
        store({}, jsonOf(current.folders[1].id));
        QVERIFY(isSame(loadFresh(current).state, current));
    }

    void storedEmptyListReplacesTheListInMemory()
    {
        const FolderState current = someState();
        store("[]", jsonOf(*current.selectedFolderID));
        QVERIFY(isSame(loadFresh(current).state, {}));
    }

    void selectedIsTheStoredFolderOrTheFirst_data()
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
        QTest::newRow("empty") << QByteArray("\"\"") << first;
        QTest::newRow("braces") << QByteArray("\"{" + id + "}\"") << first;
        QTest::newRow("array") << QByteArray("[\"" + id + "\"]") << first;
        QTest::newRow("number") << QByteArray("5") << first;
        QTest::newRow("null") << QByteArray("null") << first;
    }

    void selectedIsTheStoredFolderOrTheFirst()
    {
        QFETCH(const QByteArray, selection);
        QFETCH(const size_t, expected);
        FolderState state = someState();
        state.folders[1].id = QUuid(text(someID));
        store(encoded(state), selection);
        // The selection before the load does not matter.
        for (const FolderState& current : {FolderState(), state, FolderState{{}, QUuid::createUuid()}}) {
            const Loaded loaded = loadFresh(current);
            QCOMPARE(loaded.lines, QStringList());
            QVERIFY(isSame(loaded.state, {state.folders, state.folders[expected].id}));
        }
        QCOMPARE(contents(preferences()), preferencesWith(encoded(state), selection));
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
        QTRY_VERIFY((loaded = loadFresh(), isSame(loaded.state, expected)));
        QCOMPARE(loaded.lines, QStringList());
        QCOMPARE(contents(preferences()), stored);
        // A bookmark of a folder that is gone changes nothing.
        fs::remove(after);
        loaded = loadFresh();
        QCOMPARE(loaded.lines, QStringList());
        QVERIFY(isSame(loaded.state, state));
    }

    void unusableContentIsPutAsideBeforeItIsReplaced_data()
    {
        QTest::addColumn<QByteArray>("content");
        // The beginning of the line that loading prints.
        QTest::addColumn<QString>("line");
        // The list that is put aside; null if it is the whole file.
        QTest::addColumn<QByteArray>("list");
        const auto list = [](const char* name, const QByteArray& json, const char* error, bool isWholeFile) {
            QTest::addRow("list: %s", name)
                << "{\"other\":1,\"savedWatchedFolders\":" + json + '}'
                << text("Failed to load folders: ") + text(error) << (isWholeFile ? QByteArray() : json);
        };
        const QByteArray noKind = encoded(someState()).replace("\"kind\":\"Image\",", "");
        list("folder without rules", brokenList, "[0].rules: missing key", false);
        list("rule without kind", noKind, "[1].rules[0].kind: missing key", false);
        list("something else", "[5,6]", "[0]: expected an object", false);
        list("several lines", "[\n  5\n]", "[0]: expected an object", true);
        list("key that stands there twice", R"([{"a":1,"a":2}])", "[0].id: missing key", true);
        for (const char* value : {"{}", "5", "null", "false", "\"[]\""})
            list(value, value, "top level: expected an array", true);

        const auto file = [](const char* name, const QByteArray& content, const char* error = "offset ") {
            QTest::addRow("file: %s", name)
                << content << failureTo("read")[0] + text(": ") + text(error) << QByteArray();
        };
        file("comma too much", R"({"savedWatchedFolders":[],})");
        file("cut off", R"({"savedWatchedFolders":[])");
        file("something behind it", preferencesWith("[]") + "x");
        file("zeroes", QByteArray(4096, '\0'));
        file("no JSON", "\xff\xfe[General]\n");
        file("space", "\n");
        file("nested too deep", QByteArray(100'000, '['));
        file("no object", "[]", "top level: expected an object");
    }

    void unusableContentIsPutAsideBeforeItIsReplaced()
    {
        QFETCH(const QByteArray, content);
        QFETCH(const QString, line);
        QFETCH(const QByteArray, list);
        constexpr fs::perms rights = fs::perms::owner_read | fs::perms::owner_write;
        writePreferences(content);
        fs::permissions(preferences(), rights);
        FolderStore folderStore;
        const FolderState current = someState();
        // A bad list counts as an empty list. Without any list, the list in memory stays.
        const bool isBadList = line.startsWith(text("Failed to load folders"));
        const FolderState expected = isBadList ? FolderState() : withFirstSelected(current);
        for (int i = 0; i < 2; ++i) {
            const Loaded loaded = load(folderStore, current);
            QCOMPARE(loaded.lines.size(), 1);
            QVERIFY2(loaded.lines[0].startsWith(line), qPrintable(loaded.lines[0]));
            QVERIFY(isSame(loaded.state, expected));
        }
        QCOMPARE(contents(preferences()), content);
        QCOMPARE(asideNames(), QByteArray());

        QCOMPARE(save(folderStore, expected), QStringList());
        const QByteArray name = list.isNull() ? asideName("harbex", content) : asideListName(list);
        QCOMPARE(asideNames(), name);
        QCOMPARE(contents(asidePath(name)), list.isNull() ? content : list);
        QVERIFY(fs::status(asidePath(name)).permissions() == rights);
        QVERIFY(fs::status(preferences()).permissions() == rights);
        QCOMPARE(contents(preferences()).contains("\"other\":1"), isBadList);
        const Loaded loaded = load(folderStore);
        QCOMPARE(loaded.lines, QStringList());
        QVERIFY(isSame(loaded.state, expected));
    }

    void sameListIsPutAsideOnce()
    {
        FolderStore folderStore;
        const QByteArray name = asideListName(brokenList);
        const fs::file_time_type longAgo;
        for (int i = 0; i < 3; ++i) {
            store(brokenList);
            QCOMPARE(save(folderStore, someState()), QStringList());
            QCOMPARE(asideNames(), name);
            // The existing file is not written again.
            if (i == 0) fs::last_write_time(asidePath(name), longAgo);
            QVERIFY(fs::last_write_time(asidePath(name)) == longAgo);
        }
        store("[1]");
        QCOMPARE(save(folderStore, someState()), QStringList());
        QCOMPARE(asideNames().split(' ').size(), 2);
    }

    void keyWithAByteOrderMarkHidesNothing()
    {
        for (const char* key : {"savedWatchedFolders", "selectedWatchedFolderID"}) {
            const QByteArray content = QByteArray("{\"\xef\xbb\xbf") + key + "\":[1]}";
            writePreferences(content);
            const FolderState state = someState();
            QCOMPARE(saveFresh(state), QStringList());
            QVERIFY(isSame(loadFresh().state, state));
            QCOMPARE(contents(asidePath(asideName("harbex", content))), content);
        }
    }

    // The list appears after a server did not answer, or another program writes it.
    void goodListThatWasNotLoadedIsPutAside_data()
    {
        QTest::addColumn<QByteArray>("atLoading");
        QTest::addColumn<bool>("isReadable");
        QTest::addColumn<QByteArray>("atSaving");
        QTest::addColumn<bool>("isPutAside");
        const QByteArray list = encoded(someState());
        QTest::newRow("same list") << preferencesWith(list) << true << list << false;
        QTest::newRow("no file") << QByteArray() << true << list << true;
        QTest::newRow("unreadable file") << preferencesWith(list) << false << list << true;
        QTest::newRow("another list") << preferencesWith("[]") << true << list << true;
        QTest::newRow("damaged file") << QByteArray("{") << true << list << true;
        QTest::newRow("replaced by an empty list")
            << preferencesWith(list) << true << QByteArray("[]") << false;
    }

    void goodListThatWasNotLoadedIsPutAside()
    {
        QFETCH(const QByteArray, atLoading);
        QFETCH(const bool, isReadable);
        QFETCH(const QByteArray, atSaving);
        QFETCH(const bool, isPutAside);
        FolderStore folderStore;
        writePreferences(atLoading);
        if (isReadable) {
            load(folderStore);
        } else {
            const auto user = asUserWithRights(preferences(), 0);
            load(folderStore);
        }
        store(atSaving);
        // The list of the last save is known, so it is not put aside.
        for (const FolderState& state : {FolderState(), someState(), FolderState()}) {
            QCOMPARE(save(folderStore, state), QStringList());
            QVERIFY(contents(preferences()).contains(encoded(state)));
            QCOMPARE(asideNames(), isPutAside ? asideListName(atSaving) : QByteArray());
        }
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
        QCOMPARE(save(folderStore, someState()), QStringList());
        QCOMPARE(asideNames(), asideListName(brokenList));
    }

    void missingRightsPrintOneLineAndChangeNothing_data()
    {
        QTest::addColumn<bool>("isFolder");
        QTest::addColumn<bool>("isLink");
        QTest::addColumn<unsigned>("rights");
        QTest::newRow("unreadable file") << false << false << 0U;
        QTest::newRow("file that can only be written") << false << false << 0222U;
        QTest::newRow("unreadable folder") << true << false << 0U;
        QTest::newRow("read-only folder") << true << false << 0555U;
        QTest::newRow("read-only file") << false << false << 0444U;
        QTest::newRow("link to a read-only file") << false << true << 0444U;
    }

    void missingRightsPrintOneLineAndChangeNothing()
    {
        QFETCH(const bool, isFolder);
        QFETCH(const bool, isLink);
        QFETCH(const unsigned, rights);
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
            const auto user = asUserWithRights(isFolder ? folder() : preferences(), rights);
            const FolderState current = someState();
            const Loaded loaded = load(folderStore, current);
            const bool isReadable = (rights & 0444U) != 0;
            QCOMPARE(loaded.lines, isReadable ? QStringList() : failureTo("read"));
            QVERIFY(isSame(loaded.state, isReadable ? state : withFirstSelected(current)));
            QCOMPARE(save(folderStore, {}), failureTo("write"));
        }
        QCOMPARE(contents(preferences()), before);
        QCOMPARE(asideNames(), QByteArray());
        QCOMPARE(save(folderStore, {}), QStringList());
        QCOMPARE(contents(preferences()), preferencesWith("[]"));
    }

    void anotherKindOfEntryPrintsOneLineAndStays()
    {
        const FolderState current = someState();
        FolderStore folderStore;
        // A file instead of the folder means that there are no preferences.
        writeFile(folder(), "");
        QCOMPARE(load(folderStore, current).lines, QStringList());
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
        QCOMPARE(save(folderStore, current), QStringList());
        QVERIFY(isSame(load(folderStore).state, current));
    }

    void withoutRoomTheOldFileStays_data()
    {
        QTest::addColumn<unsigned>("room");
        QTest::addColumn<int>("length");
        QTest::newRow("room for the first bytes") << 8'192U << 10'000;
        QTest::newRow("room for the first blocks") << 100'000U << 3'000'000;
    }

    void withoutRoomTheOldFileStays()
    {
        QFETCH(const unsigned, room);
        QFETCH(const int, length);
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
        QCOMPARE(loaded.lines, QStringList());
        QVERIFY(isSame(loaded.state, state));
        state.selectedFolderID = QUuid::createUuid();
        QCOMPARE(saveWithoutRoom(folderStore, state, room), failureTo("write"));
        QVERIFY(isSame(load(folderStore).state, withFirstSelected(state)));
        // The next state that can be written replaces it.
        QCOMPARE(save(folderStore, old), QStringList());
        QVERIFY(isSame(load(folderStore).state, old));
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
            QCOMPARE(save(folderStore, loaded.state), QStringList());
            QCOMPARE(asideNames(), isBroken ? asideListName(brokenList) : QByteArray());
        }
    }

    void fileEditedWhileTheProgramRunsIsLoaded()
    {
        FolderStore folderStore;
        save(folderStore, someState());
        // All have the same size and follow each other quickly.
        QByteArray content = contents(preferences());
        for (const char* name : {"Desk1op", "Desk2op", "Desk3op", "Desk4op"}) {
            content.replace(content.indexOf("Desk"), 7, name);
            writePreferences(content);
            QCOMPARE(load(folderStore).state.folders.at(1).url.lastPathComponent(), std::string(name));
        }
        // A removed file is not a list that is empty.
        fs::remove_all(folder());
        const FolderState current = someState();
        QVERIFY(isSame(load(folderStore, current).state, withFirstSelected(current)));
        QVERIFY(!fs::exists(preferences()));
        save(folderStore, current);
        QVERIFY(isSame(load(folderStore).state, current));
    }
};

HARBEX_TEST(TestFolderStore)

#include "tst_FolderStore.moc"
