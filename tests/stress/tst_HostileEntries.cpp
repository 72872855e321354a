#include "support/CapturedOutput.h"
#include "support/EngineProbe.h"
#include "support/MovePlaces.h"
#include "support/RandomSeed.h"
#include "support/Stress.h"
#include "support/TestMain.h"
#include "support/TreeSnapshot.h"

#include <algorithm>
#include <array>
#include <climits>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// Names that other programs handle badly. A move treats all names alike.
const std::vector<std::string>& hostileNames()
{
    static const std::vector<std::string> names = [] {
        std::vector<std::string> all = {
            // options, patterns, variables and commands of a shell
            "-", "--", "-rf", "--help", "~", "*", "?", "[a-z]", "$HOME", "$(reboot)", "`reboot`", "a;b",
            "a&b", "a|b", ">a", "'", "\"", "\\", "\\n", "!!", "#",
            // paths and addresses of other systems
            "file:etc", "http:example.org?a=b#c", "%2e%2e%2fetc", "%00", "C:\\autoexec.bat", "con", "nul.txt",
            "..\\..", "a:stream",
            // dots and blanks
            "...", "....", ". ", " ", " .", ".a", "a.", "a..", ".a.", "..a", "\t", "a b ", "\u00a0", "\u200b",
            // lines and terminals
            "\n", "\r", "a\nMoved b -> c", "a\n[00:00:00] Started watchers.", "\x1b[2J\x1b[31m",
            "\x1b]0;title\a", "\x7f", "\u0085", "\u009b1m", "\u2028", "\u2029",
            // the direction of writing
            "\u202egpj.exe", "\u2066a\u2069", "\u200fabc", "\u061c.txt",
            // invalid or unusual UTF-8
            "\xff", "\xfe\xff", "\xc0\xaf", "\xc0\x80", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xe2\x82",
            "\x80.jpg", "\xef\xbb\xbfmark", "\xef\xbf\xbe", "\xef\xbf\xbd", "caf\xc3\xa9", "cafe\xcc\x81",
            // the longest names
            std::string(255, 'x'), std::string(251, 'x') + ".jpg", std::string(254, '.') + 'x',
            'x' + std::string(253, '.') + 'x', QByteArray("\xe2\x82\xac").repeated(85).toStdString(),
            std::string(255, '\xff'), std::string(255, '\n'), '.' + std::string(254, 'x'),
            // names like those of a move itself
            ".harbex-", ".harbex-0123456789abcdef0123456789abcdef", "harbex.json", "entry"};
        for (char control = 1; control < 32; ++control)
            all.push_back(std::string("control") + control);
        std::string everyByte;
        for (int byte = 1; byte < 256; ++byte)
            if (byte != '/') everyByte += char(byte);
        all.push_back(everyByte);
        return all;
    }();
    return names;
}

/// Returns whether a line is displayed as one line, in the order of its characters.
bool isHarmless(const QString& line)
{
    return std::ranges::none_of(line, [](QChar c) {
        const auto category = c.category();
        const bool isBidirectional = (c >= u'\u202a' && c <= u'\u202e') ||
                                     (c >= u'\u2066' && c <= u'\u2069') || c == u'\u200e' || c == u'\u200f' ||
                                     c == u'\u061c';
        return category == QChar::Other_Control || category == QChar::Separator_Line ||
               category == QChar::Separator_Paragraph || isBidirectional;
    });
}

