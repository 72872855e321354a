#include "support/EngineOutput.h"
#include "support/EngineProbe.h"

#include <map>
#include <memory>

using namespace harbex;
using namespace harbex::test;

namespace
{

constexpr auto contains = RuleOperator::contains;
constexpr auto isEqual = RuleOperator::isEqual;

/// What an entry is before it arrives.
enum class Is { file, folder, link };

/// One entry that arrives in a folder of its own, and whether the rule of that folder takes it.
struct Case {
    const char* description;
    FilterRule rule;
    std::string entry;
    Is kind = Is::file;
    bool isTaken = false;
};

constexpr bool taken = true;
constexpr bool stays = false;

// The destination of every rule is replaced by a folder of the case's own.
const std::vector<Case>& cases()
{
    const auto name = [](RuleOperator op, const char* value) { return takeNamed(op, value, "/"); };
    const auto extension = [](RuleOperator op, const char* value) { return takeExtension(op, value, "/"); };
    const auto kind = [](RuleKind which, const char* value = "") {
        FilterRule rule = takeKind(which, "/");
        rule.value = QString::fromUtf8(value);
        return rule;
    };
    static const std::vector<Case> cases = {
        {"part of an extension passes the name but not the entry", extension(contains, "jp"), "a.jpg",
         Is::file, stays},
        {"whole extension by contains", extension(contains, "jpg"), "a.jpg", Is::file, taken},
        {"whole extension by is", extension(isEqual, "jpg"), "a.jpg", Is::file, taken},
        {"extension is JPG, entry in capitals", extension(isEqual, "JPG"), "a.JPG", Is::file, stays},
        {"extension is JPG, entry in small letters", extension(isEqual, "JPG"), "a.jpg", Is::file, stays},
        {"extension is jpg, entry in capitals", extension(isEqual, "jpg"), "a.JPG", Is::file, stays},
        {"extension contains jpg, entry in capitals", extension(contains, "jpg"), "a.JPG", Is::file, taken},
        {"extension contains JPG, entry in capitals", extension(contains, "JPG"), "a.JPG", Is::file, stays},
        {"extension with its dot", extension(contains, ".jpg"), "a.jpg", Is::file, stays},
        {"last of several extensions", extension(isEqual, "gz"), "archive.tar.gz", Is::file, taken},
        {"not the last extension", extension(isEqual, "tar"), "archive.tar.gz", Is::file, stays},
        {"empty extension, file without one", extension(contains, ""), "README", Is::file, taken},
        {"empty extension, folder without one", extension(isEqual, ""), "Notes", Is::folder, taken},
        {"empty extension, file with one", extension(contains, ""), "a.jpg", Is::file, stays},
        {"empty extension, hidden file", extension(contains, ""), ".env", Is::file, taken},
        {"the tail of a hidden file is no extension", extension(isEqual, "env"), ".env", Is::file, stays},

        {"empty name, plain file", name(contains, ""), "a.jpg", Is::file, taken},
        {"empty name, hidden file", name(isEqual, ""), ".DS_Store", Is::file, taken},
        {"empty name, folder", name(contains, ""), "Notes", Is::folder, taken},
        {"empty name, hidden folder", name(contains, ""), ".config", Is::folder, taken},
        {"empty name, link", name(contains, ""), "link", Is::link, taken},
        {"empty name, download in progress", name(contains, ""), "a.jpg.part", Is::file, stays},
        {"empty name, folder of a download", name(contains, ""), "a.download", Is::folder, stays},
        {"the name ends at its first dot", name(isEqual, "invoice"), "invoice.2024.pdf", Is::file, taken},
        {"the name goes no further", name(isEqual, "invoice.2024"), "invoice.2024.pdf", Is::file, stays},
        {"name contains, whatever the case", name(contains, "VOI"), "Invoice.pdf", Is::file, taken},
        {"name contains looks only before the first dot", name(contains, "2024"), "invoice.2024.pdf",
         Is::file, stays},
        {"name is, with another case", name(isEqual, "Invoice"), "invoice.pdf", Is::file, stays},
        {"name is, with a space too many", name(isEqual, "invoice "), "invoice.pdf", Is::file, stays},
        {"name of a hidden file", name(isEqual, "env"), ".env", Is::file, taken},
        {"name of dots only, text rule", name(contains, "a"), "...", Is::file, stays},
        {"name of dots only, rule without text", name(contains, ""), "...", Is::file, taken},
        {"name of dots only, extension rule", extension(contains, "a"), "....", Is::file, stays},
        {"typed letter, decomposed name", name(isEqual, "caf\xc3\xa9"), "cafe\xcc\x81.txt", Is::file, taken},

        {"image", kind(RuleKind::image), "a.HEIC", Is::file, taken},
        {"image, but a video", kind(RuleKind::image), "a.mov", Is::file, stays},
        {"video", kind(RuleKind::video), "a.mkv", Is::file, taken},
        {"document", kind(RuleKind::document), "a.PDF", Is::file, taken},
        {"audio", kind(RuleKind::audio), "a.opus", Is::file, taken},
        {"folder", kind(RuleKind::folder), "Notes", Is::folder, taken},
        {"folder with an extension", kind(RuleKind::folder), "Notes.2024", Is::folder, taken},
        {"folder, but a file", kind(RuleKind::folder), "Notes", Is::file, stays},
        {"folder, but a link to one", kind(RuleKind::folder), "Notes", Is::link, stays},
        {"folder takes an application bundle", kind(RuleKind::folder), "Tool.app", Is::folder, taken},
        {"application takes a bundle", kind(RuleKind::application), "Tool.app", Is::folder, taken},
        {"application takes a file", kind(RuleKind::application), "setup.EXE", Is::file, taken},
        {"image takes a folder by its extension", kind(RuleKind::image), "album.jpg", Is::folder, taken},
        {"a kind does not look at the value", kind(RuleKind::image, "holiday"), "a.jpg", Is::file, taken},
        {"a kind of a name without extension", kind(RuleKind::image), "jpg", Is::file, stays},

        {"download in progress: download", kind(RuleKind::folder), "a.download", Is::folder, stays},
        {"download in progress: crdownload", name(contains, "movie"), "movie.mp4.crdownload", Is::file,
         stays},
        {"download in progress: part", extension(isEqual, "part"), "a.part", Is::file, stays},
        {"download in progress: tmp in capitals", name(contains, ""), "a.TMP", Is::file, stays},
        {"no download: an extension that only ends like one", name(contains, ""), "a.apart", Is::file, taken},
    };
    return cases;
}

} // namespace

