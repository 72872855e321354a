#include "support/EngineOutput.h"
#include "support/EngineProbe.h"
#include "support/EngineResources.h"
#include "support/FuseMount.h"
#include "support/RandomSeed.h"
#include "support/Stress.h"

#include <array>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// Why none of the destinations can be on a server; empty if one can.
QString reasonAgainstServer()
{
#ifdef HARBEX_NO_SERVED_FOLDERS
    return QStringLiteral("a sanitized test starts no program");
#else
    return FuseMount::reasonAgainst();
#endif
}

/// Files of which each has a name and a content of its own, and which of them may be moved.
class Ledger
{
public:
    Ledger(std::mt19937& random, bool hasServer) : m_random(random)
    {
        for (const char* name : {"a", "b", "c"}) {
            m_inboxes.push_back(m_near.makeFolder(std::string("in ") + name));
            m_destinations.push_back(m_near.makeFolder(std::string("out ") + name));
        }
        m_destinations.push_back(m_far.makeFolder("far"));
        if (!hasServer) return;
        m_destinations.push_back(m_near.makeFolder("served"));
        m_server = std::make_unique<FuseMount>(m_near.makeFolder("real"), m_destinations.back());
    }

    /// Some files arrive.
    void burst()
    {
        for (size_t i = below(6); i > 0; --i) {
            const std::string path = newPath();
            m_near.arrive(path, content(m_count - 1));
        }
    }

    /// A browser begins a download, or ends the one that is under way: it keeps the name with an empty file,
    /// writes another one, and renames that over the first.
    void download()
    {
        if (m_download.empty()) {
            m_download = newPath();
            writeFile(m_download, "");
            const size_t dot = m_download.find('.', m_download.rfind('/'));
            m_part = m_download.substr(0, dot) + ".gqqRF_r1.part";
            writeFile(m_part, content(m_count - 1));
            return;
        }
        renameEntry(m_part, m_download);
        m_download.clear();
    }

    void finishDownload()
    {
        if (!m_download.empty()) download();
    }

    /// A folder goes away for a moment.
    void hideInbox(const std::function<void()>& meanwhile)
    {
        const std::string& inbox = m_inboxes[below(m_inboxes.size())];
        renameEntry(inbox, inbox + " elsewhere");
        meanwhile();
        renameEntry(inbox + " elsewhere", inbox);
    }

    /// A file is placed that was there before watching began. Called while nothing is watched.
    void placeKnown()
    {
        const std::string path = newPath();
        writeFile(path, content(m_count - 1));
        m_known.push_back(path);
    }

    /// From here on the server, if there is one, does not answer.
    [[nodiscard]] std::unique_ptr<FuseMount::Silence> silence() const
    {
        return m_server ? std::make_unique<FuseMount::Silence>(*m_server) : nullptr;
    }

    /// Rules by which everything but the sentinel goes there.
    [[nodiscard]] std::vector<WatchedFolder> allToTheServer() const
    {
        std::vector<WatchedFolder> folders;
        for (const std::string& inbox : m_inboxes)
            folders.push_back(watched(inbox, {m_sentinel.rule(), takeAll(m_destinations.back())}));
        return folders;
    }

    /// Goes through one of the folders to a destination that always answers.
    [[nodiscard]] Sentinel& sentinel() { return m_sentinel; }

    /// The folders with rules as an edit could have left them.
    std::vector<WatchedFolder> configuration()
    {
        std::vector<WatchedFolder> folders;
        for (const std::string& inbox : m_inboxes) {
            std::vector<FilterRule> rules;
            for (size_t i = below(3); i > 0; --i)
                rules.push_back(
                    takeExtension(RuleOperator::contains, below(2) ? "jpg" : "pdf", destinationFor(inbox)));
            if (below(3) > 0) rules.push_back(takeAll(destinationFor(inbox)));
            folders.push_back(watched(inbox, rules));
        }
        if (below(4) == 0) folders.push_back(folders[below(folders.size())]);
        return folders;
    }

    [[nodiscard]] const ScratchFolder& scratch() const { return m_near; }
    [[nodiscard]] const std::vector<std::string>& inboxes() const { return m_inboxes; }

    /// Why the folders do not hold each file once, and the known ones where they were; empty if they do.
    [[nodiscard]] std::string findFault() const
    {
        std::map<std::string, std::string> found;
        std::vector<std::string> folders = m_inboxes;
        folders.insert(folders.end(), m_destinations.begin(), m_destinations.end());
        for (const std::string& folder : folders) {
            for (const QByteArray& name : namesIn(folder)) {
                const std::string path = folder + '/' + name.toStdString();
                const auto [other, isFirst] = found.emplace(contents(path).toStdString(), path);
                if (!isFirst) return path + " is also " + other->second;
            }
        }
        for (size_t i = 0; i < m_count; ++i)
            if (!found.contains(content(i))) return std::to_string(i) + " is lost";
        if (found.size() != m_count) return "there is more than has arrived";
        for (const std::string& path : m_known)
            if (!exists(path)) return path + " was there before and was moved";
        return {};
    }

    /// Takes all files away again.
    void clear()
    {
        for (const std::string& inbox : m_inboxes)
            clearFolder(inbox);
        for (const std::string& destination : m_destinations)
            clearFolder(destination);
        m_known.clear();
        m_count = 0;
    }

private:
    size_t below(size_t end) { return randomBelow(m_random, end); }

