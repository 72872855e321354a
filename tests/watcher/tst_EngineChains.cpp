#include "support/EngineOutput.h"
#include "support/EngineProbe.h"

#include <QRegularExpression>

#include <memory>

using namespace harbex;
using namespace harbex::test;

/// Rules that lead from one watched folder into another, and rules of several records.
class TestEngineChains : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void anEntryThatReturnsByRulesStays_data();
    void anEntryThatReturnsByRulesStays();
    void whatAPersonBringsBackIsNew();
    void whatAPersonBringsBackGoesRoundAgain();
    void aChainOfFoldersLeadsToItsEnd_data();
    void aChainOfFoldersLeadsToItsEnd();

    void twoRecordsOfOneFolderAreOneList_data();
    void twoRecordsOfOneFolderAreOneList();
    void aBusyFileOfTwoRecordsIsMovedOnceAndSkippedOnce();

private:
    /// A folder on this volume or on another one.
    [[nodiscard]] std::string makeFolder(const char* name, bool isFar) const
    {
        return (isFar ? *m_far : *m_scratch).makeFolder(name);
    }

    std::unique_ptr<ScratchFolder> m_scratch;
    std::unique_ptr<ScratchFolder> m_far;
    std::unique_ptr<EngineOutput> m_output;
};

void TestEngineChains::init()
{
    m_scratch = std::make_unique<ScratchFolder>();
    m_far = std::make_unique<ScratchFolder>(folderOnAnotherVolume());
    m_output = std::make_unique<EngineOutput>();
}

void TestEngineChains::cleanup()
{
    m_output.reset();
}

void TestEngineChains::anEntryThatReturnsByRulesStays_data()
{
    QTest::addColumn<int>("folders");
    QTest::addColumn<bool>("isFar");
    QTest::addColumn<bool>("isNameTaken");
    for (const int folders : {2, 3}) {
        for (const bool isFar : {false, true}) {
            for (const bool isNameTaken : {false, true})
                QTest::addRow("%d folders on %s%s", folders, isFar ? "two volumes" : "one volume",
                              isNameTaken ? ", its name is taken" : "")
                    << folders << isFar << isNameTaken;
        }
    }
}

/// Each folder's rule names the next one, and that of the last the first.
void TestEngineChains::anEntryThatReturnsByRulesStays()
{
    QFETCH(const int, folders);
    QFETCH(const bool, isFar);
    QFETCH(const bool, isNameTaken);
    std::vector<std::string> paths;
    for (int i = 0; i < folders; ++i) {
        paths.push_back(makeFolder(("folder" + std::to_string(i)).c_str(), isFar && i % 2 == 1));
        // It has another name from there on.
        if (isNameTaken && i != 0) writeFile(paths.back() + "/photo.jpg", "old");
    }
    std::vector<std::unique_ptr<Sentinel>> sentinels;
    std::vector<WatchedFolder> records;
    for (size_t i = 0; i < paths.size(); ++i) {
        sentinels.push_back(std::make_unique<Sentinel>(i % 2 == 1 && isFar ? *m_far : *m_scratch, paths[i]));
        records.push_back(
            watched(paths[i], {sentinels.back()->rule(), takeAll(paths[(i + 1) % paths.size()])}));
    }
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, records));
    m_scratch->arrive(paths[0] + "/photo.jpg", "photo");
    m_scratch->makeFolder("Notes");
    renameEntry(m_scratch->path() + "/Notes", paths[0] + "/Notes");
    const QRegularExpression either(QStringLiteral("^Moved (photo|Notes)"));
    QTRY_COMPARE_WITH_TIMEOUT(messages(engine).filter(either).size(), 2 * folders, patience);
    // Would it go round again, it would have left the first folder by the time that each has sent something.
    for (int round = 0; round < 2; ++round)
        for (const auto& sentinel : sentinels)
            QVERIFY(sentinel->passes(engine));
    QCOMPARE(messages(engine).filter(either).size(), 2 * folders);
    const QByteArray name = isNameTaken ? "photo-1.jpg" : "photo.jpg";
    QCOMPARE(namesIn(paths[0]), QByteArrayList({"Notes", name}));
    QCOMPARE(contents(paths[0] + '/' + name.toStdString()), QByteArray("photo"));
    for (size_t i = 1; i < paths.size(); ++i)
        QCOMPARE(namesIn(paths[i]), isNameTaken ? QByteArrayList{"photo.jpg"} : QByteArrayList());
}