/// Which entries the rules take, seen from outside: what arrives where, and what is printed on the way.
class TestEngineMatching : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void takes_data();
    void takes();
    void aRuleWithoutADestinationTakesNothing();
    void theEarlierOfTwoRulesTakesAStableEntry();
    void theWayOfAnEntryIsPrinted();
    void everyRuleThatPassesTheNameIsPrinted();
    void aDownloadInProgressPrintsItsPiecesOnly();
    void anEntryIsPrintedOnOneLineWhateverItsName();

private:
    std::map<std::string, bool> m_taken;
};

/// All cases at once, each in a folder of its own: most of the time is waiting.
void TestEngineMatching::initTestCase()
{
    const EngineOutput output;
    const ScratchFolder scratch;
    const std::string target = scratch.makeFolder("target");
    std::vector<WatchedFolder> folders;
    std::vector<std::unique_ptr<Sentinel>> sentinels;
    const auto pathOf = [&](const char* what, const Case& which) {
        return scratch.path() + '/' + what + ' ' + std::to_string(&which - cases().data());
    };
    for (const Case& each : cases()) {
        const std::string inbox = pathOf("inbox", each);
        makeFolder(inbox);
        makeFolder(pathOf("out", each));
        sentinels.push_back(std::make_unique<Sentinel>(scratch, inbox));
        FilterRule rule = each.rule;
        rule.destination = FileUrl::fromPath(pathOf("out", each));
        folders.push_back(watched(inbox, {sentinels.back()->rule(), rule}));
    }
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, folders));
    for (const Case& each : cases()) {
        const std::string path = pathOf("inbox", each) + '/' + each.entry;
        if (each.kind == Is::file) scratch.arrive(path, "");
        if (each.kind == Is::folder) makeFolder(path);
        if (each.kind == Is::link) makeLink(path, target);
    }
    // As in Sentinel::passes(), but all at once.
    for (const auto& sentinel : sentinels)
        sentinel->sendFile();
    for (const auto& sentinel : sentinels)
        QTRY_VERIFY_WITH_TIMEOUT(sentinel->hasArrived(), patience);
    for (const auto& sentinel : sentinels)
        sentinel->sendFolder();
    for (const auto& sentinel : sentinels)
        QTRY_VERIFY_WITH_TIMEOUT(sentinel->hasArrived(), patience);
    for (const Case& each : cases()) {
        const bool isThere = exists(pathOf("out", each) + '/' + each.entry);
        QVERIFY(isThere != exists(pathOf("inbox", each) + '/' + each.entry));
        m_taken[each.description] = isThere;
    }
}

