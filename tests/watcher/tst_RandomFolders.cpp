#include "support/EngineOutput.h"
#include "support/EngineProbe.h"
#include "support/EngineResources.h"
#include "support/RandomSeed.h"
#include "support/RuleModel.h"
#include "support/Stress.h"

#include <QRegularExpression>

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <filesystem>
#include <iterator>
#include <linux/fs.h>
#include <map>
#include <memory>
#include <optional>
#include <unistd.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

namespace fs = std::filesystem;

FilterRule randomRule(std::mt19937& random, const std::string& destination)
{
    const auto below = [&](size_t end) { return randomBelow(random, end); };
    FilterRule rule = ruleFor(allRuleFields[below(allRuleFields.size())], destination);
    rule.operatorType = allRuleOperators[below(allRuleOperators.size())];
    rule.kind = allRuleKinds[below(allRuleKinds.size())];
    if (rule.field != RuleField::kind && below(2))
        rule.value = QString::fromLatin1(std::array{"jpg", "photo", "e", "pdf"}[below(4)]);
    if (below(10) == 0) rule.destination.reset();
    return rule;
}

/// The folders that an entry passes, from the one where it arrives to the one where it stays: the first rule
/// in all records of a folder that takes it leads on, unless it has been there before.
std::vector<std::string> wayOf(const std::string& name, bool isDirectory, const std::string& inbox,
                               const std::vector<WatchedFolder>& records)
{
    std::vector<std::string> way = {inbox};
    while (std::ranges::count(way, way.back()) == 1) {
        std::vector<FilterRule> taking;
        for (const WatchedFolder& record : records)
            if (record.url.path() == way.back())
                std::ranges::copy_if(record.rules, std::back_inserter(taking), [&](const FilterRule& rule) {
                    return decide(name, isDirectory, rule).isTaken();
                });
        if (taking.empty() || taking.front().destination->path() == way.back()) break;
        way.push_back(taking.front().destination->path());
    }
    return way;
}

/// A piece of content that must never be lost, doubled or overwritten: a file "17:....", its number and then
/// dots, or a link whose target is called as its number. Its own name says nothing: the engine and the test
/// change it.
struct Piece {
    /// How many dots the file has.
    size_t dots = 0;
    bool isDeleted = false;
    /// Where it must be at the end: it was there when watching began.
    std::optional<std::string> staysAt;
};

/// Folders in which the test does what people and downloads do, and the account of every piece in them.
///
/// Entries of two of the watched folders are changed at any moment. Those of the third are not once they are
/// there: its rules lead to another volume, and what is written to a file, or takes its place, while a copy
/// of it is being finished can be lost on any system.
class World
{
public:
    explicit World(std::mt19937& random) : m_random(random), m_far(folderOnAnotherVolume())
    {
        m_changing = {m_near.makeFolder("a"), m_near.makeFolder("b")};
        m_steady = m_near.makeFolder("steady");
        m_linkToFirst = m_near.path() + "/link to a";
        makeLink(m_linkToFirst, m_changing[0]);
        m_destinations = {m_near.makeFolder("out"), m_near.makeFolder("other out")};
        m_prepared = m_near.makeFolder("prepared") + "/entry";
        m_targets = m_near.makeFolder("targets");
        m_farDestination = m_far.makeFolder("far out");
    }

    /// One random change to one of the folders.
    void change()
    {
        switch (below(12)) {
        case 0:
        case 1:
        case 2:
            writeFile(m_prepared, newFile(below(10) == 0 ? below(2'000'000) : below(100)));
            return arrive();
        case 3:
            prepareFolder();
            return arrive();
        case 4:
            prepareLink();
            return arrive();
        case 5:
            return beginDownload();
        case 6:
        case 7:
            return continueDownloads();
        case 8:
            return grow();
        case 9:
        case 10:
            return rename();
        default:
            return remove();
        }
    }

