#include "support/EngineTest.h"
#include "support/Eventually.h"

#include <algorithm>
#include <filesystem>

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
    Download(const std::string& folder, const std::filesystem::path& name)
        : m_path(folder + '/' + name.string()),
          m_partial(folder + '/' + name.stem().string() + ".gqqRF_r1" + name.extension().string() + ".part"),
          m_unrelated(folder + "/9MtxCK5N.part")
    {
    }

    /// Creates the empty file, and the other one under its first name, which is unrelated.
    void reserveName() const
    {
        writeFile(m_path, {});
        writeFile(m_unrelated, {});
    }
    void begin() const
    {
        // Another process may be between the two steps of reserveName().
        if (!eventually([this] { return exists(m_unrelated); })) qFatal("no download begins");
        renameEntry(m_unrelated, m_partial);
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
    const std::string m_path;
    const std::string m_partial;
    const std::string m_unrelated;
};

/// A download in its own inbox.
struct Case {
    Inbox inbox;
    Download download{inbox.path, "film.mp4"};
    /// The path of the finished download after the move.
    std::string target = inbox.out + "/film.mp4";
};

} // namespace

/// Downloads of browsers, which give a file its name before it has any content.
class TestEngineDownloads : public EngineTest
{
    Q_OBJECT

private Q_SLOTS:
    void aPlaceholderIsRecognisedWhenThePartialNameComesLater()
    {
        const std::vector<WatchedFolder> folders = makeCases(5);
        const auto work = [&] {
            if (!start(folders)) return false;
            for (const Case& each : m_cases)
                each.download.reserveName();
            // The sentinels are sampled later.
            const auto areFound = [this] { return countPrinted("Processing: film.mp4") >= 5; };
            std::vector<Inbox> inboxes;
            for (const Case& each : m_cases)
                inboxes.push_back(each.inbox);
            if (!waitFor(areFound) || !sentinelsPass(inboxes)) return false;
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
        const std::vector<WatchedFolder> folders = makeCases(6);
        const auto work = [&] {
            if (!start(folders)) return false;
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
        const Download first(m_inbox, "film.mp4");
        const Download second(m_inbox, "README");
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

    void aPlaceholderStaysUntilItsDownloadEnds()
    {
        QVERIFY(start({takeAll(m_out)}));
        const Download download(m_inbox, "film.mp4");
        // The second attempt is a download like any other.
        for (const bool isCancelled : {true, false}) {
            download.reserveName();
            download.begin();
            // The sentinels lead to several scans. All scans but the first find the placeholder again.
            for (const char* text : {"the ", "whole ", "film"}) {
                QVERIFY(sentinelPasses());
                QCOMPARE(contents(download.path()), QByteArray());
                QCOMPARE(log("film"), QStringList());
                download.write(text);
            }
            isCancelled ? download.cancel() : download.finish();
            QVERIFY(isCancelled || isLogged(moved("film.mp4")));
            QVERIFY(sentinelPasses());
            QCOMPARE(namesIn(m_inbox), QByteArrayList());
            QCOMPARE(namesIn(m_out).size(), isCancelled ? 0 : 1);
        }
        QVERIFY(contents(m_out + "/film.mp4") == content);
    }

    void anEmptyFileIsMovedUnlessADownloadOfItIsUnderWay()
    {
        struct {
            std::string name;
            std::string beside;
            bool stays;
        } const cases[] = {
            {"film.mp4", "film.x.mp4.part", true},  {"film.mp4", "film.part", true},
            {"film", "film.x.PART", true},          {"caf\xe9.mp4", "caf\xe9.x.mp4.part", true},
            {"film.mp4", "film.x.mp4", false},      {"film.mp4", "films.x.mp4.part", false},
            {"film.mp4", "fil.mp4.part", false},    {"film.mp4", "Film.mp4.part", false},
            {"film.mp4", "x.film.mp4.part", false}, {"film.mp4", "part", false},
            {".film.mp4", ".film.part", false},
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
            m_scratch->arrive(inboxes[i].path + "/film.file", content);
        }
        QVERIFY(sentinelsPass(inboxes));
        for (size_t i = 0; i < inboxes.size(); ++i) {
            QByteArrayList stay{QByteArray::fromStdString(cases[i].beside)};
            if (cases[i].stays) stay << QByteArray::fromStdString(cases[i].name);
            std::ranges::sort(stay);
            QCOMPARE(namesIn(inboxes[i].path), stay);
            QCOMPARE(namesIn(inboxes[i].out).size(), cases[i].stays ? 3 : 4);
        }
    }

private:
    /// Makes this number of downloads, and returns the records of their inboxes.
    [[nodiscard]] std::vector<WatchedFolder> makeCases(int count)
    {
        m_cases.clear();
        std::vector<WatchedFolder> folders;
        for (int i = 1; i <= count; ++i) {
            const Inbox inbox(*m_scratch, "sample " + std::to_string(i));
            m_cases.push_back({inbox});
            folders.push_back(inbox.with({kindIs(RuleKind::video, inbox.out), takeAll(m_out)}));
        }
        return folders;
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
};

HARBEX_TEST(TestEngineDownloads)

#include "tst_EngineDownloads.moc"