    /// Where the next file comes. Its name is never used again, not even after clear().
    std::string newPath()
    {
        static constexpr std::array extensions = {".jpg", ".pdf", ".txt", ""};
        ++m_count;
        return m_inboxes[below(m_inboxes.size())] + "/file " + std::to_string(m_names++) +
               extensions[below(extensions.size())];
    }

    static std::string content(size_t number) { return "content " + std::to_string(number); }

    /// Never another watched folder: from there it could rightly be moved a second time.
    std::string destinationFor(const std::string& inbox)
    {
        const size_t n = below(m_destinations.size() + 2);
        if (n == m_destinations.size()) return m_near.path() + "/missing";
        return n > m_destinations.size() ? inbox : m_destinations[n];
    }

    static void clearFolder(const std::string& folder)
    {
        for (const QByteArray& name : namesIn(folder))
            removeEntry(folder + '/' + name.toStdString());
    }

    std::mt19937& m_random;
    const ScratchFolder m_near;
    const ScratchFolder m_far = ScratchFolder(folderOnAnotherVolume());
    std::vector<std::string> m_inboxes;
    std::vector<std::string> m_destinations;
    std::unique_ptr<FuseMount> m_server;
    Sentinel m_sentinel{m_near, m_near.path() + "/in a"};
    std::vector<std::string> m_known;
    size_t m_count = 0;
    size_t m_names = 0;
    /// The file whose download is under way, and the one that the browser writes.
    std::string m_download;
    std::string m_part;
};

} // namespace

/// Starts, stops, restarts with other rules and ends of the engine, at any moment of a burst.
class TestRestartStorm : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void nothingIsLostOrMovedTwice();
};

void TestRestartStorm::nothingIsLostOrMovedTwice()
{
    const size_t rounds = stressSize(size_t(150), size_t(10'000));
    std::mt19937 random = seededRandom();
    const EngineOutput output;
    const QString reason = reasonAgainstServer();
    if (!reason.isEmpty()) qInfo("without a destination on a server: %s", qPrintable(reason));
    {
        Ledger ledger(random, reason.isEmpty());
        const size_t threads = threadCount();
        const size_t descriptors = descriptorCount();
        size_t moves = 0;
        size_t silences = 0;
        std::map<QString, int> movesOf;
        QString twice;
        std::unique_ptr<DownloadImageRedirector> engine;
        const auto makeEngine = [&] {
            engine = std::make_unique<DownloadImageRedirector>();
            connect(engine.get(), &DownloadImageRedirector::logsChanged, this, [&] {
                const QString message = lastMessage(*engine);
                if (!message.startsWith(u"Moved file ")) return;
                ++moves;
                // "Moved file 17.jpg -> file 17.jpg"
                if (++movesOf[message.section(QLatin1Char(' '), 1, 2)] > 1) twice = message;
            });
        };
        makeEngine();
        // After the engine, which at its end waits for calls that the server has not answered.
        std::unique_ptr<FuseMount::Silence> silence;
        for (size_t round = 0; round < rounds; ++round) {
            ledger.burst();
            if (randomBelow(random, 3) == 0) ledger.download();
            if (randomBelow(random, 16) == 0) {
                silence = silence ? nullptr : ledger.silence();
                if (silence) {
                    engine->restart(ledger.allToTheServer());
                    QTRY_VERIFY_WITH_TIMEOUT(!engine->activeFDs().empty(), patience);
                    ledger.burst();
                    QVERIFY(ledger.sentinel().passes(*engine));
                    QVERIFY(silence->holds());
                    ++silences;
                }
            }
            switch (randomBelow(random, 13)) {
            case 0:
                engine->stop();
                ledger.placeKnown();
                QTRY_VERIFY(!engine->isRunning());
                engine->start(ledger.configuration());
                break;
            case 1:
                engine->stop();
                engine->start(ledger.configuration());
                break;
            case 2:
                // As quickly as a person can pick one rule after the other.
                for (size_t i = randomBelow(random, 5); i > 0; --i)
                    engine->restart(ledger.configuration());
                break;
            case 3:
                silence.reset();
                engine.reset();
                ledger.placeKnown();
                makeEngine();
                engine->start(ledger.configuration());
                break;
            case 12:
                ledger.hideInbox([&] { QTest::qWait(int(randomBelow(random, 20))); });
                break;
            case 4:
            case 5:
                engine->restart(ledger.configuration());
                break;
            default:
                engine->start(ledger.configuration());
                break;
            }
            ledger.burst();
            // Now and then long enough for an entry to be sampled twice and moved.
            QTest::qWait(int(randomBelow(random, 8) == 0 ? 400 : randomBelow(random, 20)));
            if (round % 500 != 499 && round + 1 != rounds) continue;

            ledger.finishDownload();
            silence.reset();
            engine.reset();
            QCOMPARE(QString::fromStdString(ledger.findFault()), QString());
            QCOMPARE(kernelWatchCount(), 0U);
            QCOMPARE(threadCount(), threads);
            QCOMPARE(descriptorCount(), descriptors);
            ledger.clear();
            makeEngine();
        }
        QCOMPARE(twice, QString());
        QVERIFY(moves > rounds / 2);
        QVERIFY(silences > 0 || !reason.isEmpty());
        qInfo("%zu moves, and %zu silences of the server", moves, silences);
    }
    reportRuns(rounds);
}

HARBEX_ENGINE_TEST_MAIN(TestRestartStorm)

#include "tst_RestartStorm.moc"
