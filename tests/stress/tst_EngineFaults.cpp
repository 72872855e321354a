#include "fs/FileMove.h"
#include "support/EngineOutput.h"
#include "support/EngineProbe.h"
#include "support/Stress.h"
#include "support/SyscallInterceptor.h"

#include <array>
#include <cerrno>
#include <filesystem>
#include <map>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// Between the calls with these paths something may fail.
const char* const beginMark = "/begin of the faults";
const char* const endMark = "/end of the faults";
/// A question to the keeper: whether the engine has looked at the first entry as often as it takes to tell a
/// placeholder.
const char* const isJudged = "/is the first judged";
constexpr int looksOfAJudge = 6;

/// The calls by which the engine learns of entries, judges and moves them. Reading and writing is left to the
/// moves of single files; here it is also how the main loop and the reader of events are woken.
const std::vector<std::string>& interceptedCalls()
{
    static const std::vector<std::string> names = [] {
        std::vector<std::string> all = fileSystemCalls();
        std::erase(all, "read");
        std::erase(all, "write");
        return all;
    }();
    return names;
}

/// What the process behind the gate tells: lines in memory that outlives it.
class Notes
{
public:
    void add(const QString& line) const
    {
        const QByteArray bytes = line.toUtf8() + '\n';
        if (::write(m_file.get(), bytes.constData(), size_t(bytes.size())) != bytes.size()) ::_exit(3);
    }

    [[nodiscard]] QStringList lines() const
    {
        struct stat data;
        if (::fstat(m_file.get(), &data) != 0) qFatal("the notes are lost");
        QByteArray text(data.st_size, '\0');
        text.resize(::pread(m_file.get(), text.data(), size_t(text.size()), 0));
        return QString::fromUtf8(text).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    }

private:
    FileDescriptor m_file{::memfd_create("notes", MFD_CLOEXEC)};
};

/// One life of an engine, in which two entries arrive, one after the other. The first of kind "download" is
/// an empty file until the partial download beside it takes its name; that of kind "return" arrives in
/// another folder, which has taken the place of the watched one.
class Life
{
public:
    Life(const std::string& kind, bool acrossVolumes)
        : m_kind(kind), m_there(acrossVolumes ? folderOnAnotherVolume() : std::string()),
          m_inbox(m_here.makeFolder("inbox")), m_out(m_there.makeFolder("out"))
    {
    }

    [[nodiscard]] InterceptedRun live(const Interceptor& keeper) const
    {
        return runIntercepted(interceptedCalls(), [this] { return work(); }, keeper);
    }

    [[nodiscard]] QStringList messages() const { return m_notes.lines(); }