    /// Puts files into the watched folders that no engine may move. Called while nothing is watched.
    void placeKnownFiles()
    {
        for (const std::string& inbox : inboxes()) {
            const std::string path = inbox + "/known-" + std::to_string(m_next) + ".jpg";
            m_pieces[m_next].staysAt = path;
            writeFile(path, newFile(3));
        }
    }

    /// One of the folders is away for some milliseconds.
    void hideFolder()
    {
        const std::string& folder = anyOf(m_changing);
        renameEntry(folder, folder + " away");
        QTest::qWait(static_cast<int>(below(20)));
        renameEntry(folder + " away", folder);
    }

    /// Some of the watched folders, sometimes one of them twice or through a link, with some rules.
    [[nodiscard]] std::vector<WatchedFolder> configuration()
    {
        std::vector<WatchedFolder> folders;
        for (const std::string& inbox : inboxes())
            if (below(5) > 0) folders.push_back(watched(inbox, rulesOf(inbox)));
        if (below(3) == 0) folders.push_back(watched(m_changing[0], rulesOf(m_changing[0])));
        if (below(3) == 0) folders.push_back(watched(m_linkToFirst, rulesOf(m_linkToFirst)));
        return folders;
    }

    /// Why the folders do not hold exactly what they must; empty when they do.
    [[nodiscard]] QString findFault() const
    {
        std::map<int, std::string> found;
        for (const std::string& root : {m_near.path(), m_far.path()}) {
            for (const auto& entry : fs::recursive_directory_iterator(root)) {
                const std::string path = entry.path().string();
                if (path == m_linkToFirst || entry.path().parent_path() == m_targets) continue;
                if (entry.path().filename().string().starts_with("sentinel.")) continue;
                if (!entry.is_symlink() && entry.is_directory()) {
                    if (path.ends_with(".part")) return fault(path, "was left behind");
                    continue;
                }
                const int number = numberOf(entry);
                const auto piece = m_pieces.find(number);
                if (piece == m_pieces.end()) return fault(path, "is no piece");
                if (piece->second.isDeleted) return fault(path, "was deleted");
                const auto [other, isFirst] = found.emplace(number, path);
                if (!isFirst) return fault(path, "is also at " + other->second);
                if (!entry.is_symlink() &&
                    contents(path).toStdString() != contentOf(number, piece->second.dots))
                    return fault(path, "should have " + std::to_string(piece->second.dots) + " dots");
            }
        }
        for (const auto& [number, piece] : m_pieces) {
            if (piece.isDeleted) continue;
            if (!found.contains(number)) return fault(std::to_string(number), "is lost");
            if (piece.staysAt && *piece.staysAt != found[number]) return fault(*piece.staysAt, "was moved");
        }
        return {};
    }

    [[nodiscard]] const ScratchFolder& scratch() const { return m_near; }

    [[nodiscard]] std::vector<std::string> inboxes() const
    {
        return {m_changing[0], m_changing[1], m_steady};
    }

private:
    /// A file that is written little by little.
    struct Download {
        int number = 0;
        FileDescriptor file;
    };

    [[nodiscard]] size_t below(size_t end) { return randomBelow(m_random, end); }

    static QString fault(const std::string& path, const std::string& what)
    {
        return QString::fromStdString(path + ' ' + what);
    }

    static std::string contentOf(int number, size_t dots)
    {
        return std::to_string(number) + ':' + std::string(dots, '.');
    }

    /// The number that a content begins with; -1 for what is no content of a piece.
    static int numberIn(const QByteArray& content)
    {
        bool isNumber = false;
        const int number = content.left(content.indexOf(':')).toInt(&isNumber);
        return isNumber ? number : -1;
    }

    static int numberOf(const fs::directory_entry& entry)
    {
        const std::string path = entry.path().string();
        return entry.is_symlink() ? std::stoi(fs::read_symlink(path).filename().string())
                                  : numberIn(contents(path));
    }

    /// The content of a new piece.
    std::string newFile(size_t dots)
    {
        m_pieces[m_next].dots = dots;
        return contentOf(m_next++, dots);
    }

