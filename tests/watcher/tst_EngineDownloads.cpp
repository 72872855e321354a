#include "support/EngineOutput.h"
#include "support/EngineProbe.h"
#include "support/Eventually.h"
#include "support/SyscallInterceptor.h"

#include <cerrno>
#include <memory>

using namespace harbex;
using namespace harbex::test;

namespace
{

const QByteArray content("the whole film");

/// A download as Firefox makes it: an empty file keeps the name, a file of another name is written, and takes
/// that name in the end.
class Download
{
public:
    /// `partial` is the name that is written under, without the folder.
    Download(const std::string& folder, const std::string& name, const std::string& partial)
        : m_folder(folder), m_path(folder + '/' + name), m_partial(folder + '/' + partial)
    {
    }

    /// The empty file, and the other one under its first name, which has nothing to do with it.
    void reserveName() const
    {
        writeFile(m_path, {});
        writeFile(unrelated(), {});
    }
    void begin() const
    {
        // Whoever reserves the name may be between its two files.
        if (!eventually([this] { return exists(unrelated()); })) qFatal("no download begins");
        renameEntry(unrelated(), m_partial);
    }
    void write(std::string_view text) const { appendToFile(m_partial, text); }
    void finish() const { renameEntry(m_partial, m_path); }

    void cancel() const
    {
        removeEntry(m_path);
        removeEntry(m_partial);
    }

    /// All at once.
    void arrive() const
    {
        reserveName();
        begin();
        write(content.toStdString());
        finish();
    }

    [[nodiscard]] const std::string& path() const { return m_path; }

private:
    [[nodiscard]] std::string unrelated() const { return m_folder + "/9MtxCK5N" + m_suffix; }

    const std::string m_folder;
    const std::string m_path;
    const std::string m_partial;
    const std::string m_suffix = m_path.substr(m_path.rfind('/') + 1) + ".part";
};

FilterRule ruleOf(const QByteArray& kind, const std::string& destination)
{
    if (kind == "contains") return takeNamed(RuleOperator::contains, "I", destination);
    if (kind == "is") return takeNamed(RuleOperator::isEqual, "film", destination);
    if (kind == "extension") return takeExtension(RuleOperator::isEqual, "mp4", destination);
    if (kind == "kind") return takeKind(RuleKind::video, destination);
    return takeAll(destination);
}

} // namespace

/// Downloads of browsers, which give a file its name before it has any content.
class TestEngineDownloads : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void aFinishedDownloadIsMovedAndItsPlaceholderIsNot_data();
    void aFinishedDownloadIsMovedAndItsPlaceholderIsNot();
    void aPlaceholderIsRecognisedWhenThePartialNameComesLater_data();
    void aPlaceholderIsRecognisedWhenThePartialNameComesLater();
    void aDownloadThatEndsWhileItsPlaceholderIsSampledIsMoved_data();
    void aDownloadThatEndsWhileItsPlaceholderIsSampledIsMoved();
    void aDownloadThatVanishesWhileItIsSampledIsGivenUp();
    void aDownloadThatOutlastsARestartIsMoved();
    void aCancelledDownloadLeavesNothing();
    void twoDownloadsAtOnceAreBothMoved();
    void anEmptyFileIsMovedUnlessADownloadOfItIsUnderWay_data();
    void anEmptyFileIsMovedUnlessADownloadOfItIsUnderWay();

    void aFileIsReadAgainWhenItsFirstWriteFollowsItsCreation_data();
    void aFileIsReadAgainWhenItsFirstWriteFollowsItsCreation();

private:
    std::unique_ptr<ScratchFolder> m_scratch;
    std::unique_ptr<EngineOutput> m_output;
    std::string m_inbox;
    std::string m_out;
};

void TestEngineDownloads::init()
{
    m_scratch = std::make_unique<ScratchFolder>();
    m_inbox = m_scratch->makeFolder("inbox");
    m_out = m_scratch->makeFolder("out");
    m_output = std::make_unique<EngineOutput>();
}

void TestEngineDownloads::cleanup()
{
    m_output.reset();
}