    /// What was there before the start stays, even if a listing fails.
    [[nodiscard]] bool isOldLeftAlone() const
    {
        return contents(m_inbox + "/old") == "old" && !exists(m_out + "/old");
    }
    [[nodiscard]] bool isIn(const std::string& folder, const char* name) const
    {
        return isWhole(folder + '/' + name);
    }
    /// Nothing but the two is in the destination, at the latest after the next start has moved something
    /// there.
    [[nodiscard]] bool leavesNothingBehind() const
    {
        const std::string next = m_there.path() + "/next";
        writeFile(next, "next");
        if (!FileMove().moveItem(next, m_out + "/next")) return false;
        QByteArrayList names = namesIn(m_out);
        names.removeIf([](const QByteArray& name) { return name == "first" || name == "second"; });
        return names == QByteArrayList{"next"};
    }
    [[nodiscard]] const std::string& inbox() const { return m_inbox; }
    [[nodiscard]] const std::string& out() const { return m_out; }

private:
    /// In the process behind the gate.
    Outcome<void> work() const
    {
        for (const std::string& inbox : {m_inbox, m_here.makeFolder("spare")})
            writeFile(inbox + "/old", "old");
        DownloadImageRedirector engine;
        QObject context;
        QObject::connect(&engine, &DownloadImageRedirector::logsChanged, &context,
                         [&] { m_notes.add(lastMessage(engine)); });
        if (!startAndWait(engine, {watched(m_inbox, {takeAll(m_out)})})) return SystemError{ETIME};
        makeEntry("first");
        makeEntry("second");
        const auto isTold = [&engine](const char* start) {
            return !test::messages(engine).filter(QString::fromUtf8(start)).isEmpty();
        };
        tellTheKeeper(beginMark);
        if (m_kind == "return") replaceInbox(engine, "/gone", "/spare");
        letArrive("first");
        if (m_kind == "download") {
            letArrive("first.part");
            (void)QTest::qWaitFor(
                [&] { return ::access(isJudged, F_OK) == 0 || isTold("Skipped busy file: first"); }, 2500);
            renameEntry(m_inbox + "/first.part", m_inbox + "/first");
        }
        // Its end, unless it is not even noticed: then the next arrival leads to it, if its folder is
        // watched.
        const auto waitForTheFirst = [&] {
            (void)QTest::qWaitFor(
                [&] {
                    return isTold("Moved first") || isTold("Move failed for first") ||
                           isTold("Skipped busy file: first") || engine.activeFDs().empty();
                },
                2500);
        };
        waitForTheFirst();
        tellTheKeeper(endMark);
        if (m_kind == "return") replaceInbox(engine, "/away", "/away");
        letArrive("second");
        if (!QTest::qWaitFor([&] { return isTold("Moved second -> second"); }, patience))
            return SystemError{ETIME};
        waitForTheFirst();
        return {};
    }

    /// By a call that fails and that nobody else makes.
    static void tellTheKeeper(const char* mark)
    {
        if (::access(mark, F_OK) == 0) qFatal("%s exists", mark);
    }

    /// A fault may keep the folder from being noticed or watched.
    void replaceInbox(const DownloadImageRedirector& engine, const char* leavesTo,
                      const char* comesFrom) const
    {
        renameEntry(m_inbox, m_here.path() + leavesTo);
        (void)QTest::qWaitFor([&] { return engine.activeFDs().empty(); }, 2500);
        renameEntry(m_here.path() + comesFrom, m_inbox);
        (void)QTest::qWaitFor([&] { return !engine.activeFDs().empty(); }, 2500);
    }

    void makeEntry(const std::string& name) const
    {
        const std::string path = m_here.path() + '/' + name;
        if (m_kind == "download" && name == "first") {
            writeFile(path, {});
            writeFile(path + ".part", "content");
        } else if (isFile()) {
            writeFile(path, "content");
        }
        // One that leads nowhere counts as gone.
        if (m_kind == "link") makeLink(path, m_inbox + "/old");
        if (m_kind == "folder") {
            makeFolder(path);
            writeFile(path + "/file", "content");
        }
    }

    void letArrive(const std::string& name) const
    {
        renameEntry(m_here.path() + '/' + name, m_inbox + '/' + name);
    }

    [[nodiscard]] bool isWhole(const std::string& path) const
    {
        if (m_kind == "link")
            return std::filesystem::is_symlink(path) &&
                   std::filesystem::read_symlink(path) == m_inbox + "/old";
        return contents(isFile() ? path : path + "/file") == "content";
    }

    [[nodiscard]] bool isFile() const { return m_kind != "link" && m_kind != "folder"; }

    const std::string m_kind;
    const ScratchFolder m_here;
    const ScratchFolder m_there;
    const std::string m_inbox;
    const std::string m_out;
    const Notes m_notes;
};

} // namespace

/// The whole engine, with one failing call in its life. Nothing is lost, the log names the reason, and the
/// next entry is moved.
class TestEngineFaults : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void everyCallFails_data();
    void everyCallFails();
};

void TestEngineFaults::everyCallFails_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<bool>("acrossVolumes");
    QTest::addColumn<int>("error");
    static constexpr std::array errors = {EIO, ENOSPC, EDQUOT, EACCES, EINTR, EMFILE, EROFS};
    const bool isFull = stressSize(false, true);
    for (const int error : errors) {
        for (const char* kind : {"file", "folder", "link", "download", "return"}) {
            for (const bool acrossVolumes : {false, true}) {
                const QByteArrayView name = kind;
                const bool isBrief =
                    error == EIO && (acrossVolumes ? name == "file" : name == "download" || name == "return");
                if (!isFull && !isBrief) continue;
                QTest::addRow("%s, %s, %s", kind, acrossVolumes ? "across volumes" : "same volume",
                              strerrorname_np(error))
                    << QString::fromUtf8(kind) << acrossVolumes << error;
            }
        }
    }
}