    void prepareFolder()
    {
        makeFolder(m_prepared);
        for (size_t i = below(4); i > 0; --i)
            writeFile(m_prepared + '/' + std::to_string(i), newFile(below(100)));
    }

    void prepareLink()
    {
        m_pieces[m_next] = {};
        const std::string target = m_targets + '/' + std::to_string(m_next++);
        if (below(4) > 0) writeFile(target, "");
        makeLink(m_prepared, target);
    }

    /// Few names, so that many meet at a destination.
    std::string anyName()
    {
        static const std::array names = {
            "photo.jpg", "photo-1.jpg",         "film.mp4", "README",      "letter.pdf",
            "Tool.app",  "archive.tar.gz",      "...",      "caf\xe9.txt", "two\nlines.mp3",
            "-rf",       "film.mp4.crdownload", "Notes",    ".env"};
        return names[below(names.size())];
    }

    std::string uniqueName() { return "renamed " + std::to_string(m_names++) + (below(2) ? ".jpg" : ".pdf"); }

    std::string& anyOf(std::vector<std::string>& folders) { return folders[below(folders.size())]; }

    /// Replaces nothing; false when the name is taken or the entry is gone.
    static bool tryRename(const std::string& from, const std::string& to)
    {
        return ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0;
    }

    /// Puts what was prepared into one of the watched folders.
    void arrive()
    {
        const std::string inbox = below(3) == 0 ? m_steady : anyOf(m_changing);
        if (!tryRename(m_prepared, inbox + '/' + anyName()))
            renameEntry(m_prepared, inbox + '/' + uniqueName());
    }

    void beginDownload()
    {
        const std::string path = anyOf(m_changing) + '/' + (below(2) ? anyName() : uniqueName());
        FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, 0644));
        if (!file) return;
        const int number = m_next;
        const std::string content = newFile(below(10));
        append(file, content);
        m_downloads.push_back({number, std::move(file)});
    }

    void continueDownloads()
    {
        for (const Download& download : m_downloads) {
            const std::string more(below(1000), '.');
            append(download.file, more);
            m_pieces[download.number].dots += more.size();
        }
        if (m_downloads.size() > below(6)) m_downloads.erase(m_downloads.begin());
    }

    static void append(const FileDescriptor& file, const std::string& content)
    {
        if (::write(file.get(), content.data(), content.size()) != static_cast<ssize_t>(content.size()))
            qFatal("cannot write");
    }

    /// The path of some entry of a changing folder, other than a known file.
    std::optional<std::string> anyEntry()
    {
        const std::string folder = anyOf(m_changing);
        const QByteArrayList names = namesIn(folder);
        if (names.isEmpty()) return std::nullopt;
        const std::string name =
            names[static_cast<qsizetype>(below(static_cast<size_t>(names.size())))].toStdString();
        if (name.starts_with("known-")) return std::nullopt;
        return folder + '/' + name;
    }

    // The engine may take an entry away, and another one take its name, between any two calls. So an entry is
    // first opened, or given a name that is nobody else's, and then it is asked which piece it is.

    void grow()
    {
        const std::optional<std::string> path = anyEntry();
        if (!path) return;
        const FileDescriptor file(::open(path->c_str(), O_RDWR | O_APPEND | O_NOFOLLOW | O_CLOEXEC));
        std::array<char, 32> begin = {};
        if (!file || ::pread(file.get(), begin.data(), begin.size(), 0) <= 0) return;
        append(file, ".....");
        m_pieces[numberIn(QByteArray(begin.data(), begin.size()))].dots += 5;
    }

    void rename()
    {
        const std::optional<std::string> path = anyEntry();
        if (path) tryRename(*path, anyOf(m_changing) + '/' + (below(2) ? anyName() : uniqueName()));
    }

    void remove()
    {
        const std::optional<std::string> path = anyEntry();
        if (!path || !tryRename(*path, m_prepared)) return;
        const fs::directory_entry entry(m_prepared);
        if (!entry.is_symlink() && entry.is_directory()) {
            for (const auto& file : fs::directory_iterator(m_prepared))
                m_pieces[numberOf(file)].isDeleted = true;
        } else {
            m_pieces[numberOf(entry)].isDeleted = true;
        }
        fs::remove_all(m_prepared);
    }

    std::vector<FilterRule> rulesOf(const std::string& inbox)
    {
        std::vector<FilterRule> rules;
        for (size_t i = below(4) + 1; i > 0; --i)
            rules.push_back(randomRule(m_random, anyDestination(inbox)));
        if (below(2)) rules.push_back(takeAll(anyDestination(inbox)));
        return rules;
    }

    std::string anyDestination(const std::string& inbox)
    {
        if (below(12) == 0) return m_near.path() + "/missing";
        if (below(12) == 0) return inbox;
        if (inbox == m_steady) return below(3) == 0 ? anyOf(m_destinations) : m_farDestination;
        return below(4) == 0 ? anyOf(m_changing) : anyOf(m_destinations);
    }

    std::mt19937& m_random;
    const ScratchFolder m_near;
    const ScratchFolder m_far;
    std::vector<std::string> m_changing;
    std::string m_steady;
    std::string m_linkToFirst;
    std::vector<std::string> m_destinations;
    std::string m_farDestination;
    /// Where an entry is made ready to arrive, or taken away to be removed.
    std::string m_prepared;
    std::string m_targets;

    std::map<int, Piece> m_pieces;
    int m_next = 0;
    int m_names = 0;
    std::vector<Download> m_downloads;
};

} // namespace