void TestEngineMatching::takes_data()
{
    QTest::addColumn<bool>("expected");
    for (const Case& each : cases())
        QTest::newRow(each.description) << each.isTaken;
}

void TestEngineMatching::takes()
{
    QFETCH(bool, expected);
    QCOMPARE(m_taken.at(QTest::currentDataTag()), expected);
}

void TestEngineMatching::aRuleWithoutADestinationTakesNothing()
{
    const ScratchFolder scratch;
    const std::string inbox = scratch.makeFolder("inbox");
    const std::string out = scratch.makeFolder("out");
    FilterRule nowhere = takeAll(out);
    nowhere.destination.reset();
    const EngineOutput output;
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(inbox, {nowhere, takeKind(RuleKind::image, out)})}));
    scratch.arrive(inbox + "/photo.jpg", "");
    QTRY_COMPARE_WITH_TIMEOUT(namesIn(out), QByteArrayList{"photo.jpg"}, patience);
    // The rule was not even looked at on the disk.
    QCOMPARE(output.lines().count("Processing: photo.jpg"), 1);
    QVERIFY(!output.lines().contains("Name"));
}

void TestEngineMatching::theEarlierOfTwoRulesTakesAStableEntry()
{
    const ScratchFolder scratch;
    const std::string inbox = scratch.makeFolder("inbox");
    const std::string first = scratch.makeFolder("first");
    const std::string second = scratch.makeFolder("second");
    Sentinel sentinel(scratch, inbox);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(
        engine, {watched(inbox, {sentinel.rule(), takeKind(RuleKind::image, first), takeAll(second)})}));
    const EngineOutput output;
    scratch.arrive(inbox + "/photo.jpg", "");
    QVERIFY(sentinel.passes(engine));
    QCOMPARE(namesIn(first), QByteArrayList{"photo.jpg"});
    QVERIFY(namesIn(second).isEmpty());
    // The second rule finds nothing and does nothing.
    QCOMPARE(output.lines().count("Processing: photo.jpg"), 1);
    QCOMPARE(messages(engine).filter(QStringLiteral("photo")),
             QStringList{QStringLiteral("Moved photo.jpg -> photo.jpg")});
}