void TestEngineDownloads::aFinishedDownloadIsMovedAndItsPlaceholderIsNot_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<QByteArray>("partial");
    QTest::addColumn<QByteArray>("rule");
    QTest::addColumn<bool>("isFar");
    for (const bool isFar : {false, true}) {
        const char* where = isFar ? "to another volume" : "on one volume";
        for (const char* rule : {"contains", "is", "extension", "kind", "all"})
            QTest::addRow("rule %s, %s", rule, where)
                << QByteArray("film.mp4") << QByteArray("film.gqqRF_r1.mp4.part") << QByteArray(rule)
                << isFar;
        for (const auto& [name, partial] : {std::pair{"README", "README.gqqRF_r1.part"},
                                            {"archive.tar.gz", "archive.gqqRF_r1.tar.gz.part"},
                                            {"report.final.pdf", "report.final.gqqRF_r1.pdf.part"},
                                            {"film.mp4", "film.mp4.crdownload"},
                                            {"film.mp4", "film.x.TMP"},
                                            {"caf\xe9.mp4", "caf\xe9.gqqRF_r1.mp4.part"}})
            QTest::addRow("%s by %s, %s", name, partial, where)
                << QByteArray(name) << QByteArray(partial) << QByteArray("all") << isFar;
    }
}

void TestEngineDownloads::aFinishedDownloadIsMovedAndItsPlaceholderIsNot()
{
    QFETCH(const QByteArray, name);
    QFETCH(const QByteArray, partial);
    QFETCH(const QByteArray, rule);
    QFETCH(const bool, isFar);
    const ScratchFolder far(folderOnAnotherVolume());
    const std::string out = isFar ? far.path() : m_out;
    Sentinel sentinel(*m_scratch, m_inbox);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {sentinel.rule(), ruleOf(rule, out)})}));

    const Download download(m_inbox, name.toStdString(), partial.toStdString());
    download.reserveName();
    download.begin();
    // Each of these makes the engine look at the folder several times, and all but the first find the
    // placeholder once more.
    for (const char* text : {"the ", "whole ", "film"}) {
        QVERIFY(sentinel.passes(engine));
        QCOMPARE(contents(download.path()), QByteArray());
        QCOMPARE(namesIn(out), QByteArrayList());
        download.write(text);
    }
    download.finish();
    QTRY_COMPARE_WITH_TIMEOUT(contents(out + '/' + name.toStdString()), content, patience);
    QTRY_COMPARE_WITH_TIMEOUT(namesIn(m_inbox), QByteArrayList(), patience);
    QVERIFY(sentinel.passes(engine));
    QCOMPARE(namesIn(out), QByteArrayList{name});
}

void TestEngineDownloads::aPlaceholderIsRecognisedWhenThePartialNameComesLater_data()
{
    QTest::addColumn<int>("look");
    for (int look = 1; look <= 5; ++look)
        QTest::addRow("before look %d at the empty file", look) << look;
}

void TestEngineDownloads::aPlaceholderIsRecognisedWhenThePartialNameComesLater()
{
    QFETCH(const int, look);
    const Download download(m_inbox, "film.mp4", "film.gqqRF_r1.mp4.part");
    const auto work = [&]() -> Outcome<void> {
        Sentinel sentinel(*m_scratch, m_inbox);
        DownloadImageRedirector engine;
        if (!startAndWait(engine, {watched(m_inbox, {sentinel.rule(), takeAll(m_out)})}))
            return SystemError{ETIME};
        download.reserveName();
        // What arrives later is sampled later.
        if (!eventually([this] { return m_output->lines().contains("Processing: film.mp4"); }))
            return SystemError{ETIME};
        if (!sentinel.passes(engine) || !exists(download.path())) return SystemError{EEXIST};
        download.write(content.toStdString());
        download.finish();
        return eventually([&] { return exists(m_out + "/film.mp4"); }) ? Outcome<void>() : SystemError{ETIME};
    };
    int looks = 0;
    const InterceptedRun run = runIntercepted({"statx"}, work, [&](const InterceptedCall& call) {
        if (call.text(1) == download.path() && ++looks == look) download.begin();
        return Answer::proceed();
    });
    QCOMPARE(run.error, 0);
    QCOMPARE(contents(m_out + "/film.mp4"), content);
}

/// A small download takes less time than the sampling.
void TestEngineDownloads::aDownloadThatEndsWhileItsPlaceholderIsSampledIsMoved_data()
{
    QTest::addColumn<int>("look");
    for (int look = 1; look <= 6; ++look)
        QTest::addRow("before look %d at the name", look) << look;
}

