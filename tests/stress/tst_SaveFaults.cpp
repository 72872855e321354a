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

const char* const situations[] = {"file", "first save", "damaged", "link to a link", "broken list", "link"};

FolderState stateWith(const std::string& path)
{
    FolderState state;
    FilterRule rule;
    rule.destination = FileUrl::fromPath("/somewhere/else");
    rule.id = QUuid(QStringLiteral("{0f8e6c1a-2222-4222-8333-abcdefabcdef}"));
    // Of fixed identity, so that the same state is the same bytes each time.
    const QUuid id(QStringLiteral("{0f8e6c1a-1111-4222-8333-abcdefabcdef}"));
    state.folders = {{id, FileUrl::fromPath(path), std::nullopt, {rule}}};
    state.selectedFolderID = id;
    return state;
}

constexpr const char* brokenList = R"([{"id":1}])";

/// Stores that are saved once, behind a gate.
class SaveRound
{
public:
    explicit SaveRound(const std::string& situation)
        : m_config(qEnvironmentVariable("XDG_CONFIG_HOME").toStdString() + "/harbex"),
          m_elsewhere(m_scratch.makeFolder("elsewhere"))
    {
        // The same for all rounds of the process, which has one home.
        fs::remove_all(m_config);
        m_path = m_config + "/harbex.json";
        if (situation == "first save") return;

        FolderStore().saveState(stateWith("/old"));
        m_wasUnderstood = situation == "file" || situation.starts_with("link");
        if (situation == "broken list")
            writeBroken(QByteArray("{\"savedWatchedFolders\":") + brokenList + '}');
        if (situation == "damaged") writeBroken("{\"savedWatchedFolders\":[],}");
        m_old = contents(m_path);
        if (situation.starts_with("link")) {
            renameEntry(m_path, m_elsewhere + "/real.json");
            std::string target = m_elsewhere + "/real.json";
            if (situation == "link to a link") makeLink(m_elsewhere + "/second.json", "real.json");
            if (situation == "link to a link") target = m_elsewhere + "/second.json";
            makeLink(m_path, target);
            m_isLink = true;
        }
    }

    [[nodiscard]] InterceptedRun save(const Interceptor& keeper) const
    {
        return runIntercepted(
            fileSystemCalls(),
            []() -> Outcome<void> {
                FolderStore().saveState(stateWith("/new"));
                return {};
            },
            keeper);
    }

    /// What a save without any fault makes of a situation.
    [[nodiscard]] static QByteArray undisturbed(const std::string& situation)
    {
        const SaveRound round(situation);
        round.saveUndisturbed();
        return round.now();
    }

    void saveUndisturbed() const { FolderStore().saveState(stateWith("/new")); }

    /// The bytes of the configuration; empty when there is none.
    [[nodiscard]] QByteArray now() const { return exists(m_path) ? contents(m_path) : QByteArray(); }
    [[nodiscard]] const QByteArray& old() const { return m_old; }

    /// Whether it is the folder of the configuration or something in it.
    [[nodiscard]] bool isOurs(const std::string& path) const { return path.starts_with(m_config); }

    [[nodiscard]] bool isStillLink() const { return !m_isLink || fs::is_symlink(m_path); }

    /// What is in the folders of the configuration besides it and what was put aside on purpose.
    [[nodiscard]] QByteArrayList leftovers() const
    {
        QByteArrayList names;
        if (exists(m_config)) names = namesIn(m_config);
        names += namesIn(m_elsewhere);
        names.removeIf([](const QByteArray& name) {
            const bool isAside = (name.startsWith("savedWatchedFolders-") && name.endsWith(".json")) ||
                                 (name.startsWith("harbex-") && name.endsWith(".json"));
            return isAside || name == "harbex.json" || name == "real.json" || name == "second.json";
        });
        return names;
    }

    /// Whether the old bytes are there, in the file itself or put aside, wholly or at least the list. What
    /// was understood is replaced by a save.
    [[nodiscard]] bool hasOldListSomewhere() const
    {
        if (m_old.isEmpty() || m_wasUnderstood) return true;
        for (const auto& entry : fs::directory_iterator(m_config)) {
            const QByteArray content = contents(entry.path().string());
            if (content == m_old || content == brokenList) return true;
        }
        return false;
    }

private:
    void writeBroken(const QByteArray& content) const
    {
        removeEntry(m_path);
        writeFile(m_path, content.toStdString());
    }

    const ScratchFolder m_scratch;
    const std::string m_config;
    const std::string m_elsewhere;
    std::string m_path;
    QByteArray m_old;
    bool m_wasUnderstood = false;
    bool m_isLink = false;
};

void addRowsOfSituations()
{
    QTest::addColumn<QString>("situation");
    for (const char* situation : situations)
        QTest::newRow(situation) << QString::fromUtf8(situation);
}

} // namespace