/// Makes a random tree.
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
        // Last, because each new entry changes the times of its folder.
        for (const std::string& folder : m_folders)
            decorate(folder);
    }

    /// Returns whether it contains a pipe, which cannot be copied.
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
        const size_t kind = below(12);
        if (kind < 3) {
            makeFolder(path);
            m_folders.push_back(path);
        } else if (kind < 5) {
            makeLink(path, anyTarget());
        } else if (kind == 5) {
            // A hard link to a file outside the tree.
            linkFile(m_decoys + "/linked", path);
        } else if (kind == 6) {
            if (!m_files.empty()) linkFile(anyOf(m_files), path);
        } else if (kind == 7) {
            if (below(20) != 0) return;
            if (::mkfifo(path.c_str(), 0644) != 0) qFatal("cannot make a pipe");
            m_hasSpecial = true;
        } else {
            if (kind == 8)
                makeSparse(path);
            else
                writeFile(path, std::string(below(5000), char('a' + below(26))));
            m_files.push_back(path);
            decorate(path);
        }
    }

    std::string anyTarget()
    {
        std::vector<std::string> targets = {".", "..", "../../..", "/", "/etc/passwd", "nowhere"};
        targets.insert(targets.end(),
                       {m_decoys, m_decoys + "/file", std::string(PATH_MAX - 1, 'l'), anyOf(hostileNames())});
        return anyOf(targets);
    }

    void makeSparse(const std::string& path)
    {
        writeFile(path, below(2) ? "begin" : "");
        const off_t size = off_t(below(64) << 20U) + off_t(below(5000));
        resizeFile(path, size);
        if (below(2)) appendToFile(path, "end");
    }

    void decorate(const std::string& path)
    {
        static constexpr std::array<mode_t, 6> modes = {0644, 0755, 0600, 0700, 0777, 01777};
        // The owner needs access to a folder.
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

/// Names and trees that are made to do harm. They arrive unchanged, or stay unchanged and a log line says
/// why. Nothing outside of them changes.
class TestHostileEntries : public QObject, private MovePlaces
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase_data()
    {
        QTest::addColumn<bool>("acrossVolumes");
        QTest::newRow("same volume") << false;
        QTest::newRow("across volumes") << true;
    }

    void init()
    {
        QFETCH_GLOBAL(const bool, acrossVolumes);
        makePlaces(acrossVolumes ? folderOnAnotherVolume() : std::string());
    }

    void namesPassThroughTheEngine()
    {
        const CapturedOutput output;
        const std::string prepared = here() + "/prepared";
        QStringList lines;
        DownloadImageRedirector engine;
        connect(&engine, &DownloadImageRedirector::logsChanged, this,
                [&] { lines << engine.logs().first(); });
        QVERIFY(startAndWait(engine, {watched(in, {takeAll(out)})}));
        lines.clear();
        const auto count = qsizetype(hostileNames().size());
        for (const bool isSecond : {false, true}) {
            const qsizetype before = lines.size();
            for (const std::string& name : hostileNames()) {
                writeFile(prepared, isSecond ? "again" : name);
                renameEntry(prepared, in + '/' + name);
            }
            QTRY_COMPARE_WITH_TIMEOUT(lines.size(), before + count, patience);
            for (const std::string& name : hostileNames())
                QCOMPARE(contents(out + '/' + name).toStdString(), name);
            // A name that is too long with a number is not moved, and the log names the reason.
            const qsizetype refused = namesIn(in).size();
            QCOMPARE(refused > 0, isSecond);
            QCOMPARE(lines.filter(QStringLiteral(": File name too long")).size(), refused);
            QCOMPARE(lines.filter(QStringLiteral("] Moved ")).size(), lines.size() - refused);
            QCOMPARE(namesIn(out).size(), lines.size() - refused);
        }
        QVERIFY(std::ranges::all_of(lines, isHarmless));
        for (const QByteArray& line : output.lines())
            QVERIFY2(isHarmless(QString::fromUtf8(line)), line.constData());
        reportRuns(size_t(2 * count));
    }

    void randomTrees()
    {
        QFETCH_GLOBAL(const bool, acrossVolumes);
        const size_t count = stressSize(size_t(25), size_t(3000));
        std::mt19937 random = seededRandom();
        const ScratchFolder scratch;
        const std::string decoys = scratch.makeFolder("decoys");
        writeFile(decoys + "/file", "a decoy");
        writeFile(decoys + "/linked", "a decoy with many names");
        for (size_t i = 0; i < count; ++i) {
            clearPlaces();
            const QByteArray decoysBefore = snapshotOf(decoys);
            RandomTree tree(random, decoys);
            tree.make(source);
            remember();
            const bool isRefused = acrossVolumes && tree.hasSpecial();
            const QByteArray where = "tree " + QByteArray::number(qint64(i)) + ": ";
            QCOMPARE(where + result(errorOfMove(source, target)),
                     where + (isRefused ? kept(EOPNOTSUPP) : moved()));
            QVERIFY2(snapshotOf(decoys) == decoysBefore, where.constData());
        }
        reportRuns(count);
    }
};

HARBEX_TEST(TestHostileEntries)

#include "tst_HostileEntries.moc"