/// The engine on real folders in which anything happens at any moment, with changing rules.
class TestRandomFolders : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void nothingIsLostDoubledOverwrittenOrMovedThatWasThereBefore();
    void everyEntryEndsWhereTheRulesLead();
};

void TestRandomFolders::nothingIsLostDoubledOverwrittenOrMovedThatWasThereBefore()
{
    constexpr int engineCount = 3;
    constexpr int stepCount = 300;
    std::mt19937 random = seededRandom();
    const EngineOutput output;
    World world(random);
    const size_t threads = threadCount();
    int movedCount = 0;
    QStringList strangeLines;
    static const QRegularExpression knownLine(
        QStringLiteral("^\\[\\d\\d:\\d\\d:\\d\\d\\] (Started watchers\\.|Stopped watcher\\.|Moved .+ -> .+|"
                       "Move failed for .+: .+|Skipped busy file: .+)$"));

    for (int i = 0; i < engineCount; ++i) {
        world.placeKnownFiles();
        auto engine = std::make_unique<DownloadImageRedirector>();
        connect(engine.get(), &DownloadImageRedirector::logsChanged, this, [&] {
            const QString& line = engine->logs().first();
            movedCount += line.contains(u"Moved ");
            if (!knownLine.match(line).hasMatch()) strangeLines << line;
        });
        engine->start(world.configuration());
        for (int step = 0; step < stepCount; ++step) {
            world.change();
            switch (randomBelow(random, 60)) {
            case 0:
            case 1:
                engine->restart(world.configuration());
                world.placeKnownFiles();
                break;
            case 2:
                engine->restart(world.configuration());
                engine->restart(world.configuration());
                break;
            case 3:
                engine->stop();
                world.placeKnownFiles();
                world.change();
                QTRY_VERIFY(!engine->isRunning());
                engine->start(world.configuration());
                break;
            case 4:
            case 5:
                world.hideFolder();
                break;
            default:
                break;
            }
            QTest::qWait(static_cast<int>(randomBelow(random, 18)));
        }
        if (i == engineCount - 1) {
            // After all this it still does its work.
            std::vector<std::unique_ptr<Sentinel>> sentinels;
            std::vector<WatchedFolder> folders;
            for (const std::string& inbox : world.inboxes()) {
                sentinels.push_back(std::make_unique<Sentinel>(world.scratch(), inbox));
                folders.push_back(watched(inbox, {sentinels.back()->rule()}));
            }
            QVERIFY(restartAndWait(*engine, folders));
            for (const auto& sentinel : sentinels)
                QVERIFY(sentinel->passes(*engine));
        }
        engine.reset();
        QCOMPARE(world.findFault(), QString());
        QCOMPARE(threadCount(), threads);
        QCOMPARE(kernelWatchCount(), 0U);
    }
    QCOMPARE(strangeLines, QStringList());
    qInfo("%d moves", movedCount);
    QVERIFY(movedCount > 20);
}