void TestEngineChains::whatAPersonBringsBackIsNew()
{
    const std::string first = m_scratch->makeFolder("first");
    const std::string second = m_scratch->makeFolder("second");
    const std::string third = m_scratch->makeFolder("third");
    Sentinel inSecond(*m_scratch, second);
    DownloadImageRedirector engine;
    // The second one moves nothing but is watched all the same.
    QVERIFY(startAndWait(engine, {watched(first, {takeAll(second)}), watched(second, {inSecond.rule()}),
                                  watched(third, {takeAll(first)})}));
    m_scratch->arrive(first + "/photo.jpg", "photo");
    for (int times = 1; times <= 3; ++times) {
        QTRY_VERIFY_WITH_TIMEOUT(exists(second + "/photo.jpg"), patience);
        QVERIFY(inSecond.passes(engine));
        QCOMPARE(namesIn(second), QByteArrayList{"photo.jpg"});
        QCOMPARE(messages(engine).filter(QStringLiteral("Moved photo")).size(), times);
        renameEntry(second + "/photo.jpg", first + "/photo.jpg");
    }
    QTRY_VERIFY_WITH_TIMEOUT(exists(second + "/photo.jpg"), patience);
    QVERIFY(inSecond.passes(engine));

    // By a rule it gets there for the first time, and from there on.
    renameEntry(second + "/photo.jpg", third + "/photo.jpg");
    QTRY_COMPARE_WITH_TIMEOUT(messages(engine).filter(QStringLiteral("Moved photo")).size(), 6, patience);
    QCOMPARE(namesIn(second), QByteArrayList{"photo.jpg"});

    // And another entry of that name is another entry.
    m_scratch->arrive(first + "/photo.jpg", "another");
    QTRY_COMPARE_WITH_TIMEOUT(contents(second + "/photo-1.jpg"), QByteArray("another"), patience);
}

void TestEngineChains::whatAPersonBringsBackGoesRoundAgain()
{
    const std::string first = m_scratch->makeFolder("first");
    const std::string second = m_scratch->makeFolder("second");
    const std::string away = m_scratch->path() + "/photo.jpg";
    Sentinel sentinel(*m_scratch, first);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(
        engine, {watched(first, {sentinel.rule(), takeAll(second)}), watched(second, {takeAll(first)})}));
    writeFile(away, "photo");
    for (int times = 1; times <= 3; ++times) {
        renameEntry(away, first + "/photo.jpg");
        QTRY_COMPARE_WITH_TIMEOUT(messages(engine).filter(QStringLiteral("Moved photo")).size(), 2 * times,
                                  patience);
        QVERIFY(sentinel.passes(engine));
        QCOMPARE(namesIn(first), QByteArrayList{"photo.jpg"});
        renameEntry(first + "/photo.jpg", away);
        // The engine has seen that it is gone.
        QVERIFY(sentinel.passes(engine));
    }
    QCOMPARE(messages(engine).filter(QStringLiteral("Moved photo")).size(), 6);
}

void TestEngineChains::aChainOfFoldersLeadsToItsEnd_data()
{
    QTest::addColumn<bool>("isFar");
    QTest::newRow("one volume") << false;
    QTest::newRow("two volumes") << true;
}

void TestEngineChains::aChainOfFoldersLeadsToItsEnd()
{
    QFETCH(const bool, isFar);
    constexpr int count = 20;
    const std::string first = makeFolder("first", false);
    const std::string second = makeFolder("second", isFar);
    const std::string third = makeFolder("third", false);
    const std::string end = makeFolder("end", isFar);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(first, {takeAll(second)}), watched(second, {takeAll(third)}),
                                  watched(third, {takeAll(end)}), watched(end, {})}));
    for (int i = 0; i < count; ++i)
        m_scratch->arrive(first + '/' + std::to_string(i), std::to_string(i));
    QTRY_COMPARE_WITH_TIMEOUT(messages(engine).filter(QStringLiteral("Moved ")).size(), 3 * count, patience);
    for (int i = 0; i < count; ++i)
        QCOMPARE(contents(end + '/' + std::to_string(i)), QByteArray::number(i));
    for (const std::string& passed : {first, second, third})
        QCOMPARE(namesIn(passed), QByteArrayList());
    QCOMPARE(messages(engine).filter(QStringLiteral("failed")), QStringList());
}

