#include "support/EngineTest.h"
#include "support/Eventually.h"

#include <algorithm>

using namespace harbex;
using namespace harbex::test;

namespace
{

constexpr const char* content = "the whole film";

/// A download as Firefox makes it: an empty file reserves the name, another file is written and then renamed
/// to that name.
class Download
{
public:
    /// `partial` is the name of the file that is written.
    Download(const std::string& folder, const std::string& name, const std::string& partial)
        : m_folder(folder), m_path(folder + '/' + name), m_partial(folder + '/' + partial)
    {
    }

    /// Creates the empty file, and the other one under its first name, which is unrelated.
    void reserveName() const
    {
        writeFile(m_path, {});
        writeFile(unrelated(), {});
    }
    void begin() const
    {
        // Another process may be between the two steps of reserveName().
        if (!eventually([this] { return exists(unrelated()); })) qFatal("no download begins");
        renameEntry(unrelated(), m_partial);
    }
    void write(std::string_view text = content) const { appendToFile(m_partial, text); }
    void finish() const { renameEntry(m_partial, m_path); }
    /// Replaces the steps before finish(). Creates the partial file before the empty one, so that the
    /// download can finish at the first sample.
    void writeBeforeName() const
    {
        writeFile(m_partial, content);
        writeFile(m_path, {});
    }

    void cancel() const
    {
        removeEntry(m_path);
        removeEntry(m_partial);
    }

    [[nodiscard]] const std::string& path() const { return m_path; }

private:
    [[nodiscard]] std::string unrelated() const { return m_folder + "/9MtxCK5N" + m_suffix; }

    const std::string m_folder;
    const std::string m_path;
    const std::string m_partial;
    const std::string m_suffix = m_path.substr(m_path.rfind('/') + 1) + ".part";
};

/// A download in its own inbox.
struct Case {
    Inbox inbox;
    Download download;
    /// The path of the finished download after the move.
    std::string target;
};

} // namespace