/// By two records for each of three folders, which name each other and two more. Nobody else touches the
/// entries.
void TestRandomFolders::everyEntryEndsWhereTheRulesLead()
{
    const size_t rounds = stressSize(size_t(3), size_t(200));
    std::mt19937 random = seededRandom();
    const auto below = [&](size_t end) { return randomBelow(random, end); };
    const EngineOutput output;
    for (size_t round = 0; round < rounds; ++round) {
        const ScratchFolder scratch;
        std::vector<std::string> folders;
        for (const char* name : {"a", "b", "c", "out", "other"})
            folders.push_back(scratch.makeFolder(name));
        std::vector<std::unique_ptr<Sentinel>> sentinels;
        std::vector<WatchedFolder> records;
        for (size_t i = 0; i < 6; ++i) {
            std::vector<FilterRule> rules;
            if (i < 3) {
                sentinels.push_back(std::make_unique<Sentinel>(scratch, folders[i]));
                rules.push_back(sentinels.back()->rule());
            }
            for (size_t rule = below(4); rule > 0; --rule)
                rules.push_back(randomRule(random, folders[below(folders.size())]));
            if (i >= 3) rules.push_back(takeAll(folders[below(folders.size())]));
            records.push_back(watched(folders[i % 3], rules));
        }
        size_t moves = 0;
        DownloadImageRedirector engine;
        connect(&engine, &DownloadImageRedirector::logsChanged, this, [&] {
            const QString message = lastMessage(engine);
            moves += message.startsWith(u"Moved ") && !message.contains(u"sentinel");
        });
        QVERIFY(startAndWait(engine, records));

        std::map<std::string, QByteArrayList> expected;
        size_t expectedMoves = 0;
        for (size_t i = 0; i < 3; ++i) {
            // What is in a folder that comes back is known.
            const std::string away = scratch.path() + "/away";
            renameEntry(folders[i], away);
            QTRY_COMPARE_WITH_TIMEOUT(engine.activeFDs().size(), 4U, patience);
            writeFile(away + "/photo.jpg", "known");
            renameEntry(away, folders[i]);
            QTRY_COMPARE_WITH_TIMEOUT(engine.activeFDs().size(), 6U, patience);
            expected[folders[i]] << "photo.jpg";
        }
        for (size_t i = 0; i < 100; ++i) {
            const std::string name = std::array{"photo", "Letter", "Tool", "README"}[below(4)] +
                                     ('.' + std::to_string(i)) +
                                     std::array{".jpg", ".pdf", ".app", ".part", ".e"}[below(5)];
            const std::string& inbox = folders[below(3)];
            const bool isDirectory = below(4) == 0;
            if (isDirectory)
                makeFolder(inbox + '/' + name);
            else
                scratch.arrive(inbox + '/' + name, name);
            const std::vector<std::string> way = wayOf(name, isDirectory, inbox, records);
            expected[way.back()] << QByteArray::fromStdString(name);
            expectedMoves += way.size() - 1;
        }
        QTRY_COMPARE_WITH_TIMEOUT(moves, expectedMoves, patience);
        for (const auto& sentinel : sentinels)
            QVERIFY(sentinel->passes(engine));
        QCOMPARE(moves, expectedMoves);
        for (const std::string& folder : folders) {
            std::ranges::sort(expected[folder]);
            QCOMPARE(namesIn(folder), expected[folder]);
        }
    }
    reportRuns(rounds);
}

HARBEX_ENGINE_TEST_MAIN(TestRandomFolders)

#include "tst_RandomFolders.moc"