void TestEngineDownloads::aDownloadThatEndsWhileItsPlaceholderIsSampledIsMoved()
{
    QFETCH(const int, look);
    const std::string other = m_scratch->makeFolder("other");
    const Download download(m_inbox, "film.mp4", "film.gqqRF_r1.mp4.part");
    const auto work = [&]() -> Outcome<void> {
        DownloadImageRedirector engine;
        if (!startAndWait(engine, {watched(m_inbox, {takeKind(RuleKind::video, m_out), takeAll(other)})}))
            return SystemError{ETIME};
        download.reserveName();
        download.begin();
        download.write(content.toStdString());
        // Empty files that share the scans and the samplings of the placeholder.
        for (int i = 0; !exists(m_out + "/film.mp4"); ++i) {
            const std::string name = "/" + std::to_string(i);
            writeFile(m_inbox + name, {});
            if (!eventually([&] { return exists(other + name); })) return SystemError{ETIME};
            if (i == 50 || exists(other + "/film.mp4")) return SystemError{EEXIST};
        }
        return {};
    };
    int looks = 0;
    const InterceptedRun run = runIntercepted({"statx"}, work, [&](const InterceptedCall& call) {
        if (call.text(1) == download.path() && ++looks == look) download.finish();
        return Answer::proceed();
    });
    QCOMPARE(run.error, 0);
    QCOMPARE(contents(m_out + "/film.mp4"), content);
}

void TestEngineDownloads::aDownloadThatOutlastsARestartIsMoved()
{
    Sentinel sentinel(*m_scratch, m_inbox);
    const std::vector<WatchedFolder> folders = {watched(m_inbox, {sentinel.rule(), takeAll(m_out)})};
    DownloadImageRedirector engine;
    const Download first(m_inbox, "film.mp4", "film.gqqRF_r1.mp4.part");
    const Download second(m_inbox, "README", "README.gqqRF_r1.part");
    writeFile(m_inbox + "/empty.mp4", {});
    // The one is under way before the first start, the other before the second.
    for (const Download* download : {&first, &second}) {
        download->reserveName();
        download->begin();
        QVERIFY(restartAndWait(engine, folders));
        QVERIFY(sentinel.passes(engine));
    }
    QCOMPARE(namesIn(m_out), QByteArrayList());
    for (const Download* download : {&first, &second}) {
        download->write(content.toStdString());
        download->finish();
    }
    QTRY_COMPARE_WITH_TIMEOUT(namesIn(m_out), QByteArrayList({"README", "film.mp4"}), patience);
    QCOMPARE(contents(m_out + "/film.mp4"), content);
    QCOMPARE(contents(m_out + "/README"), content);
    QVERIFY(sentinel.passes(engine));
    QCOMPARE(namesIn(m_inbox), QByteArrayList{"empty.mp4"});
}

void TestEngineDownloads::aCancelledDownloadLeavesNothing()
{
    Sentinel sentinel(*m_scratch, m_inbox);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {sentinel.rule(), takeAll(m_out)})}));
    const Download download(m_inbox, "film.mp4", "film.gqqRF_r1.mp4.part");
    download.reserveName();
    download.begin();
    QVERIFY(sentinel.passes(engine));
    download.cancel();
    QVERIFY(sentinel.passes(engine));
    QCOMPARE(namesIn(m_out), QByteArrayList());
    QCOMPARE(messages(engine).filter(QStringLiteral("film")), QStringList());

    // And the next attempt is a download like any other.
    download.arrive();
    QTRY_COMPARE_WITH_TIMEOUT(contents(m_out + "/film.mp4"), content, patience);
}

void TestEngineDownloads::twoDownloadsAtOnceAreBothMoved()
{
    Sentinel sentinel(*m_scratch, m_inbox);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {sentinel.rule(), takeAll(m_out)})}));
    // Both names begin alike, so that the end of the one leaves a partial name beside the other.
    const Download first(m_inbox, "film.mp4", "film.gqqRF_r1.mp4.part");
    const Download second(m_inbox, "film.srt", "film.Zb4kkP0s.srt.part");
    for (const Download* download : {&first, &second}) {
        download->reserveName();
        download->begin();
        download->write(content.toStdString());
    }
    QVERIFY(sentinel.passes(engine));
    first.finish();
    QTRY_COMPARE_WITH_TIMEOUT(contents(m_out + "/film.mp4"), content, patience);
    QVERIFY(sentinel.passes(engine));
    QCOMPARE(contents(second.path()), QByteArray());
    QCOMPARE(namesIn(m_out), QByteArrayList{"film.mp4"});
    second.finish();
    QTRY_COMPARE_WITH_TIMEOUT(contents(m_out + "/film.srt"), content, patience);
}

