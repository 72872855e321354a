#include "base/FileDescriptor.h"
#include "model/FolderListJson.h"
#include "store/Bookmark.h"
#include "store/FolderStore.h"
#include "store/PreferencesFile.h"
#include "support/CapturedOutput.h"
#include "support/PrivateMounts.h"
#include "support/RandomSeed.h"
#include "support/TestMain.h"

#include <QCryptographicHash>
#include <QDataStream>
#include <QSettings>
#include <QTemporaryDir>

#include <algorithm>
#include <array>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <sys/fsuid.h>
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

/// Bytes that were a list before somebody edited them.
const QByteArray brokenList =
    R"([{"id":"0F8E6C1A-1111-4222-8333-ABCDEFABCDEF","url":"file:///a","rules":[],]})";

QString text(const char* utf8)
{
    return QString::fromUtf8(utf8);
}

/// The folder of the preferences; the home is the same for all tests of this program.
fs::path folder()
{
    return fs::path(qEnvironmentVariable("XDG_CONFIG_HOME").toStdString()) / "harbex";
}
fs::path conf()
{
    return folder() / "harbex.conf";
}
QString confPath()
{
    return QString::fromStdString(conf().string());
}

QByteArray contentOf(const fs::path& path)
{
    QFile file(QString::fromStdString(path.string()));
    if (!file.open(QIODevice::ReadOnly)) return "(cannot be read)";
    return file.readAll();
}

void writeConf(const QByteArray& content)
{
    fs::create_directories(folder());
    QFile file(confPath());
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(content) != content.size())
        qFatal("cannot write %s", qPrintable(confPath()));
}

/// What somebody else finds in the preferences now.
QVariant stored(const char* key)
{
    // Under another name each time, past what QSettings remembers of the file.
    const QTemporaryDir place;
    const QString copy = place.filePath(text("copy.conf"));
    QFile::copy(confPath(), copy);
    return QSettings(copy, QSettings::IniFormat).value(text(key));
}

/// The stored list, as JSON; empty when there is none.
QByteArray storedList()
{
    return stored(listKey).toByteArray();
}

/// Puts values into the preferences as any other program would.
void store(const QVariant& list, const QVariant& selection = {})
{
    const QTemporaryDir place;
    const QString copy = place.filePath(text("copy.conf"));
    {
        QSettings settings(copy, QSettings::IniFormat);
        if (list.isValid()) settings.setValue(text(listKey), list);
        if (selection.isValid()) settings.setValue(text(selectionKey), selection);
    }
    writeConf(contentOf(copy.toStdString()));
}

/// The names of the files beside the preferences, sorted.
QStringList asideNames()
{
    QStringList names;
    for (const auto& entry : fs::directory_iterator(folder()))
        names.append(QString::fromStdString(entry.path().filename().string()));
    names.removeOne(text("harbex.conf"));
    names.sort();
    return names;
}

QString asideName(const char* stem, const QByteArray& content, const char* suffix)
{
    const QByteArray hash = QCryptographicHash::hash(content, QCryptographicHash::Sha256).toHex().first(16);
    return text(stem) + u'-' + QString::fromLatin1(hash) + u'.' + text(suffix);
}

