#include "support/CapturedOutput.h"
#include "support/EngineProbe.h"
#include "support/EngineResources.h"
#include "support/FuseMount.h"
#include "support/RandomSeed.h"
#include "support/Stress.h"
#include "support/TestMain.h"

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <filesystem>
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
    FilterRule rule = ruleFor(allRuleFields[below(allRuleFields.size())],
                              allRuleOperators[below(allRuleOperators.size())], {}, destination);
    rule.kind = allRuleKinds[below(allRuleKinds.size())];
    if (rule.field != RuleField::kind && below(2))
        rule.value = QString::fromLatin1(std::array{"jpg", "photo", "e", "pdf"}[below(4)]);
    if (below(10) == 0) rule.destination.reset();
    return rule;
}

/// Returns the folders that an entry passes, from the one where it arrives to the one where it stays. In each
/// folder the first matching rule of all records decides. An entry that comes back stays.
std::vector<std::string> pathOf(const std::string& name, bool isDirectory, const std::string& inbox,
                                const std::vector<WatchedFolder>& records)
{
    std::vector<std::string> path = {inbox};
    while (std::ranges::count(path, path.back()) == 1) {
        std::vector<std::string> destinations;
        for (const WatchedFolder& record : records)
            for (const FilterRule& rule : record.rules)
                if (record.url.path() == path.back() && takes(rule, name, isDirectory))
                    destinations.push_back(rule.destination->path());
        if (destinations.empty() || destinations.front() == path.back()) break;
        path.push_back(destinations.front());
    }
    return path;
}

/// A piece of content that must never be lost, doubled or overwritten: a file with its number and then dots,
/// "17:....", or a link to a target that is named after its number. Engine and test change its own name.
struct Piece {
    /// Number of dots in the file.
    size_t dots = 0;
    bool isDeleted = false;
    /// The path of an entry that existed before it was watched.
    std::optional<std::string> staysAt;
};

/// Folders that change as people and downloads change them, and a record of every piece in them.
///
/// Entries in two of the watched folders change at any moment. Entries in the third do not change: its rules
/// lead to another volume, and a change of a file whose copy is being published can be lost on any system.
class World
{
public:
    World(std::mt19937& random, bool hasServer) : m_random(random), m_far(folderOnAnotherVolume())
    {
        m_changing = {m_near.makeFolder("a"), m_near.makeFolder("b")};
        m_steady = m_near.makeFolder("steady");
        m_linkToFirst = m_near.path() + "/link to a";
        makeLink(m_linkToFirst, m_changing[0]);
        m_destinations = {m_near.makeFolder("out"), m_near.makeFolder("other out")};
        m_prepared = m_near.makeFolder("prepared") + "/entry";
        m_targets = m_near.makeFolder("targets");
        m_farDestinations = {m_far.makeFolder("far out")};
        if (!hasServer) return;
        m_farDestinations.push_back(m_near.makeFolder("served"));
        m_server = std::make_unique<FuseMount>(m_real.path(), m_farDestinations.back());
    }

    /// Makes one random change.
    void change()
    {
        static constexpr std::array changes = {
            &World::addFile,       &World::addFolder, &World::addLink, &World::continueBrowserDownload,
            &World::beginDownload, &World::grow,      &World::remove,  &World::continueDownloads,
            &World::rename};
        (this->*changes[below(changes.size())])();
    }

    /// Creates files that no engine may move. Call while nothing is watched.
    void placeKnownFiles()
    {
        for (const std::string& inbox : inboxes()) {
            const std::string path = inbox + "/known-" + std::to_string(m_next) + ".jpg";
            m_pieces[m_next].staysAt = path;
            writeFile(path, newFile(3));
        }
    }

    /// Renames a folder away for some milliseconds.
    void hideFolder()
    {
        const std::string& folder = anyOf(m_changing);
        renameEntry(folder, folder + " away");
        QTest::qWait(static_cast<int>(below(20)));
        renameEntry(folder + " away", folder);
    }

    /// Stops the server, if there is one.
    [[nodiscard]] std::unique_ptr<FuseMount::Silence> silence() const
    {
        return m_server ? std::make_unique<FuseMount::Silence>(*m_server) : nullptr;
    }

    void finishDownloads()
    {
        m_downloads.clear();
        if (exists(m_partial)) continueBrowserDownload();
    }

    /// Returns some watched folders with random rules. A folder can appear twice or through a link.
    [[nodiscard]] std::vector<WatchedFolder> configuration()
    {
        std::vector<WatchedFolder> folders;
        for (const std::string& inbox : inboxes())
            if (below(5) > 0) folders.push_back(watched(inbox, rulesOf(inbox)));
        if (below(3) == 0) folders.push_back(watched(m_changing[0], rulesOf(m_changing[0])));
        if (below(3) == 0) folders.push_back(watched(m_linkToFirst, rulesOf(m_linkToFirst)));
        return folders;
    }

    /// Returns what is wrong in the folders; empty if nothing is.
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
    /// A file that grows.
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

    /// Returns the number at the beginning of a content; -1 if it is not from a piece.
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

    /// Creates a piece and returns its content.
    std::string newFile(size_t dots)
    {
        m_pieces[m_next].dots = dots;
        return contentOf(m_next++, dots);
    }

    void addFile()
    {
        writeFile(m_prepared, newFile(below(10) == 0 ? below(2'000'000) : below(100)));
        arrive();
    }

    void addFolder()
    {
        makeFolder(m_prepared);
        for (size_t i = below(4); i > 0; --i)
            writeFile(m_prepared + '/' + std::to_string(i), newFile(below(100)));
        arrive();
    }

    void addLink()
    {
        m_pieces[m_next] = {};
        const std::string target = m_targets + '/' + std::to_string(m_next++);
        if (below(4) > 0) writeFile(target, "");
        makeLink(m_prepared, target);
        arrive();
    }