void TestEngineDownloads::anEmptyFileIsMovedUnlessADownloadOfItIsUnderWay_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<QByteArray>("beside");
    QTest::addColumn<bool>("stays");
    const auto add = [](const char* name, const char* beside, bool stays) {
        QTest::addRow("%s beside %s", name, beside) << QByteArray(name) << QByteArray(beside) << stays;
    };
    add("film.mp4", "film.x.mp4.part", true);
    add("film.mp4", "film.part", true);
    add("film", "film.x.PART", true);
    add("film.mp4", "film.x.mp4", false);
    add("film.mp4", "films.x.mp4.part", false);
    add("film.mp4", "fil.mp4.part", false);
    add("film.mp4", "Film.mp4.part", false);
    add("film.mp4", "part", false);
    add("film.mp4", "x.film.mp4.part", false);
}

void TestEngineDownloads::anEmptyFileIsMovedUnlessADownloadOfItIsUnderWay()
{
    QFETCH(const QByteArray, name);
    QFETCH(const QByteArray, beside);
    QFETCH(const bool, stays);
    const std::string path = '/' + name.toStdString();
    writeFile(m_inbox + '/' + beside.toStdString(), "begun");
    Sentinel sentinel(*m_scratch, m_inbox);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {sentinel.rule(), takeAll(m_out)})}));
    writeFile(m_inbox + path, {});
    QVERIFY(sentinel.passes(engine));
    if (!stays) QTRY_VERIFY_WITH_TIMEOUT(exists(m_out + path), patience);
    QCOMPARE(exists(m_inbox + path), stays);
    QVERIFY(exists(m_inbox + '/' + beside.toStdString()));

    // Other entries than empty files are no placeholders.
    makeFolder(m_inbox + "/film.folder");
    makeLink(m_inbox + "/film.link", m_out);
    QTRY_VERIFY_WITH_TIMEOUT(exists(m_out + "/film.folder") && exists(m_out + "/film.link"), patience);
}

void TestEngineDownloads::aFileIsReadAgainWhenItsFirstWriteFollowsItsCreation_data()
{
    QTest::addColumn<int>("look");
    QTest::addColumn<bool>("isBusy");
    QTest::newRow("written before it is seen") << 1 << false;
    QTest::newRow("written right after it is seen") << 2 << false;
    QTest::newRow("written later") << 3 << true;
}

/// The next rule takes a file that is busy at its first test.
void TestEngineDownloads::aFileIsReadAgainWhenItsFirstWriteFollowsItsCreation()
{
    QFETCH(const int, look);
    QFETCH(const bool, isBusy);
    const std::string next = m_scratch->makeFolder("next");
    const std::string path = m_inbox + "/film.mp4";
    const auto work = [&]() -> Outcome<void> {
        DownloadImageRedirector engine;
        if (!startAndWait(engine, {watched(m_inbox, {takeAll(m_out), takeAll(next)})}))
            return SystemError{ETIME};
        writeFile(path, {});
        return eventually([&] { return !exists(path); }) ? Outcome<void>() : SystemError{ETIME};
    };
    int looks = 0;
    const InterceptedRun run = runIntercepted({"statx"}, work, [&](const InterceptedCall& call) {
        if (call.text(1) == path && ++looks == look) appendToFile(path, content.toStdString());
        return Answer::proceed();
    });
    QCOMPARE(run.error, 0);
    QCOMPARE(contents((isBusy ? next : m_out) + "/film.mp4"), content);
}

/// Nothing else ends its sampling.
void TestEngineDownloads::aDownloadThatVanishesWhileItIsSampledIsGivenUp()
{
    const std::string path = m_inbox + "/film.mp4";
    const std::string finished = m_scratch->path() + "/finished";
    writeFile(finished, content.toStdString());
    const auto work = [&]() -> Outcome<void> {
        DownloadImageRedirector engine;
        if (!startAndWait(engine, {watched(m_inbox, {takeAll(m_out)})})) return SystemError{ETIME};
        writeFile(path, {});
        const auto isGivenUp = [&] {
            return messages(engine).contains(QStringLiteral("Skipped busy file: film.mp4"));
        };
        return QTest::qWaitFor(isGivenUp, patience) ? Outcome<void>() : SystemError{ETIME};
    };
    int samples = 0;
    const InterceptedRun run = runIntercepted({"statx"}, work, [&](const InterceptedCall& call) {
        if (call.text(1) != path) return Answer::proceed();
        ++samples;
        if (samples == 2) renameEntry(finished, path);
        if (samples == 3) removeEntry(path);
        return Answer::proceed();
    });
    QCOMPARE(run.error, 0);
    QVERIFY(samples >= 3);
}

HARBEX_ENGINE_TEST_MAIN(TestEngineDownloads)

#include "tst_EngineDownloads.moc"
