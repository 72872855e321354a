#include "support/EngineTest.h"
#include "support/Eventually.h"

#include <algorithm>

using namespace harbex;
using namespace harbex::test;

namespace
{

const QByteArray content("the whole film");

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
    void write(std::string_view text) const { appendToFile(m_partial, text); }
    /// Creates the partial file before the empty one, so that the download can finish at the first sample.
    void writeBeforeName(std::string_view text) const
    {
        writeFile(m_partial, std::string(text));
        writeFile(m_path, {});
    }
    void finish() const { renameEntry(m_partial, m_path); }

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
        const ScratchFolder far(folderOnAnotherVolume());
        const std::vector<FilterRule> rules = {
            takeNamed(RuleOperator::contains, "I", "/"), takeNamed(RuleOperator::isEqual, "film", "/"),
            takeExtension(RuleOperator::isEqual, "mp4", "/"), takeKind(RuleKind::video, "/")};
        const std::vector<std::pair<std::string, std::string>> names = {
            {"film.mp4", "film.gqqRF_r1.mp4.part"},
            {"film.mp4", "film.mp4.crdownload"},
            {"film.mp4", "film.x.TMP"},
            {"README", "README.gqqRF_r1.part"},
            {"archive.tar.gz", "archive.gqqRF_r1.tar.gz.part"},
            {"report.final.pdf", "report.final.gqqRF_r1.pdf.part"},
            {"caf\xe9.mp4", "caf\xe9.gqqRF_r1.mp4.part"},
        };
        for (const bool isFar : {false, true}) {
            const std::string where = isFar ? " to another volume" : "";
            const auto target = [&](const std::string& inbox) {
                return isFar ? far.makeFolder(inbox) : newFolder(inbox + " target");
            };
            for (size_t i = 0; i < rules.size(); ++i) {
                const std::string inbox = "rule " + std::to_string(i) + where;
                add(inbox, names[0].first, names[0].second, {rules[i]}, target(inbox));
            }
            for (const auto& [name, partial] : names) {
                const std::string inbox = partial + where;
                add(inbox, name, partial, {takeAll("/")}, target(inbox));
            }
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
        for (const Case& each : m_cases) {
            QVERIFY2(contents(each.target) == content, each.inbox.path.c_str());
            QVERIFY2(namesIn(each.inbox.path).isEmpty(), each.inbox.path.c_str());
            const std::string out = each.target.substr(0, each.target.rfind('/'));
            QVERIFY2(namesIn(out).size() == 1, each.inbox.path.c_str());
        }
    }

    void aPlaceholderIsRecognisedWhenThePartialNameComesLater()
    {
        for (int sample = 1; sample <= 5; ++sample)
            addFilm("sample " + std::to_string(sample), {takeAll("/")});
        const auto work = [this] {
            if (!start(m_folders)) return false;
            for (const Case& each : m_cases)
                each.download.reserveName();
            // The sentinels are sampled later.
            const auto areFound = [this] { return countPrinted("Processing: film.mp4") >= 5; };
            if (!waitFor(areFound) || !sentinelsPass(m_inboxes)) return false;
            for (const Case& each : m_cases) {
                if (exists(each.target)) return false;
                each.download.write(content.toStdString());
                each.download.finish();
            }
            return areMoved();
        };
        QVERIFY(runInChild(beforeEachSample(&Download::begin), work).succeeded());
        for (const Case& each : m_cases)
            QVERIFY2(contents(each.target) == content, each.inbox.path.c_str());
    }