    /// Returns one of a few names, so that names collide at a destination.
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

    /// Replaces nothing. Returns false if the name is taken or the entry is gone.
    static bool tryRename(const std::string& from, const std::string& to)
    {
        return ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0;
    }

    /// Moves the prepared entry into a watched folder.
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

    /// Starts or finishes a download like a browser: an empty placeholder has the name, and the partial file
    /// is renamed over it.
    void continueBrowserDownload()
    {
        if (exists(m_partial)) return renameEntry(m_partial, m_placeholder);
        const std::string path = m_steady + "/movie " + std::to_string(m_names++);
        m_placeholder = path + ".mp4";
        m_partial = path + ".gqqRF_r1.mp4.part";
        writeFile(m_placeholder, "");
        writeFile(m_partial, newFile(below(100)));
    }

    static void append(const FileDescriptor& file, const std::string& content)
    {
        if (::write(file.get(), content.data(), content.size()) != static_cast<ssize_t>(content.size()))
            qFatal("cannot write");
    }

    /// Returns the path of an entry in a changing folder, but not of a known file.
    std::optional<std::string> anyEntry()
    {
        const std::string folder = anyOf(m_changing);
        const QByteArrayList names = namesIn(folder);
        if (names.isEmpty()) return std::nullopt;
        const std::string name = names[qsizetype(below(size_t(names.size())))].toStdString();
        if (name.starts_with("known-")) return std::nullopt;
        return folder + '/' + name;
    }

    // The engine can move an entry away between two calls, and another one can get its name. So these
    // functions first open an entry, or give it a unique name, and then read which piece it is.

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
        if (inbox == m_steady) return below(3) == 0 ? anyOf(m_destinations) : anyOf(m_farDestinations);
        return below(4) == 0 ? anyOf(m_changing) : anyOf(m_destinations);
    }

    std::mt19937& m_random;
    const ScratchFolder m_near;
    const ScratchFolder m_far;
    std::vector<std::string> m_changing;
    std::string m_steady;
    std::string m_linkToFirst;
    std::vector<std::string> m_destinations;
    std::vector<std::string> m_farDestinations;
    const ScratchFolder m_real;
    std::unique_ptr<FuseMount> m_server;
    std::string m_placeholder;
    std::string m_partial;
    /// The path of an entry that is about to arrive or to be removed.
    std::string m_prepared;
    std::string m_targets;

    std::map<int, Piece> m_pieces;
    int m_next = 0;
    int m_names = 0;
    std::vector<Download> m_downloads;
};

} // namespace

/// The engine on folders that change at random, with random rules.
class TestRandomFolders : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void nothingIsLostDoubledOrOverwritten()
    {
        const int engineCount = stressSize(2, 40);
        constexpr int stepCount = 150;
        std::mt19937 random = seededRandom();
        const CapturedOutput output;
        const QString reason = FuseMount::reasonAgainst();
        if (!reason.isEmpty()) qInfo("without a destination on a server: %s", qPrintable(reason));
        World world(random, reason.isEmpty());
        const size_t threads = threadCount();
        const size_t descriptors = descriptorCount();
        int movedCount = 0;

        for (int i = 0; i < engineCount; ++i) {
            world.placeKnownFiles();
            auto engine = std::make_unique<DownloadImageRedirector>();
            connect(engine.get(), &DownloadImageRedirector::logsChanged, this,
                    [&] { movedCount += lastMessage(*engine).startsWith(u"Moved "); });
            engine->start(world.configuration());
            // Declared after the engine, whose destructor waits for calls to the server.
            std::unique_ptr<FuseMount::Silence> silence;
            for (int step = 0; step < stepCount; ++step) {
                world.change();
                // A silence lasts some steps. Each engine has at least one.
                if (step == 20 || randomBelow(random, silence ? 20 : 100) == 0)
                    silence = silence ? nullptr : world.silence();
                const size_t event = randomBelow(random, 40);
                if (event < 2) {
                    engine->restart(world.configuration());
                    world.placeKnownFiles();
                } else if (event == 2) {
                    engine->restart(world.configuration());
                    engine->restart(world.configuration());
                } else if (event == 3) {
                    engine->stop();
                    world.placeKnownFiles();
                    world.change();
                    QTRY_VERIFY(!engine->isRunning());
                    engine->start(world.configuration());
                } else if (event == 4) {
                    engine->stop();
                    engine->start(world.configuration());
                } else if (event == 5) {
                    engine->start(world.configuration());
                } else if (event < 8) {
                    world.hideFolder();
                }
                QTest::qWait(static_cast<int>(randomBelow(random, 18)));
            }
            silence.reset();
            world.finishDownloads();
            if (i == engineCount - 1) {
                // The engine still works.
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
            QCOMPARE(descriptorCount(), descriptors);
            QCOMPARE(kernelWatchCount(), 0U);
        }
        qInfo("%d moves", movedCount);
        QVERIFY(movedCount > 10 * engineCount);
        reportRuns(size_t(engineCount) * stepCount);
    }

    /// Three folders with two records each, whose rules lead to each other and to two more folders. Only the
    /// engine changes the entries.
    void everyEntryEndsWhereTheRulesLead()
    {
        const size_t rounds = stressSize(size_t(2), size_t(200));
        std::mt19937 random = seededRandom();
        const auto below = [&](size_t end) { return randomBelow(random, end); };
        const CapturedOutput output;
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
                const std::vector<std::string> path = pathOf(name, isDirectory, inbox, records);
                expected[path.back()] << QByteArray::fromStdString(name);
                expectedMoves += path.size() - 1;
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
};

HARBEX_TEST(TestRandomFolders)

#include "tst_RandomFolders.moc"
