#include "base/FileDescriptor.h"
#include "fs/FileMove.h"
#include "fs/FreeName.h"
#include "support/EngineOutput.h"
#include "support/EngineProbe.h"
#include "support/RandomSeed.h"
#include "support/Stress.h"
#include "support/TreeSnapshot.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

std::string repeated(const std::string& text, int count)
{
    std::string all;
    for (int i = 0; i < count; ++i)
        all += text;
    return all;
}

/// Names that other programs stumble over. Every name that a file system takes is as good as any other.
const std::vector<std::string>& hostileNames()
{
    static const std::vector<std::string> names = [] {
        std::vector<std::string> all = {
            // options, patterns, variables and commands of a shell
            "-", "--", "-rf", "--help", "~", "*", "?", "[a-z]", "$HOME", "$(reboot)", "`reboot`", "a;b",
            "a&b", "a|b", ">a", "'", "\"", "\\", "\\n", "!!", "#",
            // paths and addresses as other systems write them
            "file:etc", "http:example.org?a=b#c", "%2e%2e%2fetc", "%00", "C:\\autoexec.bat", "con", "nul.txt",
            "..\\..", "a:stream",
            // dots and blanks
            "...", "....", ". ", " ", " .", ".a", "a.", "a..", ".a.", "..a", "\t", "a b ", "\u00a0", "\u200b",
            // lines and terminals
            "\n", "\r", "a\nMoved b -> c", "a\n[00:00:00] Started watchers.", "\x1b[2J\x1b[31m",
            "\x1b]0;title\a", "\x7f", "\u0085", "\u009b1m", "\u2028", "\u2029",
            // the direction of writing
            "\u202egpj.exe", "\u2066a\u2069", "\u200fabc", "\u061c.txt",
            // no UTF-8, or barely
            "\xff", "\xfe\xff", "\xc0\xaf", "\xc0\x80", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xe2\x82",
            "\x80.jpg", "\xef\xbb\xbfmark", "\xef\xbf\xbe", "\xef\xbf\xbd", "caf\xc3\xa9", "cafe\xcc\x81",
            // as long as names can be
            std::string(255, 'x'), std::string(251, 'x') + ".jpg", std::string(254, '.') + 'x',
            'x' + std::string(253, '.') + 'x', repeated("\xe2\x82\xac", 85), std::string(255, '\xff'),
            std::string(255, '\n'), '.' + std::string(254, 'x'),
            // what a move itself could take for something of its own
            ".harbex-", ".harbex-0123456789abcdef0123456789abcdef", "harbex.json", "entry"};
        for (char control = 1; control < 32; ++control)
            all.push_back(std::string("control") + control);
        return all;
    }();
    return names;
}

/// Whether a line would show as what it is: one line, in the order of its characters.
bool isHarmless(const QString& line)
{
    return std::ranges::none_of(line, [](QChar c) {
        const auto category = c.category();
        const bool isBidirectional = (c >= QChar(0x202a) && c <= QChar(0x202e)) ||
                                     (c >= QChar(0x2066) && c <= QChar(0x2069)) || c == QChar(0x200e) ||
                                     c == QChar(0x200f) || c == QChar(0x061c);
        return category == QChar::Other_Control || category == QChar::Separator_Line ||
               category == QChar::Separator_Paragraph || isBidirectional;
    });
}

/// Two volumes, or two folders of one.
struct Places {
    explicit Places(bool acrossVolumes)
        : there(acrossVolumes ? folderOnAnotherVolume() : std::string()), in(here.makeFolder("in")),
          out(there.makeFolder("out"))
    {
    }

    const ScratchFolder here;
    const ScratchFolder there;
    const std::string in;
    const std::string out;
};

void addRowsOfVolumes()
{
    QTest::addColumn<bool>("acrossVolumes");
    QTest::newRow("same volume") << false;
    QTest::newRow("across volumes") << true;
}

/// Makes an entry at a path.
void makeEntry(const QByteArray& kind, const std::string& path, const std::string& name)
{
    if (kind == "file") writeFile(path, name);
    if (kind == "link") makeLink(path, name);
    if (kind != "folder") return;
    makeFolder(path);
    writeFile(path + '/' + name, name);
}

/// Folders one in the other, deeper than a path can say, with two names of one file at the end.
class Abyss
{
public:
    static constexpr int depth = 40;

