#include "support/EngineFiles.h"
#include "support/TestMain.h"
#include "watcher/StabilityRound.h"

#include <functional>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

using namespace harbex;
using namespace harbex::test;

namespace
{

void resize(const std::string& path, off_t size)
{
    if (::truncate(path.c_str(), size) != 0) qFatal("cannot resize %s", path.c_str());
}

} // namespace

/// No test here waits: the time between the two readings is whatever the test does in between.
class TestStabilityRound : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_scratch = std::make_unique<ScratchFolder>();
        m_results.clear();
    }
    void cleanup() { m_scratch.reset(); }

    void equalSizesAreStable();
    void zeroBytesAreStable();
    void growingFileIsUnstable();
    void shrinkingFileIsUnstable();
    void growthByFourGibibytesIsNoticed();
    void growthBeforeTheFirstReadingDoesNotCount();
    void otherContentOfTheSameSizeIsStable();
    void vanishedBeforeTheFirstReadingIsUnstable();
    void vanishedBeforeTheSecondReadingIsUnstable();
    void appearedBetweenTheReadingsIsUnstable();
    void addedBetweenTheReadingsIsUnstable();
    void linkToAGrowingFileIsStable();
    void linkThatChangesIsUnstable();
    void danglingLinkIsStable();
    void namesAreRawBytes();
    void noResultComesBeforeTheRoundIsFinished();
    void unstableResultsComeFirst();
    void allSecondSizesAreReadBeforeAnyResult();
    void resultMayAddToAnotherRound();
    void resultMayAddToTheSameRound();
    void everyResultComesOnce();
    void emptyRoundFinishes();

private:
    [[nodiscard]] std::string path(const std::string& name) const { return m_scratch->path() + '/' + name; }

    /// Adds an entry whose result is recorded.
    void add(StabilityRound& round, const std::string& name)
    {
        round.add(path(name), [this, name](bool stable) { m_results.emplace_back(name, stable); });
    }

    /// What becomes of one entry when `between` happens between the readings.
    bool isStable(const std::string& name, const std::function<void()>& between = [] {})
    {
        StabilityRound round;
        m_results.clear();
        add(round, name);
        round.readFirstSizes();
        between();
        round.finish();
        if (m_results.size() != 1) qFatal("%zu results of one entry", m_results.size());
        return m_results.front().second;
    }

    std::unique_ptr<ScratchFolder> m_scratch;
    std::vector<std::pair<std::string, bool>> m_results;
};

void TestStabilityRound::equalSizesAreStable()
{
    writeFile(path("file"), "content");
    QVERIFY(isStable("file"));
}

void TestStabilityRound::zeroBytesAreStable()
{
    writeFile(path("empty"), {});
    QVERIFY(isStable("empty"));
}

void TestStabilityRound::growingFileIsUnstable()
{
    writeFile(path("file"), {});
    QVERIFY(!isStable("file", [this] { appendToFile(path("file"), "x"); }));
    QVERIFY(!isStable("file", [this] { appendToFile(path("file"), "more"); }));
    QVERIFY(isStable("file"));
}

void TestStabilityRound::shrinkingFileIsUnstable()
{
    writeFile(path("file"), "content");
    QVERIFY(!isStable("file", [this] { resize(path("file"), 0); }));
}

void TestStabilityRound::growthByFourGibibytesIsNoticed()
{
    writeFile(path("file"), "content");
    QVERIFY(!isStable("file", [this] { resize(path("file"), (off_t(1) << 32) + 7); }));
    QVERIFY(isStable("file"));
}

void TestStabilityRound::growthBeforeTheFirstReadingDoesNotCount()
{
    writeFile(path("file"), "content");
    StabilityRound round;
    add(round, "file");
    appendToFile(path("file"), "more");
    round.readFirstSizes();
    round.finish();
    QCOMPARE(m_results.back().second, true);
}

void TestStabilityRound::otherContentOfTheSameSizeIsStable()
{
    writeFile(path("file"), "content");
    writeFile(path("other"), "CONTENT");
    QVERIFY(isStable("file", [this] { renameEntry(path("other"), path("file")); }));
}

void TestStabilityRound::vanishedBeforeTheFirstReadingIsUnstable()
{
    writeFile(path("file"), "content");
    StabilityRound round;
    add(round, "file");
    removeEntry(path("file"));
    round.readFirstSizes();
    round.finish();
    QCOMPARE(m_results.size(), size_t(1));
    QCOMPARE(m_results.back().second, false);
}

void TestStabilityRound::vanishedBeforeTheSecondReadingIsUnstable()
{
    writeFile(path("file"), "content");
    QVERIFY(!isStable("file", [this] { removeEntry(path("file")); }));
    writeFile(path("empty"), {});
    QVERIFY(!isStable("empty", [this] { removeEntry(path("empty")); }));
}

void TestStabilityRound::appearedBetweenTheReadingsIsUnstable()
{
    QVERIFY(!isStable("file", [this] { writeFile(path("file"), {}); }));
}