QString asideListName(const QByteArray& list)
{
    return asideName("savedWatchedFolders", list, "json");
}
QString asideConfName(const QByteArray& conf)
{
    return asideName("harbex", conf, "conf");
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

/// A state whose list is some megabytes long.
FolderState longState()
{
    FolderState state = someState();
    state.folders[0].rules.resize(1);
    state.folders[0].rules[0].value = QString(3'000'000, u'x');
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
    return *encodeFolderList(state.folders);
}

/// The text under which its selection is stored.
QString selectionOf(const FolderState& state)
{
    return uuidText(state.selectedFolderID.value_or(QUuid()));
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
    return {text("Failed to write the preferences: ") + confPath()};
}
QStringList readFailure()
{
    return {text("Failed to read the preferences: ") + confPath()};
}

/// Makes this thread an ordinary user to the file system, who owns the home of this test.
class OrdinaryUser
{
public:
    OrdinaryUser()
    {
        if (::geteuid() != 0) return;
        giveHomeTo(nobody);
        // The rights of root over files go with the user id.
        ::setfsuid(nobody);
    }
    ~OrdinaryUser()
    {
        if (::geteuid() != 0) return;
        ::setfsuid(0);
        giveHomeTo(0);
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

/// Keeps the warnings of Qt, which are many for values that are none, out of the output for a scope.
class SilentQt
{
public:
    ~SilentQt() { qInstallMessageHandler(m_old); }
    SilentQt() = default;
    SilentQt(const SilentQt&) = delete;
    SilentQt& operator=(const SilentQt&) = delete;

private:
    QtMessageHandler m_old =
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
};

/// The form in which QSettings stores a value that holds `depth` lists, each inside the one before.
QByteArray nestedLists(int depth)
{
    QByteArray value;
    QDataStream stream(&value, QIODevice::WriteOnly);
    for (int i = 0; i < depth; ++i)
        stream << static_cast<quint32>(QMetaType::QVariantList) << quint32(1);
    return value;
}

/// The content of preferences with such a value in the place of the list.
QByteArray confWithValue(const QByteArray& value)
{
    QByteArray conf = "[General]\nsavedWatchedFolders=\"@Variant(";
    for (const char byte : value)
        conf += "\\x" + QByteArray::number(static_cast<uchar>(byte), 16);
    return conf + ")\"\nselectedWatchedFolderID=5\n";
}

Preferences parsed(const QByteArray& content)
{
    const auto preferences = parsePreferences(content);
    if (!preferences) qFatal("the preferences cannot be parsed");
    return *preferences;
}

} // namespace

class TestFolderStore : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();

    // What is stored.
    void storeIsTheConfFileOfTheUser();
    void savedStateLoadsAgain();
    void everyTextComesBackThroughTheFile();
    void listIsStoredAsBytesAndSelectionAsText();
    void everySaveWritesTheWholeListAndTheSelection();
    void savingWithNoSelectionRemovesItsKey();
    void savingNoFoldersStoresAnEmptyArray();
    void otherKeysStay();
    void linkedFileStaysALink();
    void encodingFailurePrintsTheLiteralLineAndStoresNothing();

    // Loading.
    void firstStartGivesNoFoldersAndNoSelection();
    void nothingStoredLeavesTheListAsItIs();
    void storedEmptyListReplacesTheOneInMemory();
    void ruleWithoutKindLoadsAsEmptyPrintsOneLineAndTheNextSaveReplacesIt();
    void listThatDoesNotDecodeEmptiesTheListInMemory();
    void loadingNeverChangesWhatIsStored();
    void decodingErrorIsOneLine();
    void storedSelectionIsRestored();
    void selectionThatNamesNoFolderSelectsTheFirst();
    void withNoFoldersTheSelectionIsAbsentAndItsKeyIsRemovedByTheNextSave();
    void missingSelectionSelectsTheFirst();
    void malformedSelectionSelectsTheFirst_data();
    void malformedSelectionSelectsTheFirst();
    void allZeroSelectionIsAnIdLikeAnyOther();

    // Bookmarks.
    void folderWhoseBookmarkResolvesGetsTheResolvedUrl();
    void destinationWhoseBookmarkResolvesGetsTheResolvedUrl();
    void folderWhoseBookmarkNoLongerResolvesKeepsItsStoredUrl();
    void rulesAreResolvedWhateverBecameOfTheirFolder();
    void destinationIsSetByItsBookmarkAlone();
    void bookmarksAreNotMadeAnewByLoading();

    // Nothing is lost.
    void listThatDoesNotDecodeIsPutAsideBeforeItIsReplaced();
    void sameListIsPutAsideOnce();
    void twoBrokenListsArePutAsideInTwoFiles();
    void goodListIsNotPutAside();
    void goodListThatWasNotSeenIsPutAside_data();
    void goodListThatWasNotSeenIsPutAside();
    void valueOfAnotherTypeIsUndecodableAndPutAsideWithTheWholeFile_data();
    void valueOfAnotherTypeIsUndecodableAndPutAsideWithTheWholeFile();
    void listPutInByHandAsTextIsRead();
    void severalLinesPutInByHandArePutAsideAsTheyAre();
    void damagedFilePrintsOneLineAndIsPutAside();
    void whatIsPutAsideHasTheRightsOfTheStore();
    void whatCannotBePutAsideIsNotReplaced();
    void unwrittenStateDoesNotReplaceAListEditedSince();

    // Faults of the file system.
    void fileInPlaceOfTheFolderPrintsOneLineAndGoesOn();
    void folderInPlaceOfTheFilePrintsOneLineAndGoesOn();
    void readOnlyFolderPrintsOneLineAndGoesOn();
    void unreadableFilePrintsOneLineAndIsNotReplaced();
    void unreadableFolderPrintsOneLine();
    void noRoomForTheFilePrintsOneLineAndKeepsTheOldOne();
    void fullDiskPrintsOneLineAndKeepsTheOldOne();
    void savingWorksAgainOnceTheFaultIsGone();
    void whatCouldNotBeWrittenIsLoadedAgain();
    void fileChangedBySomebodyElseWinsOverWhatCouldNotBeWritten();
    void closedStandardOutputChangesNothing();

    // The file changes while the program runs.
    void fileEditedWhileRunningIsSeen();
    void fileDeletedWhileRunningIsSeen();

    // Damage of every kind.
    void deeplyNestedValueNeitherCrashesNorStaysInTheWay();
    void typedValuesOfEveryKindNeverCrash();
    void typedValueUnderAnotherKeyDoesNotCostTheList();
    void fileThatDoesNotTakeTheValuesIsPutAsideAndReplaced();
    void everySpellingOfANulIsFound();
    void zeroesInPlaceOfTheContentAreDamage();
    void randomDamageNeverCrashesAndLosesNothing();
};

void TestFolderStore::init()
{
    fs::remove_all(folder());
    QCOMPARE(FolderStore().path(), confPath());
}

void TestFolderStore::storeIsTheConfFileOfTheUser()
{
    QCOMPARE(saveFresh(someState()), QStringList());
    QVERIFY(fs::is_regular_file(conf()));
    QCOMPARE(asideNames(), QStringList());
}

void TestFolderStore::savedStateLoadsAgain()
{
    FolderState state = someState();
    state.folders[0].bookmarkData = QByteArray("no bookmark\0\xff", 13);
    state.folders[1].url = FileUrl::fromPath("/a \xff\n\u00e9");
    QCOMPARE(saveFresh(state), QStringList());
    const Loaded loaded = loadFresh();
    QCOMPARE(loaded.lines, QStringList());
    QVERIFY(isSame(loaded.state, state));
}

void TestFolderStore::everyTextComesBackThroughTheFile()
{
    std::mt19937 random = seededRandom();
    FolderStore folderStore;
    for (int i = 0; i < 40; ++i) {
        FolderState state = someState();
        for (size_t length = randomBelow(random, 40); length > 0; --length) {
            static const QString pieces[] = {
                text("\\"),           text("0"),  text("x"), text("\""),     text(","),          text(";"),
                text("@Variant("),    text("\n"), text("%"), text("\u00e9"), text("\U0001F600"), text("\x01"),
                QString(QChar(u'\0'))};
            state.folders[1].rules[0].value += pieces[randomBelow(random, std::size(pieces))];
        }
        QCOMPARE(save(folderStore, state), QStringList());
        const Loaded loaded = load(folderStore);
        QCOMPARE(loaded.lines, QStringList());
        QVERIFY2(isSame(loaded.state, state), storedList());
    }
    QCOMPARE(asideNames(), QStringList());
}

void TestFolderStore::listIsStoredAsBytesAndSelectionAsText()
{
    FolderState state = someState();
    state.folders[1].id = QUuid(text("0f8e6c1a-1111-4222-8333-abcdefabcdef"));
    state.selectedFolderID = state.folders[1].id;
    saveFresh(state);
    QCOMPARE(stored(listKey).typeId(), int(QMetaType::QByteArray));
    QCOMPARE(storedList(), encoded(state));
    QCOMPARE(stored(selectionKey).typeId(), int(QMetaType::QString));
    QCOMPARE(stored(selectionKey).toString(), text("0F8E6C1A-1111-4222-8333-ABCDEFABCDEF"));
}

void TestFolderStore::everySaveWritesTheWholeListAndTheSelection()
{
    FolderStore store;
    save(store, someState());
    FolderState state = someState();
    state.folders.pop_back();
    state.selectedFolderID = state.folders[0].id;
    save(store, state);
    QCOMPARE(storedList(), encoded(state));
    QCOMPARE(stored(selectionKey).toString(), uuidText(state.folders[0].id));
}

void TestFolderStore::savingWithNoSelectionRemovesItsKey()
{
    FolderState state = someState();
    saveFresh(state);
    QVERIFY(stored(selectionKey).isValid());
    state.selectedFolderID.reset();
    saveFresh(state);
    QVERIFY(!stored(selectionKey).isValid());
    QVERIFY(!contentOf(conf()).contains(selectionKey));
}

void TestFolderStore::savingNoFoldersStoresAnEmptyArray()
{
    saveFresh({});
    QCOMPARE(storedList(), QByteArray("[]"));
}

void TestFolderStore::otherKeysStay()
{
    writeConf("[General]\nother=5\n[group]\nkey=value\n");
    saveFresh(someState());
    QCOMPARE(stored("other").toString(), text("5"));
    QCOMPARE(stored("group/key").toString(), text("value"));
    QCOMPARE(storedList().isEmpty(), false);
}

void TestFolderStore::linkedFileStaysALink()
{
    const QTemporaryDir elsewhere;
    const fs::path target = elsewhere.filePath(text("settings")).toStdString();
    store(QByteArray("[]"));
    fs::rename(conf(), target);
    fs::create_symlink(target, conf());
    const FolderState state = someState();
    QCOMPARE(saveFresh(state), QStringList());
    QVERIFY(fs::is_symlink(conf()));
    QCOMPARE(storedList(), encoded(state));
    QVERIFY(isSame(loadFresh().state, state));
}

void TestFolderStore::encodingFailurePrintsTheLiteralLineAndStoresNothing()
{
    FolderState bad = someState();
    bad.folders[1].rules[0].value = QString(QChar(0xd800));
    const QStringList expected(QStringLiteral("Failed to save folders: \\(error)"));

    // Nothing was stored before.
    QCOMPARE(saveFresh(bad), expected);
    QVERIFY(!fs::exists(conf()));
    // Something was.
    saveFresh(someState());
    const QByteArray before = contentOf(conf());
    bad.selectedFolderID.reset();
    QCOMPARE(saveFresh(bad), expected);
    QCOMPARE(contentOf(conf()), before);
}

void TestFolderStore::firstStartGivesNoFoldersAndNoSelection()
{
    const Loaded loaded = loadFresh();
    QCOMPARE(loaded.lines, QStringList());
    QVERIFY(loaded.state.folders.empty());
    QVERIFY(!loaded.state.selectedFolderID);
    QVERIFY(!fs::exists(conf()));
}

void TestFolderStore::nothingStoredLeavesTheListAsItIs()
{
    const FolderState current = someState();
    const auto check = [&current](const QUuid& selected) {
        const Loaded loaded = loadFresh(current);
        QCOMPARE(loaded.lines, QStringList());
        QVERIFY(isSame(loaded.state, {current.folders, selected}));
    };
    check(current.folders[0].id);
    // The selection is read all the same.
    store({}, uuidText(current.folders[1].id));
    check(current.folders[1].id);
}

void TestFolderStore::storedEmptyListReplacesTheOneInMemory()
{
    store(QByteArray("[]"));
    QVERIFY(isSame(loadFresh(someState()).state, {}));
}

void TestFolderStore::ruleWithoutKindLoadsAsEmptyPrintsOneLineAndTheNextSaveReplacesIt()
{
    const QByteArray list = encoded(someState()).replace("\"kind\":\"Image\",", "");
    QVERIFY(!list.contains("kind"));
    store(list, text("0F8E6C1A-1111-4222-8333-ABCDEFABCDEF"));

    FolderStore folderStore;
    const Loaded loaded = load(folderStore);
    QCOMPARE(loaded.lines, QStringList(text("Failed to load folders: [1].rules[0].kind: missing key")));
    QVERIFY(isSame(loaded.state, {}));
    QCOMPARE(save(folderStore, loaded.state), QStringList());
    QCOMPARE(storedList(), QByteArray("[]"));
    QVERIFY(!stored(selectionKey).isValid());
}

void TestFolderStore::listThatDoesNotDecodeEmptiesTheListInMemory()
{
    const FolderState current = someState();
    store(brokenList, uuidText(current.folders[1].id));
    const Loaded loaded = loadFresh(current);
    QCOMPARE(loaded.lines.size(), 1);
    QVERIFY(loaded.lines[0].startsWith(text("Failed to load folders: offset ")));
    QVERIFY(isSame(loaded.state, {}));
}

void TestFolderStore::loadingNeverChangesWhatIsStored()
{
    for (const QByteArray& list : {brokenList, encoded(someState()), QByteArray()}) {
        store(list, text("no UUID"));
        const QByteArray before = contentOf(conf());
        const QStringList names = asideNames();
        (void)loadFresh();
        (void)loadFresh(someState());
        QCOMPARE(contentOf(conf()), before);
        QCOMPARE(asideNames(), names);
    }
}

void TestFolderStore::decodingErrorIsOneLine()
{
    store(encoded(someState()).replace("\"Name\"", "\"Na\\nme\\r\\u2028\""));
    QCOMPARE(loadFresh().lines,
             QStringList(text("Failed to load folders: "
                              "[1].rules[0].field: unknown value \"Na\\nme\\r\\u{2028}\"")));
}

void TestFolderStore::storedSelectionIsRestored()
{
    const FolderState state = someState();
    for (const WatchedFolder& each : state.folders) {
        store(encoded(state), uuidText(each.id));
        QVERIFY(loadFresh().state.selectedFolderID == each.id);
        // Whatever was selected before.
        QVERIFY(loadFresh({{}, QUuid::createUuid()}).state.selectedFolderID == each.id);
        store(encoded(state), uuidText(each.id).toLower());
        QVERIFY(loadFresh().state.selectedFolderID == each.id);
    }
}

void TestFolderStore::selectionThatNamesNoFolderSelectsTheFirst()
{
    const FolderState state = someState();
    store(encoded(state), uuidText(QUuid::createUuid()));
    const Loaded loaded = loadFresh(state);
    QCOMPARE(loaded.lines, QStringList());
    QVERIFY(loaded.state.selectedFolderID == state.folders[0].id);
}

void TestFolderStore::withNoFoldersTheSelectionIsAbsentAndItsKeyIsRemovedByTheNextSave()
{
    store(QByteArray("[]"), uuidText(QUuid::createUuid()));
    FolderStore folderStore;
    const Loaded loaded = load(folderStore);
    QVERIFY(!loaded.state.selectedFolderID);
    QVERIFY(stored(selectionKey).isValid());
    save(folderStore, loaded.state);
    QVERIFY(!stored(selectionKey).isValid());
    QCOMPARE(storedList(), QByteArray("[]"));
}

void TestFolderStore::missingSelectionSelectsTheFirst()
{
    const FolderState state = someState();
    store(encoded(state));
    QVERIFY(loadFresh(state).state.selectedFolderID == state.folders[0].id);
}

void TestFolderStore::malformedSelectionSelectsTheFirst_data()
{
    QTest::addColumn<QVariant>("selection");
    // A value of a type that is neither text nor bytes is damage to the file.
    QTest::addColumn<QStringList>("lines");
    // Each of these would be the second folder to a more generous reader.
    const QString id = text("0F8E6C1A-1111-4222-8333-ABCDEFABCDEF");
    QTest::newRow("empty") << QVariant(QString()) << QStringList();
    QTest::newRow("braces") << QVariant(u'{' + id + u'}') << QStringList();
    QTest::newRow("text behind it") << QVariant(id + u' ') << QStringList();
    QTest::newRow("no hyphens") << QVariant(QString(id).remove(u'-')) << QStringList();
    QTest::newRow("bytes") << QVariant(id.toLatin1()) << QStringList();
    QTest::newRow("list") << QVariant(QStringList{id, id}) << QStringList();
    QTest::newRow("number") << QVariant(5) << QStringList();
    QTest::newRow("null pointer") << QVariant::fromValue(nullptr) << readFailure();
    QTest::newRow("UUID of Qt") << QVariant(QUuid(id)) << readFailure();
    QTest::newRow("map") << QVariant(QVariantMap{{text("id"), id}}) << readFailure();
}

void TestFolderStore::malformedSelectionSelectsTheFirst()
{
    QFETCH(const QVariant, selection);
    QFETCH(const QStringList, lines);
    FolderState state = someState();
    state.folders[1].id = QUuid(text("0F8E6C1A-1111-4222-8333-ABCDEFABCDEF"));
    store(encoded(state), selection);
    const Loaded loaded = loadFresh();
    QCOMPARE(loaded.lines, lines);
    QVERIFY(loaded.state.selectedFolderID == state.folders[0].id);
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

void TestFolderStore::folderWhoseBookmarkResolvesGetsTheResolvedUrl()
{
    const QTemporaryDir scratch;
    const fs::path before = scratch.filePath(text("before")).toStdString();
    const fs::path after = scratch.filePath(text("after")).toStdString();
    fs::create_directory(before);
    FolderState state;
    state.folders = {folderAt(before.string())};
    state.folders[0].bookmarkData = *createBookmark(before.string());
    saveFresh(state);
    QCOMPARE(loadFresh().state.folders.at(0).url.path(), before.string());
    fs::rename(before, after);
    const Loaded loaded = loadFresh();
    QCOMPARE(loaded.lines, QStringList());
    QCOMPARE(loaded.state.folders.at(0).url.path(), after.string());
    QVERIFY(loaded.state.folders[0].bookmarkData == state.folders[0].bookmarkData);
}

void TestFolderStore::destinationWhoseBookmarkResolvesGetsTheResolvedUrl()
{
    const QTemporaryDir scratch;
    const fs::path before = scratch.filePath(text("before")).toStdString();
    const fs::path after = scratch.filePath(text("after")).toStdString();
    fs::create_directory(before);
    FolderState state = someState();
    FilterRule& rule = state.folders[1].rules[0];
    rule.destination = FileUrl::fromPath(before.string());
    rule.destinationBookmarkData = *createBookmark(before.string());
    saveFresh(state);
    fs::rename(before, after);
    const Loaded loaded = loadFresh();
    rule.destination = FileUrl::fromPath(after.string());
    QVERIFY(isSame(loaded.state, state));
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

void TestFolderStore::destinationIsSetByItsBookmarkAlone()
{
    const QTemporaryDir scratch;
    const std::string place = scratch.path().toStdString();
    FolderState state = someState();
    state.folders[1].rules[0].destination.reset();
    state.folders[1].rules[0].destinationBookmarkData = *createBookmark(place);
    saveFresh(state);
    QVERIFY(loadFresh().state.folders.at(1).rules.at(0).destination == FileUrl::fromPath(place));
}

void TestFolderStore::bookmarksAreNotMadeAnewByLoading()
{
    const QTemporaryDir scratch;
    FolderState state = someState();
    state.folders[0].url = FileUrl::fromPath(scratch.path().toStdString());
    saveFresh(state);
    QVERIFY(!loadFresh().state.folders.at(0).bookmarkData);
}

void TestFolderStore::listThatDoesNotDecodeIsPutAsideBeforeItIsReplaced()
{
    store(brokenList, text("0F8E6C1A-1111-4222-8333-ABCDEFABCDEF"));
    QCOMPARE(saveFresh({}), QStringList());
    QCOMPARE(asideNames(), QStringList(asideListName(brokenList)));
    QCOMPARE(contentOf(folder() / asideNames()[0].toStdString()), brokenList);
    QCOMPARE(storedList(), QByteArray("[]"));
}

void TestFolderStore::sameListIsPutAsideOnce()
{
    FolderStore folderStore;
    for (int i = 0; i < 3; ++i) {
        store(brokenList);
        QCOMPARE(save(folderStore, someState()), QStringList());
        QCOMPARE(asideNames(), QStringList(asideListName(brokenList)));
    }
    // Not even written again.
    const fs::path aside = folder() / asideNames()[0].toStdString();
    fs::last_write_time(aside, fs::file_time_type());
    store(brokenList);
    QCOMPARE(save(folderStore, someState()), QStringList());
    QVERIFY(fs::last_write_time(aside) == fs::file_time_type());
}

void TestFolderStore::twoBrokenListsArePutAsideInTwoFiles()
{
    const QByteArray lists[] = {brokenList, brokenList.chopped(1), "", "\xff\xfe", "{}"};
    QStringList expected;
    for (const QByteArray& list : lists) {
        store(list);
        QCOMPARE(saveFresh(someState()), QStringList());
        expected.append(asideListName(list));
        QCOMPARE(contentOf(folder() / asideListName(list).toStdString()), list);
    }
    expected.sort();
    QCOMPARE(asideNames(), expected);
}

void TestFolderStore::goodListIsNotPutAside()
{
    for (int i = 0; i < 3; ++i) {
        store(encoded(someState()), text("no UUID"));
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
}

// Of a home on a server that did not answer, or of somebody's editor.
void TestFolderStore::goodListThatWasNotSeenIsPutAside()
{
    QFETCH(const QByteArray, atLoading);
    QFETCH(const bool, isPutAside);
    const QByteArray list = encoded(someState());
    FolderStore folderStore;
    if (atLoading != "missing") store(atLoading == "another" ? "[]" : list);
    if (atLoading == "unreadable") {
        const OrdinaryUser user;
        const Rights rights(conf(), 0);
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

void TestFolderStore::valueOfAnotherTypeIsUndecodableAndPutAsideWithTheWholeFile_data()
{
    QTest::addColumn<QByteArray>("value");
    QTest::newRow("list of texts") << QByteArray(R"([{"id":1, "url":2}])");
    QTest::newRow("bytes without quotation marks") << QByteArray(R"--(@ByteArray([{"id":1,"url":2}]))--");
    QTest::newRow("rectangle") << QByteArray("@Rect(1 2 3 4)");
    QTest::newRow("garbage in place of a value") << QByteArray("@Variant(garbage)");
    QTest::newRow("no value") << QByteArray("@Invalid()");
}

void TestFolderStore::valueOfAnotherTypeIsUndecodableAndPutAsideWithTheWholeFile()
{
    QFETCH(const QByteArray, value);
    const QByteArray content = "[General]\nsavedWatchedFolders=" + value + "\nother=1\n";
    writeConf(content);
    const SilentQt silence;
    FolderStore folderStore;
    const Loaded loaded = load(folderStore, someState());
    QCOMPARE(loaded.lines, QStringList(text("Failed to load folders: the stored value is not binary data")));
    QVERIFY(isSame(loaded.state, {}));
    QCOMPARE(save(folderStore, loaded.state), QStringList());
    QCOMPARE(asideNames(), QStringList(asideConfName(content)));
    QCOMPARE(contentOf(folder() / asideNames()[0].toStdString()), content);
    QCOMPARE(storedList(), QByteArray("[]"));
    QCOMPARE(stored("other").toString(), text("1"));
}

void TestFolderStore::listPutInByHandAsTextIsRead()
{
    const FolderState state = someState();
    store(QString::fromUtf8(encoded(state)), selectionOf(state));
    const Loaded loaded = loadFresh();
    QCOMPARE(loaded.lines, QStringList());
    QVERIFY(isSame(loaded.state, state));
    saveFresh(state);
    QCOMPARE(asideNames(), QStringList());
}

void TestFolderStore::severalLinesPutInByHandArePutAsideAsTheyAre()
{
    const QByteArray content = "[General]\nsavedWatchedFolders=[\n  {\n    \"id\": \"x\",\n  }\n]\n";
    writeConf(content);
    FolderStore folderStore;
    const Loaded loaded = load(folderStore);
    QVERIFY(loaded.lines.contains(readFailure()[0]));
    QCOMPARE(save(folderStore, loaded.state), QStringList());
    QCOMPARE(asideNames(), QStringList(asideConfName(content)));
    QCOMPARE(contentOf(folder() / asideNames()[0].toStdString()), content);
}

void TestFolderStore::damagedFilePrintsOneLineAndIsPutAside()
{
    const FolderState state = someState();
    store(encoded(state), selectionOf(state));
    const QByteArray content = contentOf(conf()) + "this line is no key\n";
    writeConf(content);

    FolderStore folderStore;
    // Not only the first time.
    for (int i = 0; i < 3; ++i) {
        const Loaded loaded = load(folderStore);
        QCOMPARE(loaded.lines, readFailure());
        QVERIFY(isSame(loaded.state, state));
    }
    QCOMPARE(save(folderStore, state), QStringList());
    QCOMPARE(asideNames(), QStringList(asideConfName(content)));
    QCOMPARE(contentOf(folder() / asideNames()[0].toStdString()), content);
    const Loaded loaded = load(folderStore);
    QCOMPARE(loaded.lines, QStringList());
    QVERIFY(isSame(loaded.state, state));
}

void TestFolderStore::whatIsPutAsideHasTheRightsOfTheStore()
{
    store(brokenList);
    fs::permissions(conf(), fs::perms::owner_read | fs::perms::owner_write);
    saveFresh({});
    QVERIFY(fs::status(folder() / asideListName(brokenList).toStdString()).permissions() ==
            (fs::perms::owner_read | fs::perms::owner_write));
}

void TestFolderStore::whatCannotBePutAsideIsNotReplaced()
{
    store(brokenList);
    const QByteArray before = contentOf(conf());
    // Something is in its way.
    fs::create_directories(folder() / asideListName(brokenList).toStdString());
    FolderStore folderStore;
    QCOMPARE(save(folderStore, someState()), writeFailure());
    QCOMPARE(contentOf(conf()), before);
    fs::remove(folder() / asideListName(brokenList).toStdString());
    QCOMPARE(save(folderStore, someState()), QStringList());
    QCOMPARE(asideNames(), QStringList(asideListName(brokenList)));
}

void TestFolderStore::unwrittenStateDoesNotReplaceAListEditedSince()
{
    FolderStore folderStore;
    save(folderStore, someState());
    {
        const FileSizeLimit limit(100'000);
        QCOMPARE(save(folderStore, longState()), writeFailure());
    }
    store(brokenList);
    const QByteArray content = contentOf(conf());
    const Loaded loaded = load(folderStore);
    QVERIFY(loaded.lines.at(0).startsWith(text("Failed to load folders: ")));
    QCOMPARE(contentOf(conf()), content);
    QCOMPARE(save(folderStore, loaded.state), QStringList());
    QCOMPARE(asideNames(), QStringList(asideListName(brokenList)));
    QCOMPARE(storedList(), QByteArray("[]"));
}

void TestFolderStore::fileInPlaceOfTheFolderPrintsOneLineAndGoesOn()
{
    QVERIFY(::mknod(folder().c_str(), S_IFREG | 0600, 0) == 0);
    FolderStore folderStore;
    const Loaded loaded = load(folderStore, someState());
    QVERIFY(!loaded.state.folders.empty());
    QCOMPARE(save(folderStore, someState()), writeFailure());
    QVERIFY(fs::is_regular_file(folder()));
    QCOMPARE(fs::file_size(folder()), std::uintmax_t(0));
}

void TestFolderStore::folderInPlaceOfTheFilePrintsOneLineAndGoesOn()
{
    fs::create_directories(conf());
    FolderStore folderStore;
    const FolderState current = someState();
    const Loaded loaded = load(folderStore, current);
    QCOMPARE(loaded.lines, readFailure());
    QVERIFY(isSame(loaded.state, {current.folders, current.folders[0].id}));
    QCOMPARE(save(folderStore, current), writeFailure());
    QVERIFY(fs::is_directory(conf()));
    QCOMPARE(asideNames(), QStringList());
}

void TestFolderStore::readOnlyFolderPrintsOneLineAndGoesOn()
{
    FolderStore folderStore;
    const FolderState state = someState();
    save(folderStore, state);
    const QByteArray before = contentOf(conf());
    {
        const OrdinaryUser user;
        const Rights rights(folder(), 0555);
        const Loaded loaded = load(folderStore);
        QCOMPARE(loaded.lines, QStringList());
        QVERIFY(isSame(loaded.state, state));
        QCOMPARE(save(folderStore, {}), writeFailure());
        QCOMPARE(contentOf(conf()), before);
        QCOMPARE(asideNames(), QStringList());
    }
    QCOMPARE(save(folderStore, {}), QStringList());
    QCOMPARE(storedList(), QByteArray("[]"));
}

void TestFolderStore::unreadableFilePrintsOneLineAndIsNotReplaced()
{
    FolderStore folderStore;
    save(folderStore, someState());
    const QByteArray before = contentOf(conf());
    const FolderState current = someState();
    {
        const OrdinaryUser user;
        const Rights rights(conf(), 0);
        const Loaded loaded = load(folderStore, current);
        QCOMPARE(loaded.lines, readFailure());
        QVERIFY(isSame(loaded.state, {current.folders, current.folders[0].id}));
        QCOMPARE(save(folderStore, current), writeFailure());
    }
    QCOMPARE(contentOf(conf()), before);
    QCOMPARE(asideNames(), QStringList());
}

void TestFolderStore::unreadableFolderPrintsOneLine()
{
    FolderStore folderStore;
    save(folderStore, someState());
    const OrdinaryUser user;
    const Rights rights(folder(), 0);
    QCOMPARE(load(folderStore).lines, readFailure());
    QCOMPARE(save(folderStore, someState()), writeFailure());
}

void TestFolderStore::noRoomForTheFilePrintsOneLineAndKeepsTheOldOne()
{
    FolderStore folderStore;
    const FolderState state = someState();
    save(folderStore, state);
    const QByteArray before = contentOf(conf());
    {
        const FileSizeLimit limit(100'000);
        QCOMPARE(save(folderStore, longState()), writeFailure());
    }
    QCOMPARE(contentOf(conf()), before);
    QCOMPARE(asideNames(), QStringList());
    QVERIFY(isSame(loadFresh().state, state));

    // No room for what is put aside either.
    store(QByteArray("[") + QByteArray(200'000, ' '));
    const QByteArray broken = contentOf(conf());
    {
        const FileSizeLimit limit(100'000);
        QCOMPARE(load(folderStore).lines, readFailure());
        QCOMPARE(save(folderStore, someState()), writeFailure());
    }
    QCOMPARE(contentOf(conf()), broken);
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
        const QByteArray before = contentOf(conf());

        FileDescriptor filler(::open((folder() / "filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        const QByteArray block(4096, 'x');
        while (::write(filler.get(), block.constData(), static_cast<size_t>(block.size())) > 0) {
        }
        if (errno != ENOSPC) return "the disk is not full";
        // At first there is no room at all, then some, in which the new file only begins.
        for (const off_t freed : {0, 100'000}) {
            if (::ftruncate(filler.get(), ::lseek(filler.get(), 0, SEEK_END) - freed) != 0) return "no room";
            if (save(folderStore, longState()) != writeFailure()) return "not the one line";
            if (contentOf(conf()) != before) return "the old file was changed";
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

void TestFolderStore::savingWorksAgainOnceTheFaultIsGone()
{
    QVERIFY(::mknod(folder().c_str(), S_IFREG | 0600, 0) == 0);
    FolderStore folderStore;
    const FolderState state = someState();
    QCOMPARE(save(folderStore, {}), writeFailure());
    QCOMPARE(save(folderStore, state), writeFailure());
    fs::remove(folder());
    QCOMPARE(save(folderStore, state), QStringList());
    QCOMPARE(storedList(), encoded(state));
    QVERIFY(isSame(load(folderStore).state, state));
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

void TestFolderStore::fileChangedBySomebodyElseWinsOverWhatCouldNotBeWritten()
{
    FolderStore folderStore;
    save(folderStore, {});
    {
        const FileSizeLimit limit(100'000);
        QCOMPARE(save(folderStore, longState()), writeFailure());
    }
    const FolderState theirs = someState();
    store(encoded(theirs), selectionOf(theirs));
    QVERIFY(isSame(load(folderStore).state, theirs));
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
    QByteArray content = contentOf(conf());
    for (const char* name : {"Desk1op", "Desk2op", "Desk3op", "Desk4op"}) {
        content.replace(content.indexOf("Desk"), 7, name);
        writeConf(content);
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
    QVERIFY(!fs::exists(conf()));
    save(folderStore, current);
    QVERIFY(isSame(load(folderStore).state, current));
}

void TestFolderStore::deeplyNestedValueNeitherCrashesNorStaysInTheWay()
{
    for (const int depth : {10, 400, 30'000}) {
        const QByteArray content = confWithValue(nestedLists(depth));
        writeConf(content);
        FolderStore folderStore;
        const Loaded loaded = load(folderStore);
        QCOMPARE(loaded.lines, readFailure());
        const FolderState state = someState();
        QCOMPARE(save(folderStore, state), QStringList());
        QVERIFY(asideNames().contains(asideConfName(content)));
        QCOMPARE(contentOf(folder() / asideConfName(content).toStdString()), content);
        QVERIFY(isSame(load(folderStore).state, state));
    }
}

void TestFolderStore::typedValuesOfEveryKindNeverCrash()
{
    std::mt19937 random = seededRandom();
    const SilentQt silence;
    for (int i = 0; i < 20'000; ++i) {
        QByteArray value;
        QDataStream stream(&value, QIODevice::WriteOnly);
        // The numbers of the types that Qt knows, and some that it does not.
        stream << static_cast<quint32>(i % 200);
        for (size_t length = randomBelow(random, 30); length > 0; --length) {
            static constexpr std::array<quint8, 6> frequent = {0, 1, 9, 8, 0x7f, 0xff};
            stream << (randomBelow(random, 2) == 0 ? frequent[randomBelow(random, frequent.size())]
                                                   : static_cast<quint8>(randomBelow(random, 256)));
        }
        const QByteArray withNuls = confWithValue(value);
        const Preferences preferences = parsed(withNuls);
        QVERIFY2(preferences.isDamaged && !preferences.hasFolderList, withNuls);
        QCOMPARE(preferences.selectedFolder, text("5"));
        // These QSettings does read; there is no such type.
        const QByteArray withoutNuls = confWithValue(value.replace('\0', '\1'));
        QVERIFY2(parsed(withoutNuls).hasFolderList && !parsed(withoutNuls).folderList, withoutNuls);
    }
}

void TestFolderStore::typedValueUnderAnotherKeyDoesNotCostTheList()
{
    const FolderState state = someState();
    store(encoded(state));
    const QByteArray content = contentOf(conf()) + "geometry=@ByteArray(\\x1\\0\\x2)\nother=1\n";
    writeConf(content);
    FolderStore folderStore;
    const Loaded loaded = load(folderStore);
    QCOMPARE(loaded.lines, readFailure());
    QVERIFY(isSame(loaded.state, {state.folders, state.folders[0].id}));
    QCOMPARE(save(folderStore, loaded.state), QStringList());
    QCOMPARE(contentOf(folder() / asideConfName(content).toStdString()), content);
    QCOMPARE(stored("other").toString(), text("1"));
}

void TestFolderStore::fileThatDoesNotTakeTheValuesIsPutAsideAndReplaced()
{
    const QByteArray content = "[]\nselectedWatchedFolderID=somebody\n";
    writeConf(content);
    FolderStore().saveState({{folderAt("/a")}, std::nullopt});
    QCOMPARE(FolderStore().loadState({}).folders.size(), 1U);
    QVERIFY(!stored(selectionKey).isValid());
    QCOMPARE(asideNames(), QStringList{asideConfName(content)});
    QCOMPARE(contentOf(folder() / asideConfName(content).toStdString()), content);
}

void TestFolderStore::everySpellingOfANulIsFound()
{
    const auto confWith = [](const QByteArray& spelling) {
        return "[General]\nsavedWatchedFolders=\"@ByteArray([" + spelling + "])\"\n";
    };
    for (const QByteArray& spelling :
         {QByteArray(1, '\0'), QByteArray("\\0"), QByteArray("\\00"), QByteArray("\\000"), QByteArray("\\x0"),
          QByteArray("\\x00"), QByteArray("\\x10000"), QByteArray("\\200000"), QByteArray("\\\\\\0"),
          QByteArray("\\x0\\x20"), QByteArray("a\\0b")}) {
        // It is one to QSettings, which is why it is looked for.
        const QTemporaryDir place;
        const QString path = place.filePath(text("copy.conf"));
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(confWith(spelling)) > 0 && file.flush());
        const QSettings settings(path, QSettings::IniFormat);
        QVERIFY2(settings.value(text(listKey)).toByteArray().contains('\0'), spelling);
        const Preferences preferences = parsed(confWith(spelling));
        QVERIFY2(preferences.isDamaged && !preferences.hasFolderList, spelling);
    }
    for (const char* spelling :
         {"", "\\\\0", "\\\\x0", "\\\\\\\\0", "\\x10", "\\100", "\\x1", "\\\\u0000", "0", "x0"}) {
        const Preferences preferences = parsed(confWith(spelling));
        QVERIFY2(!preferences.isDamaged && preferences.folderList, spelling);
    }
}

void TestFolderStore::zeroesInPlaceOfTheContentAreDamage()
{
    const QByteArray zeroes(4096, '\0');
    writeConf(zeroes);
    FolderStore folderStore;
    const FolderState current = someState();
    const Loaded loaded = load(folderStore, current);
    QCOMPARE(loaded.lines, readFailure());
    QVERIFY(isSame(loaded.state, {current.folders, current.folders[0].id}));
    QCOMPARE(save(folderStore, current), QStringList());
    QCOMPARE(asideNames(), QStringList(asideConfName(zeroes)));
    QVERIFY(isSame(load(folderStore).state, current));
}

void TestFolderStore::randomDamageNeverCrashesAndLosesNothing()
{
    std::mt19937 random = seededRandom();
    const SilentQt silence;
    const FolderState state = someState();
    store(encoded(state), selectionOf(state));
    const QByteArray good = contentOf(conf());
    int undamaged = 0;
    int lost = 0;
    for (int i = 0; i < 10'000; ++i) {
        QByteArray content = good;
        for (size_t mutations = 1 + randomBelow(random, 3); mutations > 0; --mutations) {
            const auto place =
                static_cast<qsizetype>(randomBelow(random, static_cast<size_t>(content.size()) + 1));
            static const QByteArray pieces[] = {
                "\n",  "\"", "\\",           "@Variant(",         "@ByteArray(", ")", "=",
                "[x]", ",",  "\xef\xbb\xbf", QByteArray(5, '\0'), "\\x0",        ";"};
            switch (randomBelow(random, 4)) {
            case 0:
                content.insert(place, static_cast<char>(randomBelow(random, 256)));
                break;
            case 1:
                content.remove(place, static_cast<qsizetype>(randomBelow(random, 30)) + 1);
                break;
            case 2:
                content.truncate(place);
                break;
            default:
                content.insert(place, pieces[randomBelow(random, std::size(pieces))]);
                break;
            }
        }
        const Preferences preferences = parsed(content);
        const bool isUsable = preferences.folderList && decodeFolderList(*preferences.folderList);
        undamaged += isUsable && !preferences.isDamaged;
        // Writing files takes its time: every hundredth goes all the way.
        if (i % 100 != 0) continue;

        fs::remove_all(folder());
        writeConf(content);
        FolderStore folderStore;
        const Loaded loaded = load(folderStore);
        QCOMPARE(loaded.lines.isEmpty(), !preferences.isDamaged && (isUsable || !preferences.hasFolderList));
        QCOMPARE(save(folderStore, loaded.state), QStringList());
        if (preferences.isDamaged || (preferences.hasFolderList && !isUsable)) {
            ++lost;
            const QStringList names = asideNames();
            QVERIFY2(names.size() == 1, content);
            const QByteArray aside = contentOf(folder() / names[0].toStdString());
            QVERIFY2(aside == content || aside == preferences.folderList, content);
        }
        QVERIFY(isSame(load(folderStore).state, loaded.state));
    }
    // Both happen, or the damage would show nothing.
    QVERIFY(undamaged > 100);
    QVERIFY(lost > 10);
}

HARBEX_TEST_MAIN(TestFolderStore)

#include "tst_FolderStore.moc"
