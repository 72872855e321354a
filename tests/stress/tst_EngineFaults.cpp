#include "fs/FileMove.h"
#include "support/CapturedOutput.h"
#include "support/EngineProbe.h"
#include "support/Stress.h"
#include "support/SyscallInterceptor.h"
#include "support/TestMain.h"

#include <array>
#include <cerrno>
#include <map>
#include <memory>
#include <unistd.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// Calls fail between the accesses to these paths.
const char* const beginMark = "/begin of the faults";
const char* const endMark = "/end of the faults";
/// The interceptor pretends that this path exists as soon as the engine has looked at the first entry so
/// often that it knows whether the entry is a placeholder.
const char* const isJudged = "/is the first judged";
constexpr int looksOfAJudge = 6;

/// All calls except read and write, which also wake the main loop and the event reader.
/// tst_FileMoveFaults.cpp lets them fail.
std::vector<std::string> interceptedCalls()
{
    std::vector<std::string> names = fileSystemCalls();
    std::erase(names, "read");
    std::erase(names, "write");
    return names;
}

/// One run of an engine in a child process, in which one system call fails. Two entries arrive, one after the
/// other. The first one of kind "download" is an empty file, until the partial download beside it takes its
/// name. The first one of kind "return" arrives in another folder, which has replaced the watched one.
class Life
{
    const ScratchFolder m_here;
    const ScratchFolder m_there;

public:
    const std::string inbox = m_here.makeFolder("inbox");
    const std::string out = m_there.makeFolder("out");

    /// Call number `failing`, from 0, fails with `error`.
    Life(std::string kind, bool acrossVolumes, size_t failing, int error)
        : m_there(acrossVolumes ? folderOnAnotherVolume() : std::string()), m_kind(std::move(kind)),
          m_failing(failing), m_error(error)
    {
    }

    [[nodiscard]] InterceptedWork work()
    {
        return {[this] { return run(); }, [this](const InterceptedCall& call) { return answer(call); }};
    }

    /// Returns the call that failed. Empty if there were not enough calls.
    [[nodiscard]] const std::string& where() const { return m_where; }
    /// Returns the log at the end of the run.
    [[nodiscard]] QStringList messages() const { return QString::fromUtf8(contents(m_log)).split(u'\n'); }

    /// Returns whether the entry that was there before the start has stayed.
    [[nodiscard]] bool isOldLeftAlone() const
    {
        return contents(inbox + "/old") == "old" && !exists(out + "/old");
    }
    [[nodiscard]] bool isIn(const std::string& folder, const char* name) const
    {
        return contents(folder + '/' + name) == "content";
    }
    /// Returns whether the destination contains only the two entries, after another move has removed
    /// leftovers.
    [[nodiscard]] bool leavesNothingBehind() const
    {
        const std::string next = m_there.path() + "/next";
        writeFile(next, "next");
        if (!FileMove().moveItem(next, out + "/next")) return false;
        QByteArrayList names = namesIn(out);
        names.removeIf([](const QByteArray& name) { return name == "first" || name == "second"; });
        return names == QByteArrayList{"next"};
    }

private:
    Answer answer(const InterceptedCall& call)
    {
        // Only the test makes these calls here.
        if (call.name == "access" && call.text(0) == isJudged)
            return m_looks >= looksOfAJudge ? Answer::give(0) : Answer::proceed();
        if (call.name == "access") m_mayFail = call.text(0) == beginMark;
        if (call.name == "access" || call.name == "rename" || !m_mayFail) return Answer::proceed();
        const bool isLook =
            (call.name == "statx" || call.name == "newfstatat") && call.text(1) == inbox + "/first";
        m_looks += isLook;
        ++m_counts[call.name];
        if (m_seen++ != m_failing) return Answer::proceed();
        m_where = call.name + " #" + std::to_string(m_counts[call.name]);
        if (isLook) m_where += " at the first";
        if (m_looks == 0) m_where += " before the first is seen";
        return Answer::fail(m_error);
    }

    /// Runs in the child process.
    [[nodiscard]] Outcome<void> run() const
    {
        for (const std::string& folder : {inbox, m_here.makeFolder("spare")})
            writeFile(folder + "/old", "old");
        DownloadImageRedirector engine;
        const bool isDone = startAndWait(engine, {watched(inbox, {takeAll(out)})}) && bothArrive(engine);
        writeFile(m_log, test::messages(engine).join(u'\n').toStdString());
        return isDone ? Outcome<void>() : SystemError{ETIME};
    }

    /// Returns whether the second entry was moved.
    [[nodiscard]] bool bothArrive(const DownloadImageRedirector& engine) const
    {
        makeEntry("first");
        makeEntry("second");
        const auto isLogged = [&engine](const char* start) {
            return !test::messages(engine).filter(QString::fromUtf8(start)).isEmpty();
        };
        mark(beginMark);
        if (m_kind == "return") replaceInbox(engine, "/gone", "/spare");
        letArrive("first");
        if (m_kind == "download") {
            letArrive("first.part");
            (void)QTest::qWaitFor(
                [&] { return ::access(isJudged, F_OK) == 0 || isLogged("Skipped busy file: first"); }, 2500);
            renameEntry(inbox + "/first.part", inbox + "/first");
        }
        // The fault can hide the first entry from the engine. Then the next arrival shows it, if the folder
        // is watched.
        const auto waitForTheFirst = [&] {
            const auto isDecided = [&] {
                return isLogged("Moved first") || isLogged("Move failed for first") ||
                       isLogged("Skipped busy file: first") || engine.activeFDs().empty();
            };
            (void)QTest::qWaitFor(isDecided, 2500);
        };
        waitForTheFirst();
        mark(endMark);
        if (m_kind == "return") replaceInbox(engine, "/away", "/away");
        letArrive("second");
        const bool isSecondMoved =
            QTest::qWaitFor([&] { return isLogged("Moved second -> second"); }, patience);
        waitForTheFirst();
        return isSecondMoved;
    }