/// Downloads of browsers, which give a file its name before it has any content.
class TestEngineDownloads : public EngineTest
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        EngineTest::init();
        m_cases.clear();
        m_folders.clear();
        m_inboxes.clear();
    }

    void aFinishedDownloadIsMovedAndItsPlaceholderIsNot()
    {
        struct {
            const char* name;
            const char* partial;
            FilterRule rule;
        } const cases[] = {
            {"film.mp4", "film.gqqRF_r1.mp4.part", takeKind(RuleKind::video, "/")},
            {"film.mp4", "film.mp4.crdownload", takeNamed(RuleOperator::contains, "I", "/")},
            {"film.mp4", "film.x.TMP", takeNamed(RuleOperator::isEqual, "film", "/")},
            {"README", "README.gqqRF_r1.part", takeAll("/")},
            {"archive.tar.gz", "archive.gqqRF_r1.tar.gz.part",
             takeExtension(RuleOperator::isEqual, "gz", "/")},
            {"caf\xe9.mp4", "caf\xe9.gqqRF_r1.mp4.part", takeAll("/")},
        };
        const ScratchFolder far(folderOnAnotherVolume());
        for (const auto& [name, partial, rule] : cases) {
            const std::string inbox = partial;
            add(inbox, name, partial, {rule});
            add(inbox + " to another volume", name, partial, {rule}, far.makeFolder(inbox));
        }
        QVERIFY(start(m_folders));
        for (const Case& each : m_cases) {
            each.download.reserveName();
            each.download.begin();
        }
        // The sentinels lead to several scans. All scans but the first find the placeholder again.
        for (const char* text : {"the ", "whole ", "film"}) {
            QVERIFY(sentinelsPass(m_inboxes));
            for (const Case& each : m_cases) {
                QVERIFY2(contents(each.download.path()).isEmpty(), each.inbox.path.c_str());
                QVERIFY2(!exists(each.target), each.inbox.path.c_str());
                each.download.write(text);
            }
        }
        for (const Case& each : m_cases)
            each.download.finish();
        QVERIFY(areMoved());
        QVERIFY(sentinelsPass(m_inboxes));
        for (const Case& each : m_cases)
            QVERIFY2(namesIn(each.inbox.path).isEmpty(), each.inbox.path.c_str());
    }

    void aPlaceholderIsRecognisedWhenThePartialNameComesLater()
    {
        for (int sample = 1; sample <= 5; ++sample)
            add("sample " + std::to_string(sample), "film.mp4", "film.gqqRF_r1.mp4.part", {takeAll("/")});
        const auto work = [this] {
            if (!start(m_folders)) return false;
            for (const Case& each : m_cases)
                each.download.reserveName();
            // The sentinels are sampled later.
            const auto areFound = [this] { return countPrinted("Processing: film.mp4") >= 5; };
            if (!waitFor(areFound) || !sentinelsPass(m_inboxes)) return false;
            for (const Case& each : m_cases) {
                if (exists(each.target)) return false;
                each.download.write();
                each.download.finish();
            }
            return areMoved();
        };
        QVERIFY(runInChild(beforeEachSample(&Download::begin), work).succeeded());
        QVERIFY(areMoved());
    }

    /// A small download takes less time than the sampling.
    void aDownloadThatEndsWhileItsPlaceholderIsSampledIsMoved()
    {
        for (int sample = 1; sample <= 6; ++sample)
            add("sample " + std::to_string(sample), "film.mp4", "film.gqqRF_r1.mp4.part",
                {takeKind(RuleKind::video, "/"), takeAll(m_out)});
        const auto work = [this] {
            if (!start(m_folders)) return false;
            for (const Case& each : m_cases)
                each.download.writeBeforeName();
            // Empty files that share the scans and the samplings of the placeholders.
            const auto isMissing = [](const Case& each) { return !exists(each.target); };
            for (int round = 0; round < 50 && std::ranges::any_of(m_cases, isMissing); ++round) {
                const std::string empty = "/empty " + std::to_string(round) + '.';
                for (size_t i = 0; i < m_cases.size(); ++i)
                    writeFile(m_cases[i].inbox.path + empty + std::to_string(i), {});
                for (size_t i = 0; i < m_cases.size(); ++i)
                    if (!waitFor([&] { return exists(m_out + empty + std::to_string(i)); })) return false;
            }
            return areMoved();
        };
        QVERIFY(runInChild(beforeEachSample(&Download::finish), work).succeeded());
        QVERIFY(areMoved());
        QVERIFY(!exists(m_out + "/film.mp4"));
    }

    void aDownloadThatVanishesWhileItIsSampledIsGivenUp()
    {
        const std::string path = m_inbox + "/film.mp4";
        writeFile(at("finished"), content);
        const auto work = [&] {
            if (!start({takeAll(m_out)})) return false;
            writeFile(path, {});
            return isLogged(skipped("film.mp4"));
        };
        const std::vector<SampleAction> actions = {{path, 2, [&] { renameEntry(at("finished"), path); }},
                                                   {path, 3, [&] { removeEntry(path); }}};
        QVERIFY(runInChild(actions, work).succeeded());
    }

    void aDownloadThatOutlastsARestartIsMoved()
    {
        const std::vector<WatchedFolder> folders = {inboxWith({takeAll(m_out)})};
        const Download first(m_inbox, "film.mp4", "film.gqqRF_r1.mp4.part");
        const Download second(m_inbox, "README", "README.gqqRF_r1.part");
        writeFile(m_inbox + "/empty.mp4", {});
        writeFile(m_inbox + "/.nomedia", {});
        writeFile(m_inbox + "/.hidden.part", {});
        // The first one begins before the first start, the second one before the second start.
        for (const Download* download : {&first, &second}) {
            download->reserveName();
            download->begin();
            QVERIFY(restartAndWait(engine(), folders));
            QVERIFY(sentinelPasses());
        }
        QCOMPARE(namesIn(m_out), QByteArrayList());
        for (const Download* download : {&first, &second}) {
            download->write();
            download->finish();
        }
        QVERIFY(hasNames(m_out, {"README", "film.mp4"}));
        QVERIFY(contents(m_out + "/film.mp4") == content);
        QVERIFY(contents(m_out + "/README") == content);
        removeEntry(m_inbox + "/.hidden.part");
        QVERIFY(sentinelPasses());
        QCOMPARE(namesIn(m_inbox), QByteArrayList({".nomedia", "empty.mp4"}));
    }

    void aCancelledDownloadLeavesNothing()
    {
        QVERIFY(start({takeAll(m_out)}));
        const Download download(m_inbox, "film.mp4", "film.gqqRF_r1.mp4.part");
        // The second attempt is a download like any other.
        for (const bool isCancelled : {true, false}) {
            download.reserveName();
            download.begin();
            QVERIFY(sentinelPasses());
            QCOMPARE(namesIn(m_out), QByteArrayList());
            QCOMPARE(log("film"), QStringList());
            if (isCancelled) {
                download.cancel();
                QVERIFY(sentinelPasses());
            } else {
                download.write();
                download.finish();
                QVERIFY(isLogged(moved("film.mp4")));
                QVERIFY(contents(m_out + "/film.mp4") == content);
            }
        }
    }

    void theEndOfADownloadLeavesAnotherOneAlone()
    {
        QVERIFY(start({takeAll(m_out)}));
        // Both names begin alike: after the end of one, the partial name of the other is still beside it.
        const Download first(m_inbox, "film.mp4", "film.gqqRF_r1.mp4.part");
        const Download second(m_inbox, "film.srt", "film.Zb4kkP0s.srt.part");
        for (const Download* download : {&first, &second}) {
            download->reserveName();
            download->begin();
            download->write();
        }
        QVERIFY(sentinelPasses());
        first.finish();
        QVERIFY(isLogged(moved("film.mp4")));
        QVERIFY(sentinelPasses());
        QCOMPARE(contents(second.path()), QByteArray());
        QCOMPARE(namesIn(m_out), QByteArrayList{"film.mp4"});
        second.finish();
        QVERIFY(isLogged(moved("film.srt")));
        for (const char* name : {"/film.mp4", "/film.srt"})
            QVERIFY(contents(m_out + name) == content);
    }

    void anEmptyFileIsMovedUnlessADownloadOfItIsUnderWay()
    {
        struct {
            std::string name;
            std::string beside;
            bool stays;
        } const cases[] = {
            {"film.mp4", "film.x.mp4.part", true},
            {"film.mp4", "film.part", true},
            {"film", "film.x.PART", true},
            {"film.mp4", "film.x.mp4", false},
            {"film.mp4", "films.x.mp4.part", false},
            {"film.mp4", "fil.mp4.part", false},
            {"film.mp4", "Film.mp4.part", false},
            {"film.mp4", "x.film.mp4.part", false},
            {"film.mp4", "part", false},
            {".film.mp4", ".film.part", false},
        };
        std::vector<WatchedFolder> folders;
        for (const auto& each : cases) {
            const Inbox& inbox = m_inboxes.emplace_back(*m_scratch, "beside " + each.beside);
            writeFile(inbox.path + '/' + each.beside, "begun");
            folders.push_back(inbox.with({takeAll(inbox.out)}));
        }
        QVERIFY(start(folders));
        for (size_t i = 0; i < m_inboxes.size(); ++i) {
            writeFile(m_inboxes[i].path + '/' + cases[i].name, {});
            // Only an empty file is a placeholder.
            makeFolder(m_inboxes[i].path + "/film.folder");
            makeLink(m_inboxes[i].path + "/film.link", m_out);
        }
        QVERIFY(sentinelsPass(m_inboxes));
        for (size_t i = 0; i < m_inboxes.size(); ++i) {
            QByteArrayList stay{QByteArray::fromStdString(cases[i].beside)};
            if (cases[i].stays) stay << QByteArray::fromStdString(cases[i].name);
            std::ranges::sort(stay);
            QCOMPARE(namesIn(m_inboxes[i].path), stay);
            QCOMPARE(namesIn(m_inboxes[i].out).size(), cases[i].stays ? 2 : 3);
        }
    }