    static void make(const std::string& path)
    {
        makeFolder(path);
        FileDescriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        for (int i = 0; i < depth; ++i) {
            if (!folder || ::mkdirat(folder.get(), name().c_str(), 0755) != 0)
                qFatal("cannot make a deep folder");
            folder =
                FileDescriptor(::openat(folder.get(), name().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        }
        const FileDescriptor file(::openat(folder.get(), "file", O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
        if (::write(file.get(), "content", 7) != 7 ||
            ::linkat(folder.get(), "file", folder.get(), "same", 0) != 0)
            qFatal("cannot make a deep file");
    }

    [[nodiscard]] static bool isWhole(const std::string& path)
    {
        FileDescriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        for (int i = 0; folder && i < depth; ++i)
            folder =
                FileDescriptor(::openat(folder.get(), name().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        return folder && holdsContent(folder.get(), "file") && holdsContent(folder.get(), "same");
    }

private:
    static std::string name() { return std::string(200, 'd'); }

    static bool holdsContent(int folder, const char* file)
    {
        const FileDescriptor opened(::openat(folder, file, O_RDONLY | O_CLOEXEC));
        std::array<char, 16> content = {};
        return opened && ::read(opened.get(), content.data(), content.size()) == 7 &&
               std::string(content.data()) == "content";
    }
};

/// A tree of anything, made at random.
class RandomTree
{
public:
    RandomTree(std::mt19937& random, std::string decoys) : m_random(random), m_decoys(std::move(decoys)) {}

    void make(const std::string& path)
    {
        makeFolder(path);
        m_folders = {path};
        for (size_t i = below(30); i > 0; --i)
            addEntry();
        // Last, because what is put into a folder changes them.
        for (const std::string& folder : m_folders)
            decorate(folder);
    }

    /// Whether there is something in it that has no copy: a pipe.
    [[nodiscard]] bool hasSpecial() const { return m_hasSpecial; }

private:
    size_t below(size_t end) { return randomBelow(m_random, end); }

    template <class List>
    const auto& anyOf(const List& list)
    {
        return list[below(std::size(list))];
    }

    void addEntry()
    {
        const std::string path = std::string(anyOf(m_folders)) + '/' + std::string(anyOf(hostileNames()));
        if (exists(path) || path.size() >= PATH_MAX) return;
        switch (below(12)) {
        case 0:
        case 1:
        case 2:
            makeFolder(path);
            m_folders.push_back(path);
            return;
        case 3:
        case 4:
            makeLink(path, anyTarget());
            return;
        case 5:
            if (m_files.empty() || ::link(std::string(anyOf(m_files)).c_str(), path.c_str()) != 0) return;
            return;
        case 6:
            // A second name of a file that is somewhere else.
            if (::link((m_decoys + "/linked").c_str(), path.c_str()) != 0) qFatal("cannot link");
            return;
        case 7:
            makeSparse(path);
            break;
        case 8:
            if (below(20) != 0) return;
            if (::mkfifo(path.c_str(), 0644) != 0) qFatal("cannot make a pipe");
            m_hasSpecial = true;
            return;
        default:
            writeFile(path, std::string(below(5000), char('a' + below(26))));
            break;
        }
        m_files.push_back(path);
        decorate(path);
    }

    std::string anyTarget()
    {
        const std::array<std::string, 10> targets = {".",
                                                     "..",
                                                     "../../..",
                                                     "/",
                                                     "/etc/passwd",
                                                     "nowhere",
                                                     m_decoys,
                                                     m_decoys + "/file",
                                                     std::string(PATH_MAX - 1, 'l'),
                                                     anyOf(hostileNames())};
        return anyOf(targets);
    }

    void makeSparse(const std::string& path)
    {
        writeFile(path, below(2) ? "begin" : "");
        const off_t size = off_t(below(64) << 20U) + off_t(below(5000));
        if (::truncate(path.c_str(), size) != 0) qFatal("cannot make a hole");
        if (below(2)) appendToFile(path, "end");
    }

    void decorate(const std::string& path)
    {
        static constexpr std::array<mode_t, 6> modes = {0644, 0755, 0600, 0700, 0777, 01777};
        // Into a folder that is being filled its owner must get.
        const mode_t needed = ::access((path + "/.").c_str(), F_OK) == 0 ? 0700 : 0;
        if (::chmod(path.c_str(), anyOf(modes) | needed) != 0) qFatal("cannot change the mode");
        const time_t time = anyOf(std::array<time_t, 4>{0, 1, 1'000'000'000, 4'000'000'000});
        const std::array<timespec, 2> times = {timespec{time, 1}, timespec{time, 999'999'999}};
        if (::utimensat(AT_FDCWD, path.c_str(), times.data(), 0) != 0) qFatal("cannot change the time");
    }

    std::mt19937& m_random;
    const std::string m_decoys;
    std::vector<std::string> m_folders;
    std::vector<std::string> m_files;
    bool m_hasSpecial = false;
};

} // namespace

/// Names and trees that were made to do harm. They arrive exactly as they were, or stay exactly as they were
/// and a line says why; and nothing outside of them is touched.
class TestHostileEntries : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void namesAreMovedExactly_data();
    void namesAreMovedExactly();
    void namesPassThroughTheEngine_data() { addRowsOfVolumes(); }
    void namesPassThroughTheEngine();
    void randomTrees_data() { addRowsOfVolumes(); }
    void randomTrees();
    void whatCannotBeCopiedIsRefusedWithALine_data();
    void whatCannotBeCopiedIsRefusedWithALine();
    void treesDeeperThanAPathCanSay_data() { addRowsOfVolumes(); }
    void treesDeeperThanAPathCanSay();
    void hugeSparseFiles_data() { addRowsOfVolumes(); }
    void hugeSparseFiles();
};

void TestHostileEntries::namesAreMovedExactly_data()
{
    QTest::addColumn<QByteArray>("kind");
    QTest::addColumn<bool>("acrossVolumes");
    for (const char* kind : {"file", "folder", "link"}) {
        for (const bool acrossVolumes : {false, true})
            QTest::addRow("%s, %s", kind, acrossVolumes ? "across volumes" : "same volume")
                << QByteArray(kind) << acrossVolumes;
    }
}

void TestHostileEntries::namesAreMovedExactly()
{
    QFETCH(const QByteArray, kind);
    QFETCH(const bool, acrossVolumes);
    const Places places(acrossVolumes);
    FileMove fileMove;
    for (const std::string& name : hostileNames()) {
        const std::string source = places.in + '/' + name;
        makeEntry(kind, source, name);
        const QByteArray before = pictureOf(source);
        const std::string target = uniqueDestination(source, places.out);
        QCOMPARE(target, places.out + '/' + name);
        QVERIFY2(fileMove.moveItem(source, target), name.c_str());
        QVERIFY2(!exists(source) && pictureOf(target) == before, name.c_str());

        // Another of the same name gets a number, for which there may be no room.
        makeEntry(kind, source, name);
        const QByteArray again = pictureOf(source);
        const std::string numbered = uniqueDestination(source, places.out);
        const Outcome<void> moved = fileMove.moveItem(source, numbered);
        if (moved) {
            QVERIFY2(!exists(source) && pictureOf(numbered) == again, name.c_str());
        } else {
            QVERIFY2(name.size() > 253 && moved.error().code == ENAMETOOLONG, name.c_str());
            QVERIFY2(pictureOf(source) == again, name.c_str());
        }
        QVERIFY2(pictureOf(target) == before, name.c_str());
    }
    reportRuns(hostileNames().size() * 2);
}

void TestHostileEntries::namesPassThroughTheEngine()
{
    QFETCH(const bool, acrossVolumes);
    const EngineOutput output;
    const Places places(acrossVolumes);
    const std::string prepared = places.here.makeFolder("prepared");
    QStringList lines;
    DownloadImageRedirector engine;
    connect(&engine, &DownloadImageRedirector::logsChanged, this, [&] { lines << engine.logs().first(); });
    QVERIFY(startAndWait(engine, {watched(places.in, {takeAll(places.out)})}));
    lines.clear();
    const auto count = qsizetype(hostileNames().size());
    for (const std::string& name : hostileNames()) {
        writeFile(prepared + "/next", name);
        renameEntry(prepared + "/next", places.in + '/' + name);
    }
    QTRY_COMPARE_WITH_TIMEOUT(lines.size(), count, patience);
    QVERIFY(namesIn(places.in).isEmpty());
    for (const std::string& name : hostileNames())
        QCOMPARE(contents(places.out + '/' + name).toStdString(), name);
    for (const QString& line : lines)
        QVERIFY2(isHarmless(line) && line.contains(u"] Moved "), qPrintable(line));

    // For the names that have no room for a number the line names the reason.
    for (const std::string& name : hostileNames()) {
        writeFile(prepared + "/next", "again");
        renameEntry(prepared + "/next", places.in + '/' + name);
    }
    QTRY_COMPARE_WITH_TIMEOUT(lines.size(), 2 * count, patience);
    const qsizetype refused = namesIn(places.in).size();
    QVERIFY(refused > 0);
    QCOMPARE(lines.filter(QStringLiteral(": File name too long")).size(), refused);
    QCOMPARE(namesIn(places.out).size(), 2 * count - refused);
    for (const std::string& name : hostileNames())
        QCOMPARE(contents(places.out + '/' + name).toStdString(), name);
    QVERIFY(std::ranges::all_of(lines, isHarmless));
    for (const QByteArray& line : output.lines())
        QVERIFY2(isHarmless(QString::fromUtf8(line)), line.constData());
    reportRuns(size_t(2 * count));
}

void TestHostileEntries::randomTrees()
{
    QFETCH(const bool, acrossVolumes);
    const size_t count = stressSize(size_t(25), size_t(3000));
    std::mt19937 random = seededRandom();
    const ScratchFolder scratch;
    const std::string decoys = scratch.makeFolder("decoys");
    writeFile(decoys + "/file", "a decoy");
    writeFile(decoys + "/linked", "a decoy with many names");
    for (size_t i = 0; i < count; ++i) {
        const Places places(acrossVolumes);
        const QByteArray decoysBefore = pictureOf(decoys);
        const std::string source = places.in + "/tree";
        RandomTree tree(random, decoys);
        tree.make(source);
        const QByteArray before = pictureOf(source);
        const Outcome<void> moved = FileMove().moveItem(source, places.out + "/tree");
        const std::string where = "tree " + std::to_string(i);
        if (moved) {
            QVERIFY2(pictureOf(places.out + "/tree") == before, where.c_str());
            QVERIFY2(!exists(source), where.c_str());
        } else {
            QVERIFY2(acrossVolumes && tree.hasSpecial() && moved.error().code == EOPNOTSUPP, where.c_str());
            QVERIFY2(pictureOf(source) == before, where.c_str());
            QVERIFY2(namesIn(places.out).isEmpty(), where.c_str());
        }
        QVERIFY2(pictureOf(decoys) == decoysBefore, where.c_str());
        QVERIFY2(!acrossVolumes || bool(moved) != tree.hasSpecial(), where.c_str());
    }
    reportRuns(count);
}

void TestHostileEntries::whatCannotBeCopiedIsRefusedWithALine_data()
{
    QTest::addColumn<QByteArray>("inside");
    QTest::addColumn<QString>("reason");
    QTest::newRow("pipe") << QByteArray("pipe") << QStringLiteral("Operation not supported");
    QTest::newRow("too deep") << QByteArray("depth") << QStringLiteral("Too many open files");
}

void TestHostileEntries::whatCannotBeCopiedIsRefusedWithALine()
{
    QFETCH(const QByteArray, inside);
    QFETCH(const QString, reason);
    const EngineOutput output;
    const Places places(true);
    const std::string prepared = places.here.makeFolder("prepared");
    writeFile(prepared + "/file", "content");
    if (inside == "pipe") QCOMPARE(::mkfifo((prepared + "/pipe").c_str(), 0644), 0);
    std::string path = prepared;
    for (size_t depth = 0; inside == "depth" && depth < 500; ++depth) {
        path += "/d";
        makeFolder(path);
    }
    const QByteArray before = pictureOf(prepared);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(places.in, {takeAll(places.out)})}));
    renameEntry(prepared, places.in + "/entry");
    QTRY_COMPARE_WITH_TIMEOUT(lastMessage(engine), QStringLiteral("Move failed for entry: ") + reason,
                              patience);
    QCOMPARE(pictureOf(places.in + "/entry"), before);
    QCOMPARE(namesIn(places.out), QByteArrayList());
}

void TestHostileEntries::treesDeeperThanAPathCanSay()
{
    QFETCH(const bool, acrossVolumes);
    const Places places(acrossVolumes);
    Abyss::make(places.in + "/abyss");
    QVERIFY(FileMove().moveItem(places.in + "/abyss", places.out + "/abyss"));
    QVERIFY(Abyss::isWhole(places.out + "/abyss"));
    QVERIFY(!exists(places.in + "/abyss"));
}

void TestHostileEntries::hugeSparseFiles()
{
    QFETCH(const bool, acrossVolumes);
    const Places places(acrossVolumes);
    const std::string source = places.in + "/huge";
    const std::string target = places.out + "/huge";
    writeFile(source, "begin");
    const off_t size = off_t(1) << 42;
    QCOMPARE(::truncate(source.c_str(), size), 0);
    {
        const FileDescriptor file(::open(source.c_str(), O_WRONLY | O_CLOEXEC));
        for (off_t at = 1; at < 100; ++at)
            QCOMPARE(::pwrite(file.get(), "data", 4, at * (size / 100)), ssize_t(4));
    }
    QVERIFY(FileMove().moveItem(source, target));
    QVERIFY(!exists(source));
    struct stat data;
    QCOMPARE(::stat(target.c_str(), &data), 0);
    QCOMPARE(data.st_size, size);
    QVERIFY(data.st_blocks * 512 < 100 << 20);
    const FileDescriptor file(::open(target.c_str(), O_RDONLY | O_CLOEXEC));
    const auto pieceAt = [&file](off_t at) {
        QByteArray piece(5, '?');
        piece.resize(::pread(file.get(), piece.data(), size_t(piece.size()), at));
        return piece;
    };
    QCOMPARE(pieceAt(0), QByteArray("begin"));
    for (off_t at = 1; at < 100; ++at) {
        QCOMPARE(pieceAt(at * (size / 100)), QByteArray("data\0", 5));
        QCOMPARE(pieceAt(at * (size / 100) - size / 200), QByteArray(5, '\0'));
    }
}

HARBEX_ENGINE_TEST_MAIN(TestHostileEntries)

#include "tst_HostileEntries.moc"