    /// Tells the interceptor where the child process is.
    static void mark(const char* mark)
    {
        if (::access(mark, F_OK) == 0) qFatal("%s exists", mark);
    }

    /// A fault may keep the folder from being noticed or watched.
    void replaceInbox(const DownloadImageRedirector& engine, const char* leavesTo,
                      const char* comesFrom) const
    {
        renameEntry(inbox, m_here.path() + leavesTo);
        (void)QTest::qWaitFor([&] { return engine.activeFDs().empty(); }, 2500);
        renameEntry(m_here.path() + comesFrom, inbox);
        (void)QTest::qWaitFor([&] { return !engine.activeFDs().empty(); }, 2500);
    }

    void makeEntry(const std::string& name) const
    {
        const std::string path = m_here.path() + '/' + name;
        if (m_kind == "download" && name == "first") {
            writeFile(path, {});
            writeFile(path + ".part", "content");
        } else {
            writeFile(path, "content");
        }
    }

    void letArrive(const std::string& name) const
    {
        renameEntry(m_here.path() + '/' + name, inbox + '/' + name);
    }

    const std::string m_kind;
    const size_t m_failing;
    const int m_error;
    const std::string m_log = m_here.path() + "/log";
    bool m_mayFail = false;
    size_t m_seen = 0;
    int m_looks = 0;
    std::map<std::string, int> m_counts;
    std::string m_where;
};

} // namespace

/// The whole engine, with one failing system call. No entry is lost, the log names the reason, and the next
/// entry is moved.
class TestEngineFaults : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void everyCallFails_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<bool>("acrossVolumes");
        QTest::addColumn<int>("error");
        static constexpr std::array errors = {EIO, ENOSPC, EDQUOT, EACCES, EINTR, EMFILE, EROFS};
        const bool isFull = stressSize(false, true);
        for (const int error : errors) {
            for (const char* kind : {"file", "download", "return"}) {
                for (const bool acrossVolumes : {false, true}) {
                    const bool isBrief = error == EIO && acrossVolumes == (QByteArrayView(kind) == "file");
                    if (!isFull && !isBrief) continue;
                    QTest::addRow("%s, %s, %s", kind, acrossVolumes ? "across volumes" : "same volume",
                                  strerrorname_np(error))
                        << QString::fromUtf8(kind) << acrossVolumes << error;
                }
            }
        }
    }

    void everyCallFails()
    {
        QFETCH(const QString, kind);
        QFETCH(const bool, acrossVolumes);
        QFETCH(const int, error);
        const CapturedOutput output;
        const QString reason = QString::fromStdString(SystemError{error}.description());
        const size_t step = stressSize(size_t(kind == u"file" ? 1 : 3), size_t(1));
        // An engine mostly waits, so many can run at the same time.
        constexpr size_t livesAtOnce = 20;
        size_t failures = 0;
        size_t named = 0;
        size_t skipped = 0;
        QByteArrayList silent;
        for (bool isEnd = false; !isEnd;) {
            std::vector<std::unique_ptr<Life>> lives;
            std::vector<InterceptedWork> works;
            for (size_t i = 0; i < livesAtOnce; ++i) {
                lives.push_back(
                    std::make_unique<Life>(kind.toStdString(), acrossVolumes, (failures + i) * step, error));
                works.push_back(lives.back()->work());
            }
            const std::vector<InterceptedRun> runs = runIntercepted(interceptedCalls(), works);
            for (size_t i = 0; i < livesAtOnce; ++i) {
                const Life& life = *lives[i];
                // The number of the last calls depends on how busy the processors are.
                if (life.where().empty()) {
                    QVERIFY(life.isIn(life.out, "first"));
                    isEnd = true;
                    continue;
                }
                ++failures;
                const QString told = life.messages().join(u'|');
                const QByteArray what = QByteArray::fromStdString(life.where()) + ": " + told.toUtf8();
                QVERIFY2(runs[i].succeeded(), what.constData());
                QVERIFY2(life.isOldLeftAlone(), what.constData());
                QVERIFY2(life.isIn(life.out, "second"), what.constData());
                const bool isThere = life.isIn(life.out, "first");
                QVERIFY2(isThere != life.isIn(life.inbox, "first"), what.constData());
                QVERIFY2(life.leavesNothingBehind(), what.constData());
                if (life.messages().contains(QStringLiteral("Moved first -> first"))) {
                    QVERIFY2(isThere && !exists(life.inbox + "/first"), what.constData());
                    continue;
                }
                if (told.contains(QStringLiteral("Move failed for first: ") + reason))
                    ++named;
                else if (told.contains(QStringLiteral("Skipped busy file: first")) &&
                         (life.where().starts_with("newfstatat ") || life.where().starts_with("statx ")))
                    ++skipped;
                else
                    silent << what;
            }
        }
        qInfo("%zu calls, the reason named for %zu, skipped for %zu", failures, named, skipped);
        // An arrival that cannot be looked at counts as gone. The content of a folder that comes back is
        // known.
        for (const QByteArray& what : silent)
            QVERIFY2((what.startsWith("newfstatat #") && what.contains(" at the first:")) ||
                         (kind == u"return" && what.contains(" before the first is seen:")),
                     what.constData());
        QVERIFY(named > 0 || step > 1);
        reportRuns(failures);
    }
};

HARBEX_TEST(TestEngineFaults)

#include "tst_EngineFaults.moc"