void TestEngineMatching::theWayOfAnEntryIsPrinted()
{
    const ScratchFolder scratch;
    const std::string inbox = scratch.makeFolder("inbox");
    DownloadImageRedirector engine;
    QVERIFY(
        startAndWait(engine, {watched(inbox, {takeKind(RuleKind::document, scratch.makeFolder("Papers"))})}));
    const EngineOutput output;
    scratch.arrive(inbox + "/report.final.PDF", "");
    QTRY_COMPARE_WITH_TIMEOUT(lastMessage(engine),
                              QStringLiteral("Moved report.final.PDF -> report.final.PDF"), patience);
    QCOMPARE(output.lines(),
             QByteArrayList({"[\"report\", \"final\", \"PDF\"]", "Processing: report.final.PDF", "ext pdf",
                             "Kind", "Moving report.final.PDF to Papers..."}));
    // None of this reaches the log.
    QCOMPARE(engine.logs().size(), 2);
}

void TestEngineMatching::everyRuleThatPassesTheNameIsPrinted()
{
    const ScratchFolder scratch;
    const std::string inbox = scratch.makeFolder("inbox");
    const std::string out = scratch.makeFolder("out");
    Sentinel sentinel(scratch, inbox);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine,
                         {watched(inbox, {takeNamed(contains, "holiday", out), takeKind(RuleKind::video, out),
                                          takeExtension(contains, "jp", out), sentinel.rule()})}));
    const EngineOutput output;
    scratch.arrive(inbox + "/README.jpg", "");
    QTRY_VERIFY_WITH_TIMEOUT(output.lines().size() >= 7, patience);
    QVERIFY(sentinel.passes(engine));
    QCOMPARE(output.lines().mid(0, 7),
             QByteArrayList({"[\"README\", \"jpg\"]", "Processing: README.jpg", "ext jpg", "Kind",
                             "Processing: README.jpg", "ext jpg", "Extension"}));
    QCOMPARE(output.lines().count("Processing: README.jpg"), 2);
}

void TestEngineMatching::aDownloadInProgressPrintsItsPiecesOnly()
{
    const ScratchFolder scratch;
    const std::string inbox = scratch.makeFolder("inbox");
    Sentinel sentinel(scratch, inbox);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(inbox, {sentinel.rule(), takeAll(scratch.makeFolder("out"))})}));
    const EngineOutput output;
    scratch.arrive(inbox + "/film.mp4.CRDOWNLOAD", "");
    QVERIFY(sentinel.passes(engine));
    QCOMPARE(output.lines().count("[\"film\", \"mp4\", \"CRDOWNLOAD\"]"), 1);
    QVERIFY(!output.lines().contains("Processing: film.mp4.CRDOWNLOAD"));
}

void TestEngineMatching::anEntryIsPrintedOnOneLineWhateverItsName()
{
    const ScratchFolder scratch;
    const std::string inbox = scratch.makeFolder("inbox");
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(inbox, {takeAll(scratch.makeFolder("o\nut"))})}));
    const EngineOutput output;
    scratch.arrive(inbox + "/a\nb\x1b.t\xff\r", "");
    QTRY_COMPARE_WITH_TIMEOUT(engine.logs().size(), 2, patience);
    QCOMPARE(output.lines(),
             QByteArrayList({"[\"a\\nb\\u{1b}\", \"t\xef\xbf\xbd\\r\"]",
                             "Processing: a\\nb\\u{1b}.t\xef\xbf\xbd\\r", "ext t\xef\xbf\xbd\\r", "Name",
                             "Moving a\\nb\\u{1b}.t\xef\xbf\xbd\\r to o\\nut..."}));
    QCOMPARE(lastMessage(engine), QString::fromUtf8("Moved a\\nb\\u{1b}.t\xef\xbf\xbd\\r -> "
                                                    "a\\nb\\u{1b}.t\xef\xbf\xbd\\r"));

    scratch.arrive(inbox + "/...", "");
    QTRY_COMPARE_WITH_TIMEOUT(engine.logs().size(), 3, patience);
    QVERIFY(output.lines().contains("[]"));
}

HARBEX_ENGINE_TEST_MAIN(TestEngineMatching)

#include "tst_EngineMatching.moc"