    /// A small download takes less time than the sampling.
    void aDownloadThatEndsWhileItsPlaceholderIsSampledIsMoved()
    {
        for (int sample = 1; sample <= 6; ++sample)
            addFilm("sample " + std::to_string(sample), {takeKind(RuleKind::video, "/"), takeAll(m_out)});
        const auto work = [this] {
            if (!start(m_folders)) return false;
            for (const Case& each : m_cases)
                each.download.writeBeforeName(content.toStdString());
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
        for (const Case& each : m_cases)
            QVERIFY2(contents(each.target) == content, each.inbox.path.c_str());
        QVERIFY(!exists(m_out + "/film.mp4"));
    }

    void aDownloadThatVanishesWhileItIsSampledIsGivenUp()
    {
        const std::string path = m_inbox + "/film.mp4";
        writeFile(at("finished"), content.toStdString());
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
        // The first one begins before the first start, the second one before the second start.
        for (const Download* download : {&first, &second}) {
            download->reserveName();
            download->begin();
            QVERIFY(restartAndWait(engine(), folders));
            QVERIFY(sentinelPasses());
        }
        QCOMPARE(namesIn(m_out), QByteArrayList());
        for (const Download* download : {&first, &second}) {
            download->write(content.toStdString());
            download->finish();
        }
        QVERIFY(hasNames(m_out, {"README", "film.mp4"}));
        QCOMPARE(contents(m_out + "/film.mp4"), content);
        QCOMPARE(contents(m_out + "/README"), content);
        QVERIFY(sentinelPasses());
        QCOMPARE(namesIn(m_inbox), QByteArrayList{"empty.mp4"});
    }

    void aCancelledDownloadLeavesNothing()
    {
        QVERIFY(start({takeAll(m_out)}));
        const Download download(m_inbox, "film.mp4", "film.gqqRF_r1.mp4.part");
        download.reserveName();
        download.begin();
        QVERIFY(sentinelPasses());
        download.cancel();
        QVERIFY(sentinelPasses());
        QCOMPARE(namesIn(m_out), QByteArrayList());
        QCOMPARE(log("film"), QStringList());

        // The next attempt is a download like any other.
        download.reserveName();
        download.begin();
        download.write(content.toStdString());
        download.finish();
        QVERIFY(isLogged(moved("film.mp4")));
        QCOMPARE(contents(m_out + "/film.mp4"), content);
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
            download->write(content.toStdString());
        }
        QVERIFY(sentinelPasses());
        first.finish();
        QVERIFY(isLogged(moved("film.mp4")));
        QVERIFY(sentinelPasses());
        QCOMPARE(contents(second.path()), QByteArray());
        QCOMPARE(namesIn(m_out), QByteArrayList{"film.mp4"});
        QCOMPARE(contents(m_out + "/film.mp4"), content);
        second.finish();
        QVERIFY(isLogged(moved("film.srt")));
        QCOMPARE(contents(m_out + "/film.srt"), content);
    }

    void anEmptyFileIsMovedUnlessADownloadOfItIsUnderWay()
    {
        struct {
            std::string name;
            std::string beside;
            bool stays;
        } const cases[] = {
            {"film.mp4", "film.x.mp4.part", true},   {"film.mp4", "film.part", true},
            {"film", "film.x.PART", true},           {"film.mp4", "film.x.mp4", false},
            {"film.mp4", "films.x.mp4.part", false}, {"film.mp4", "fil.mp4.part", false},
            {"film.mp4", "Film.mp4.part", false},    {"film.mp4", "part", false},
            {"film.mp4", "x.film.mp4.part", false},
        };
        std::vector<Inbox> inboxes;
        std::vector<WatchedFolder> folders;
        for (const auto& each : cases) {
            const Inbox& inbox = inboxes.emplace_back(*m_scratch, "beside " + each.beside);
            writeFile(inbox.path + '/' + each.beside, "begun");
            folders.push_back(inbox.with({takeAll(inbox.out)}));
        }
        QVERIFY(start(folders));
        for (size_t i = 0; i < inboxes.size(); ++i) {
            writeFile(inboxes[i].path + '/' + cases[i].name, {});
            // Only an empty file is a placeholder.
            makeFolder(inboxes[i].path + "/film.folder");
            makeLink(inboxes[i].path + "/film.link", m_out);
        }
        QVERIFY(sentinelsPass(inboxes));
        for (size_t i = 0; i < inboxes.size(); ++i) {
            QByteArrayList moved{"film.folder", "film.link"};
            if (!cases[i].stays) moved.prepend(QByteArray::fromStdString(cases[i].name));
            std::ranges::sort(moved);
            QVERIFY(hasNames(inboxes[i].out, moved));
            QCOMPARE(exists(inboxes[i].path + '/' + cases[i].name), cases[i].stays);
            QVERIFY2(exists(inboxes[i].path + '/' + cases[i].beside), cases[i].beside.c_str());
        }
    }

private:
    /// Adds a download in its own inbox. The first rule moves it to `out`.
    void add(const std::string& inboxName, const std::string& name, const std::string& partial,
             std::vector<FilterRule> rules, const std::string& out)
    {
        const Inbox& inbox = m_inboxes.emplace_back(*m_scratch, inboxName);
        rules.front().destination = FileUrl::fromPath(out);
        m_folders.push_back(inbox.with(rules));
        m_cases.push_back({inbox, Download(inbox.path, name, partial), out + '/' + name});
    }

    void addFilm(const std::string& inboxName, const std::vector<FilterRule>& rules)
    {
        add(inboxName, "film.mp4", "film.gqqRF_r1.mp4.part", rules, newFolder(inboxName + " target"));
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

    /// Waits until each download has arrived.
    [[nodiscard]] bool areMoved() const
    {
        return std::ranges::all_of(m_cases, [](const Case& each) {
            if (waitFor([&] { return exists(each.target); })) return true;
            qWarning("not moved: %s", each.inbox.path.c_str());
            return false;
        });
    }

    std::vector<Case> m_cases;
    std::vector<WatchedFolder> m_folders;
    std::vector<Inbox> m_inboxes;
};

HARBEX_ENGINE_TEST(TestEngineDownloads)

#include "tst_EngineDownloads.moc"