void TestStabilityRound::addedBetweenTheReadingsIsUnstable()
{
    writeFile(path("early"), "content");
    writeFile(path("late"), {});
    StabilityRound round;
    add(round, "early");
    round.readFirstSizes();
    add(round, "late");
    round.finish();
    QCOMPARE(m_results, (std::vector<std::pair<std::string, bool>>{{"late", false}, {"early", true}}));
}

void TestStabilityRound::linkToAGrowingFileIsStable()
{
    writeFile(path("file"), "content");
    makeLink(path("link"), "file");
    QVERIFY(isStable("link", [this] { appendToFile(path("file"), "more"); }));
    QVERIFY(!isStable("file", [this] { appendToFile(path("link"), "more"); }));
}

void TestStabilityRound::linkThatChangesIsUnstable()
{
    makeLink(path("link"), "file");
    QVERIFY(!isStable("link", [this] {
        removeEntry(path("link"));
        makeLink(path("link"), "another file");
    }));
}

void TestStabilityRound::danglingLinkIsStable()
{
    makeLink(path("dangling"), "nowhere");
    QVERIFY(isStable("dangling"));
}

void TestStabilityRound::namesAreRawBytes()
{
    const std::string name = "\xff\xfe\n.jpg";
    writeFile(path(name), "content");
    QVERIFY(isStable(name));
    QVERIFY(!isStable(name, [&] { appendToFile(path(name), "more"); }));
}

void TestStabilityRound::noResultComesBeforeTheRoundIsFinished()
{
    writeFile(path("file"), "content");
    StabilityRound round;
    QVERIFY(round.isEmpty());
    add(round, "file");
    add(round, "missing");
    QVERIFY(!round.isEmpty());
    round.readFirstSizes();
    QVERIFY(m_results.empty());
    round.finish();
    QCOMPARE(m_results.size(), size_t(2));
    QVERIFY(round.isEmpty());
}

void TestStabilityRound::unstableResultsComeFirst()
{
    StabilityRound round;
    for (int i = 0; i < 20; ++i) {
        const std::string name = std::to_string(i);
        writeFile(path(name), "content");
        add(round, name);
    }
    round.readFirstSizes();
    for (int i = 1; i < 20; i += 2)
        appendToFile(path(std::to_string(i)), "more");
    round.finish();

    QCOMPARE(m_results.size(), size_t(20));
    for (size_t i = 0; i < m_results.size(); ++i) {
        QCOMPARE(m_results[i].second, i >= 10);
        QCOMPARE(std::stoi(m_results[i].first) % 2 == 0, m_results[i].second);
    }
}

void TestStabilityRound::allSecondSizesAreReadBeforeAnyResult()
{
    // What the first result does to the others comes too late to matter.
    StabilityRound round;
    for (const std::string name : {"a", "b"}) {
        writeFile(path(name), "content");
        round.add(path(name), [this, name](bool stable) {
            m_results.emplace_back(name, stable);
            appendToFile(path("a"), "more");
            appendToFile(path("b"), "more");
        });
    }
    round.readFirstSizes();
    round.finish();
    QCOMPARE(m_results.size(), size_t(2));
    QVERIFY(m_results[0].second);
    QVERIFY(m_results[1].second);
}

void TestStabilityRound::resultMayAddToAnotherRound()
{
    writeFile(path("file"), "content");
    StabilityRound first;
    StabilityRound second;
    first.add(path("file"), [&](bool stable) {
        m_results.emplace_back("first", stable);
        add(second, "file");
    });
    first.readFirstSizes();
    first.finish();
    QCOMPARE(m_results, (std::vector<std::pair<std::string, bool>>{{"first", true}}));

    second.readFirstSizes();
    appendToFile(path("file"), "more");
    second.finish();
    QCOMPARE(m_results.back(), std::pair(std::string("file"), false));
}

void TestStabilityRound::resultMayAddToTheSameRound()
{
    writeFile(path("file"), "content");
    StabilityRound round;
    for (int i = 0; i < 100; ++i) {
        round.add(path("file"), [&](bool stable) {
            m_results.emplace_back("first", stable);
            add(round, "file");
        });
    }
    round.readFirstSizes();
    round.finish();
    QCOMPARE(m_results.size(), size_t(100));
    QVERIFY(!round.isEmpty());

    round.readFirstSizes();
    round.finish();
    QCOMPARE(m_results.size(), size_t(200));
    QVERIFY(m_results.back().second);
    QVERIFY(round.isEmpty());
}

void TestStabilityRound::everyResultComesOnce()
{
    writeFile(path("file"), "content");
    StabilityRound round;
    add(round, "file");
    round.readFirstSizes();
    round.finish();
    round.readFirstSizes();
    round.finish();
    QCOMPARE(m_results.size(), size_t(1));
}

void TestStabilityRound::emptyRoundFinishes()
{
    StabilityRound round;
    round.readFirstSizes();
    round.finish();
    QVERIFY(round.isEmpty());
}

HARBEX_TEST_MAIN(TestStabilityRound)

#include "tst_StabilityRound.moc"