void TestEngineChains::twoRecordsOfOneFolderAreOneList_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<QByteArray>("destination");
    QTest::newRow("only the first record takes it") << QByteArray("song.mp3") << QByteArray("songs");
    QTest::newRow("only the second record takes it") << QByteArray("letter.pdf") << QByteArray("letters");
    QTest::newRow("both take it") << QByteArray("film.mp4") << QByteArray("films");
    QTest::newRow("the first record's folder is missing") << QByteArray("photo.jpg") << QByteArray("photos");
    QTest::newRow("the first record says that it stays") << QByteArray("game.exe") << QByteArray("inbox");
    QTest::newRow("none takes it") << QByteArray("README") << QByteArray("inbox");
}

void TestEngineChains::twoRecordsOfOneFolderAreOneList()
{
    QFETCH(const QByteArray, name);
    QFETCH(const QByteArray, destination);
    const std::string inbox = m_scratch->makeFolder("inbox");
    const auto make = [this](const char* folder) { return m_scratch->makeFolder(folder); };
    Sentinel sentinel(*m_scratch, inbox);
    const std::string wrong = make("wrong");
    const std::vector<FilterRule> first = {
        sentinel.rule(), takeKind(RuleKind::audio, make("songs")), takeKind(RuleKind::video, make("films")),
        takeKind(RuleKind::image, m_scratch->path() + "/missing"), takeKind(RuleKind::application, inbox)};
    const std::vector<FilterRule> second = {
        takeKind(RuleKind::document, make("letters")), takeKind(RuleKind::image, make("photos")),
        takeKind(RuleKind::video, wrong), takeKind(RuleKind::application, wrong)};
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(inbox, first), watched(m_scratch->makeFolder("other"), {}),
                                  watched(inbox, second)}));
    QCOMPARE(engine.activeFDs().size(), 3U);
    m_scratch->arrive(inbox + '/' + name.toStdString(), "content");
    QVERIFY(sentinel.passes(engine));
    const std::string target = m_scratch->path() + '/' + destination.toStdString() + '/' + name.toStdString();
    QTRY_COMPARE_WITH_TIMEOUT(contents(target), QByteArray("content"), patience);
    QVERIFY(sentinel.passes(engine));
    QCOMPARE(contents(target), QByteArray("content"));
    QCOMPARE(m_output->lines().count("[\"" + QByteArray(name).replace(".", "\", \"") + "\"]"), 1);
}

void TestEngineChains::aBusyFileOfTwoRecordsIsMovedOnceAndSkippedOnce()
{
    const std::string inbox = m_scratch->makeFolder("inbox");
    const std::string first = m_scratch->makeFolder("first");
    const std::string second = m_scratch->makeFolder("second");
    Sentinel sentinel(*m_scratch, inbox);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(
        engine, {watched(inbox, {sentinel.rule(), takeAll(first)}), watched(inbox, {takeAll(second)})}));
    GrowingFiles download({inbox + "/film.mp4"});
    // It arrived later, so that its two tests end after the first of both rules.
    QVERIFY(sentinel.passes(engine));
    QVERIFY(sentinel.passes(engine));
    download.stop();
    QTRY_COMPARE_WITH_TIMEOUT(messages(engine).filter(QStringLiteral("film")).size(), 2, patience);
    QCOMPARE(countMessages(engine, QStringLiteral("Moved film.mp4 -> film.mp4")), 1);
    QCOMPARE(countMessages(engine, QStringLiteral("Skipped busy file: film.mp4")), 1);
    QCOMPARE(namesIn(first).size() + namesIn(second).size(), 1);
    QCOMPARE(namesIn(inbox), QByteArrayList());
}

HARBEX_ENGINE_TEST_MAIN(TestEngineChains)

#include "tst_EngineChains.moc"
