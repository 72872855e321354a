#include "store/FolderStore.h"
#include "support/EngineFiles.h"
#include "support/Stress.h"
#include "support/SyscallInterceptor.h"
#include "support/TestMain.h"

#include <algorithm>
#include <array>
#include <filesystem>

using namespace harbex;
using namespace harbex::test;
namespace fs = std::filesystem;

namespace
{

FolderState stateWith(const std::string& path)
{
    // Fixed ids, so that the same state has the same bytes.
    FilterRule rule;
    rule.id = QUuid(QStringLiteral("{0f8e6c1a-2222-4222-8333-abcdefabcdef}"));
    rule.destination = FileUrl::fromPath("/somewhere/else");
    const QUuid id(QStringLiteral("{0f8e6c1a-1111-4222-8333-abcdefabcdef}"));
    return {{{id, FileUrl::fromPath(path), std::nullopt, {rule}}}, id};
}

const std::string brokenList = R"([{"id":1}])";

/// What is stored before a save.
const char* const situations[] = {"file",           "nothing",      "damaged file",
                                  "link to a link", "damaged list", "link"};

/// Stored preferences, and one save that a test can disturb.
class SaveRound
{
public:
    explicit SaveRound(const QByteArray& before) : m_elsewhere(m_scratch.makeFolder("elsewhere"))
    {
        // All rounds of the process have the same home.
        fs::remove_all(m_config);
        if (before == "nothing") return;

        FolderStore().saveState(stateWith("/old"));
        m_isUnderstood = before != "damaged list" && before != "damaged file";
        if (!m_isUnderstood) removeEntry(m_path);
        if (before == "damaged list") writeFile(m_path, "{\"savedWatchedFolders\":" + brokenList + '}');
        if (before == "damaged file") writeFile(m_path, "{\"savedWatchedFolders\":[],}");
        m_old = contents(m_path);
        m_isLink = before == "link" || before == "link to a link";
        if (!m_isLink) return;
        renameEntry(m_path, m_elsewhere + "/real.json");
        makeLink(m_elsewhere + "/second.json", "real.json");
        makeLink(m_path, m_elsewhere + (before == "link" ? "/real.json" : "/second.json"));
    }

    [[nodiscard]] InterceptedRun save(const Interceptor& interceptor) const
    {
        const auto work = [this] {
            saveUndisturbed();
            return Outcome<void>();
        };
        return runIntercepted(fileSystemCalls(), work, interceptor);
    }

    void saveUndisturbed() const { FolderStore().saveState(stateWith("/new")); }

    /// Returns the bytes of the preferences; empty if there are none.
    [[nodiscard]] QByteArray now() const { return exists(m_path) ? contents(m_path) : QByteArray(); }
    [[nodiscard]] const QByteArray& old() const { return m_old; }
    [[nodiscard]] const std::string& path() const { return m_path; }

    /// Returns whether `path` is the folder of the preferences or in it.
    [[nodiscard]] bool isOurs(const std::string& path) const { return path.starts_with(m_config); }

    [[nodiscard]] bool isStillLink() const { return !m_isLink || fs::is_symlink(m_path); }

    /// Returns the number of files beside the preferences that were not put aside on purpose.
    [[nodiscard]] qsizetype leftovers() const
    {
        QByteArrayList names = exists(m_config) ? namesIn(m_config) : QByteArrayList();
        names += namesIn(m_elsewhere);
        return std::ranges::count_if(names, [](const QByteArray& name) {
            const bool isAside = name.startsWith("savedWatchedFolders-") || name.startsWith("harbex-");
            const bool isOurs = name == "harbex.json" || name == "real.json" || name == "second.json";
            return !isOurs && !(isAside && name.endsWith(".json"));
        });
    }

    /// Returns whether what could not be read is still in its place or put aside.
    [[nodiscard]] bool hasKeptDamage() const
    {
        return m_old.isEmpty() || m_isUnderstood ||
               std::ranges::any_of(namesIn(m_config), [this](const QByteArray& name) {
                   const QByteArray content = contents(m_config + '/' + name.toStdString());
                   return content == m_old || content.toStdString() == brokenList;
               });
    }

private:
    const ScratchFolder m_scratch;
    const std::string m_config = qEnvironmentVariable("XDG_CONFIG_HOME").toStdString() + "/harbex";
    const std::string m_path = m_config + "/harbex.json";
    const std::string m_elsewhere;
    QByteArray m_old;
    bool m_isUnderstood = true;
    bool m_isLink = false;
};

} // namespace