void TestEngineFaults::everyCallFails()
{
    QFETCH(const QString, kind);
    QFETCH(const bool, acrossVolumes);
    QFETCH(const int, error);
    const EngineOutput output;
    const QString reason = QString::fromStdString(SystemError{error}.description());
    const size_t step = stressSize(size_t(kind == u"file" ? 1 : 6), size_t(1));
    size_t failures = 0;
    size_t named = 0;
    size_t skipped = 0;
    QByteArrayList silent;
    for (;; failures += step) {
        const Life life(kind.toStdString(), acrossVolumes);
        bool mayFail = false;
        size_t seen = 0;
        std::string where;
        std::map<std::string, int> counts;
        int looks = 0;
        const InterceptedRun run = life.live([&](const InterceptedCall& call) {
            // Those of the test itself, and of nothing else here.
            if (call.name == "access" && call.text(0) == isJudged)
                return looks >= looksOfAJudge ? Answer::give(0) : Answer::proceed();
            if (call.name == "access") mayFail = call.text(0) == beginMark;
            if (call.name == "access" || call.name == "rename" || !mayFail) return Answer::proceed();
            const bool isLook = (call.name == "statx" || call.name == "newfstatat") &&
                                call.text(1) == life.inbox() + "/first";
            looks += isLook;
            ++counts[call.name];
            if (seen++ != failures) return Answer::proceed();
            where = call.name + " #" + std::to_string(counts[call.name]);
            if (isLook) where += " at the first";
            if (looks == 0) where += " before the first is seen";
            return Answer::fail(error);
        });
        // Its last calls come before or after the window closes, as the processors happen to be busy.
        if (where.empty()) {
            QVERIFY(life.isIn(life.out(), "first"));
            break;
        }
        const QString told = life.messages().join(u'|');
        const QByteArray what = QByteArray::fromStdString(where) + ": " + told.toUtf8();
        QVERIFY2(run.succeeded(), what.constData());
        QVERIFY2(life.isOldLeftAlone(), what.constData());
        QVERIFY2(life.isIn(life.out(), "second"), what.constData());
        const bool isThere = life.isIn(life.out(), "first");
        const bool isHere = life.isIn(life.inbox(), "first");
        QVERIFY2(isThere || isHere, what.constData());
        QVERIFY2(life.leavesNothingBehind(), what.constData());
        if (life.messages().contains(QStringLiteral("Moved first -> first"))) {
            QVERIFY2(isThere && !exists(life.inbox() + "/first"), what.constData());
            continue;
        }
        // Of a folder that was being removed when something failed, the whole copy stays.
        QVERIFY2(isHere != isThere || (kind == u"folder" && acrossVolumes), what.constData());
        if (told.contains(QStringLiteral("Move failed for first: ") + reason))
            ++named;
        else if (told.contains(QStringLiteral("Skipped busy file: first")) &&
                 (where.starts_with("newfstatat ") || where.starts_with("statx ")))
            ++skipped;
        else
            silent << what;
    }
    qInfo("%zu calls, the reason named for %zu, skipped for %zu", failures, named, skipped);
    // What cannot be looked at when it arrives counts as gone. What is in a folder that comes back is known.
    for (const QByteArray& what : silent)
        QVERIFY2((what.startsWith("newfstatat #") && what.contains(" at the first:")) ||
                     (kind == u"return" && what.contains(" before the first is seen:")),
                 what.constData());
    QVERIFY(named > 0 || step > 1);
    reportRuns(failures / step);
}

HARBEX_ENGINE_TEST_MAIN(TestEngineFaults)

#include "tst_EngineFaults.moc"