private:
    /// Adds a download in its own inbox. The first rule moves it to `out`, or to the folder of the inbox.
    void add(const std::string& inboxName, const std::string& name, const std::string& partial,
             std::vector<FilterRule> rules, std::string out = {})
    {
        const Inbox& inbox = m_inboxes.emplace_back(*m_scratch, inboxName);
        if (out.empty()) out = inbox.out;
        rules.front().destination = FileUrl::fromPath(out);
        m_folders.push_back(inbox.with(rules));
        m_cases.push_back({inbox, Download(inbox.path, name, partial), out + '/' + name});
    }

    /// Returns actions that continue the first download before its first sample, the second before its
    /// second one, and so on.
    [[nodiscard]] std::vector<SampleAction> beforeEachSample(void (Download::*proceed)() const) const
    {
        std::vector<SampleAction> actions;
        for (const Case& each : m_cases)
            actions.push_back({each.download.path(), static_cast<int>(actions.size()) + 1,
                               [&each, proceed] { (each.download.*proceed)(); }});
        return actions;
    }

    /// Waits until each download has arrived, and checks the content.
    [[nodiscard]] bool areMoved() const
    {
        return std::ranges::all_of(m_cases, [](const Case& each) {
            if (waitFor([&] { return contents(each.target) == content; })) return true;
            qWarning("not moved: %s", each.inbox.path.c_str());
            return false;
        });
    }

    std::vector<Case> m_cases;
    std::vector<WatchedFolder> m_folders;
    std::vector<Inbox> m_inboxes;
};

HARBEX_TEST(TestEngineDownloads)

#include "tst_EngineDownloads.moc"