/// Kills or fails a save at every single call. Afterwards the old or the new preferences are there, whole.
class TestSaveFaults : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void everyCallIsKilledOrFails_data()
    {
        QTest::addColumn<QByteArray>("before");
        // 0 kills the process.
        QTest::addColumn<int>("error");
        static constexpr std::array errors = {EIO, ENOSPC, EDQUOT, EACCES, EINTR, EMFILE, EROFS};
        for (size_t n = 0; n < std::size(situations); ++n) {
            const QByteArray before = situations[n];
            QTest::addRow("%s, killed", before.constData()) << before << 0;
            // In brief one error in every other situation.
            for (size_t i = 0; i < stressSize(1 - n % 2, errors.size()); ++i)
                QTest::addRow("%s, %s", before.constData(), strerrorname_np(errors[i]))
                    << before << errors[i];
        }
    }

    void everyCallIsKilledOrFails()
    {
        QFETCH(const QByteArray, before);
        QFETCH(const int, error);
        const qsizetype leftovers = error == 0 ? 1 : 0;
        QByteArray wanted;
        {
            const SaveRound undisturbed(before);
            undisturbed.saveUndisturbed();
            wanted = undisturbed.now();
        }

        size_t faults = 0;
        size_t kept = 0;
        for (;; ++faults) {
            const SaveRound round(before);
            std::string where;
            const InterceptedRun run = round.save([&](const InterceptedCall& call) {
                // The message about a failure goes to standard output.
                const bool isMessage = call.name == "write" && call.arguments[0] == 1;
                if (call.index != faults || isMessage) return Answer::proceed();
                where = call.label();
                return error == 0 ? Answer::kill() : Answer::fail(error);
            });
            if (where.empty() && run.calls.size() <= faults) {
                QVERIFY(run.succeeded());
                QCOMPARE(round.now(), wanted);
                break;
            }
            QVERIFY2(error == 0 ? run.wasKilled : run.succeeded(), where.c_str());
            QVERIFY2(round.now() == round.old() || round.now() == wanted, where.c_str());
            QVERIFY2(round.isStillLink(), where.c_str());
            QVERIFY2(round.hasKeptDamage(), where.c_str());
            QVERIFY2(round.leftovers() <= leftovers, where.c_str());
            kept += round.now() != wanted;

            // The next save works.
            round.saveUndisturbed();
            QVERIFY2(round.now() == wanted, where.c_str());
            QVERIFY2(round.isStillLink(), where.c_str());
            QVERIFY2(round.leftovers() <= leftovers, where.c_str());
        }
        QVERIFY(faults > 20 && kept > 0);
        reportRuns(faults);
    }

    void theFileIsReadOnceAndOnDiskBeforeItIsReplaced()
    {
        const auto save = [](const SaveRound& round, bool mayReachTheDisk) {
            QByteArrayList order;
            const InterceptedRun run = round.save([&](const InterceptedCall& call) {
                const bool isRead = call.name == "openat" && call.text(1) == round.path();
                const bool isSync =
                    call.name == "fsync" && round.isOurs(call.pathOfOpen(int(call.arguments[0])));
                const bool isRename = call.name == "rename" && round.isOurs(call.text(0));
                if (isRead || isSync || isRename) order << QByteArray::fromStdString(call.name);
                return isSync && !mayReachTheDisk ? Answer::fail(EIO) : Answer::proceed();
            });
            return run.succeeded() ? order : QByteArrayList();
        };
        const SaveRound refused("file");
        QCOMPARE(save(refused, false), (QByteArrayList{"openat", "fsync"}));
        QCOMPARE(refused.now(), refused.old());
        QCOMPARE(refused.leftovers(), 0);

        // The last call syncs the folder, which contains the new name.
        const SaveRound done("file");
        QCOMPARE(save(done, true), (QByteArrayList{"openat", "fsync", "rename", "fsync"}));
        QVERIFY(done.now() != done.old());
    }
};

HARBEX_TEST(TestSaveFaults)

#include "tst_SaveFaults.moc"