/// Saves of the configuration that are killed or failed at every single call. The old configuration is there
/// in the end or the new one, whole.
class TestSaveFaults : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void killedAtEveryCall_data() { addRowsOfSituations(); }
    void killedAtEveryCall();
    void everyCallFails_data();
    void everyCallFails();
    void nothingIsReplacedByWhatIsNotOnTheDisk();
};

void TestSaveFaults::killedAtEveryCall()
{
    QFETCH(const QString, situation);
    const QByteArray wanted = SaveRound::undisturbed(situation.toStdString());

    size_t kills = 0;
    for (;; ++kills) {
        const SaveRound round(situation.toStdString());
        std::string where;
        const InterceptedRun run = round.save([&](const InterceptedCall& call) {
            if (call.index != kills) return Answer::proceed();
            where = call.label();
            return Answer::kill();
        });
        if (where.empty()) {
            QVERIFY(run.succeeded());
            QCOMPARE(round.now(), wanted);
            break;
        }
        QVERIFY2(run.wasKilled, where.c_str());
        QVERIFY2(round.now() == round.old() || round.now() == wanted, where.c_str());
        QVERIFY2(round.isStillLink(), where.c_str());
        QVERIFY2(round.hasOldListSomewhere(), where.c_str());

        QVERIFY2(round.leftovers().size() <= 1, where.c_str());

        // The next one works, whatever the killed one left.
        round.saveUndisturbed();
        QVERIFY2(round.now() == wanted, where.c_str());
        QVERIFY2(round.isStillLink(), where.c_str());
        QVERIFY2(round.leftovers().size() <= 1, where.c_str());
    }
    QVERIFY(kills > 20);
    reportRuns(kills);
}

void TestSaveFaults::everyCallFails_data()
{
    QTest::addColumn<QString>("situation");
    QTest::addColumn<int>("error");
    static constexpr std::array errors = {EIO, ENOSPC, EDQUOT, EACCES, EINTR, EMFILE, EROFS};
    // In brief one error, and every other situation.
    for (size_t n = 0; n < std::size(situations); n += stressSize(size_t(2), size_t(1))) {
        const char* const situation = situations[n];
        for (size_t i = 0; i < stressSize(size_t(1), errors.size()); ++i)
            QTest::addRow("%s, %s", situation, strerrorname_np(errors[i]))
                << QString::fromUtf8(situation) << errors[i];
    }
}

void TestSaveFaults::everyCallFails()
{
    QFETCH(const QString, situation);
    QFETCH(const int, error);
    const QByteArray wanted = SaveRound::undisturbed(situation.toStdString());

    size_t failures = 0;
    size_t kept = 0;
    for (;; ++failures) {
        const SaveRound round(situation.toStdString());
        std::string where;
        // Not standard output, on which the failure is told.
        const InterceptedRun run = round.save([&](const InterceptedCall& call) {
            if (call.index != failures || (call.name == "write" && call.arguments[0] == 1))
                return Answer::proceed();
            where = call.label();
            return Answer::fail(error);
        });
        if (where.empty() && run.calls.size() <= failures) break;
        QVERIFY2(run.succeeded(), where.c_str());
        QVERIFY2(round.now() == round.old() || round.now() == wanted, where.c_str());
        QVERIFY2(round.isStillLink(), where.c_str());
        QVERIFY2(round.hasOldListSomewhere(), where.c_str());
        kept += round.now() != wanted;
        round.saveUndisturbed();
        QVERIFY2(round.now() == wanted, where.c_str());
        QVERIFY2(round.leftovers().isEmpty(), where.c_str());
    }
    QVERIFY(failures > 20 && kept > 0);
    reportRuns(failures);
}

void TestSaveFaults::nothingIsReplacedByWhatIsNotOnTheDisk()
{
    const auto save = [](const SaveRound& round, bool mayReachTheDisk) {
        QByteArrayList order;
        const InterceptedRun run = round.save([&](const InterceptedCall& call) {
            const bool isSync = call.name == "fsync" && round.isOurs(call.pathOfOpen(int(call.arguments[0])));
            const bool isRename = call.name == "rename" && round.isOurs(call.text(0));
            if (isSync || isRename) order << QByteArray::fromStdString(call.name);
            return isSync && !mayReachTheDisk ? Answer::fail(EIO) : Answer::proceed();
        });
        return run.succeeded() ? order : QByteArrayList();
    };
    const SaveRound refused("file");
    QCOMPARE(save(refused, false), QByteArrayList{"fsync"});
    QCOMPARE(refused.now(), refused.old());
    QCOMPARE(refused.leftovers(), QByteArrayList());

    // The last one is of the folder, which has the new name in it.
    const SaveRound done("file");
    QCOMPARE(save(done, true), (QByteArrayList{"fsync", "rename", "fsync"}));
    QVERIFY(done.now() != done.old());
}

HARBEX_TEST_MAIN(TestSaveFaults)

#include "tst_SaveFaults.moc"
