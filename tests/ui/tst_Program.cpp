#include "store/FolderStore.h"
#include "support/ContentStateFixture.h"
#include "support/FakePanel.h"
#include "support/ProgramRun.h"
#include "support/SessionBus.h"
#include "support/TestMain.h"

#include <csignal>
#include <cstdlib>
#include <functional>
#include <tuple>
#include <utility>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// Runs the program offscreen.
struct Program : ProgramRun {
    explicit Program(const QString& busAddress, const QStringList& variables = {})
        : ProgramRun(HARBEX_PROGRAM, {}, busAddress, QStringList(variables) << "QT_QPA_PLATFORM=offscreen")
    {
    }
};

} // namespace

/// How the whole program starts and ends.
class TestProgram : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_bus = std::make_unique<SessionBus>();
        m_panel = std::make_unique<FakePanel>(*m_bus);
        m_folder = std::make_unique<QTemporaryDir>();
        for (const char* name : {"from", "to"})
            QDir(m_folder->path()).mkdir(name);
        storeRule();
    }

    void cleanup()
    {
        m_panel.reset();
        m_bus.reset();
    }

    void aStartWhileTheFirstHangsPrintsAnErrorAndFails()
    {
        Program first(m_bus->address());
        QVERIFY(m_panel->waitForItem());
        first.signal(SIGSTOP);
        QElapsedTimer timer;
        timer.start();
        Program second(m_bus->address());
        QCOMPARE(second.exitStatus(), EXIT_FAILURE);
        QVERIFY2(timer.elapsed() >= 4000, "the first may only be slow");
        QCOMPARE(second.errors(), QByteArray("Harbex runs already, but does not answer.\n"));
        QCOMPARE(second.output(), QByteArray());
        first.signal(SIGCONT);
        QVERIFY(first.isRunning());
    }

    void withoutABusItWatchesAndMoves_data()
    {
        QTest::addColumn<bool>("isThereAtTheStart");
        QTest::newRow("no bus") << false;
        QTest::newRow("a bus that ends") << true;
    }

    void withoutABusItWatchesAndMoves()
    {
        QFETCH(const bool, isThereAtTheStart);
        Program program(isThereAtTheStart ? m_bus->address() : "unix:path=/nonexistent");
        if (isThereAtTheStart) QVERIFY(m_panel->waitForItem());
        m_panel.reset();
        m_bus.reset();
        int dropped = 0;
        const auto isOneMoved = [&] {
            // The program ignores files from before its start.
            QFile file(m_folder->filePath(QString("from/%1").arg(++dropped)));
            return file.open(QIODevice::WriteOnly) && !QDir(m_folder->filePath("to")).isEmpty();
        };
        QVERIFY(QTest::qWaitFor(isOneMoved, 30000));
        program.signal(SIGTERM);
        QCOMPARE(program.exitStatus(), EXIT_SUCCESS);
    }

    void aSecondStartHandsOverToOneThatIgnoresAHangUp()
    {
        const auto before = std::signal(SIGHUP, SIG_IGN);
        Program program(m_bus->address());
        std::signal(SIGHUP, before);
        QVERIFY(m_panel->waitForItem());
        program.signal(SIGHUP);
        // The second start takes longer than an end of the first, and would stay in its place.
        Program second(m_bus->address());
        QCOMPARE(second.exitStatus(), EXIT_SUCCESS);
        QCOMPARE(second.output() + second.errors(), QByteArray());
        QVERIFY(program.isRunning());
        QCOMPARE(m_panel->items().size(), 1);
    }

    void everyOrderlyEndPrintsAndSavesNothing()
    {
        const RemoteObject application = harbexOn(m_bus->connect());
        const std::pair<const char*, std::function<void(Program&)>> ends[] = {
            {"the menu", [&](Program&) { m_panel->click(3); }},
            {"the bus",
             [&](Program&) { application.send("ActivateAction", {"quit", QVariantList(), QVariantMap()}); }},
            {"SIGTERM", [](Program& program) { program.signal(SIGTERM); }},
            {"SIGINT", [](Program& program) { program.signal(SIGINT); }},
            {"SIGHUP", [](Program& program) { program.signal(SIGHUP); }},
        };
        for (const auto& [name, end] : ends) {
            storeRule();
            const qsizetype items = m_panel->items().size();
            Program program(m_bus->address());
            QTRY_COMPARE(m_panel->items().size(), items + 1);
            // The reply comes from the main loop, which begins after the store was read.
            QVERIFY2(m_panel->item().property("Id").isValid(), name);
            // Saving would write the rule into the empty store.
            FolderStore().saveState({});
            const QByteArray stored = storedText();
            end(program);
            QVERIFY2(program.exitStatus() == EXIT_SUCCESS, name);
            QVERIFY2(program.output().isEmpty(), name);
            QVERIFY2(storedText() == stored, name);
        }
    }

    void aStartByTheBusOnlyToQuitShowsNothing()
    {
        writeServiceFile(m_folder->path(), "QT_QPA_PLATFORM=offscreen exec " HARBEX_PROGRAM);
        SessionBus bus(m_folder->path());
        const FakePanel panel(bus);
        const RemoteObject application = harbexOn(bus.connect());
        QVERIFY(application.accepts("ActivateAction", {"quit", QVariantList(), QVariantMap()}));
        QTRY_VERIFY(!application.bus.interface()->isServiceRegistered(application.service));
        QCOMPARE(bus.startedPrograms(), 1);
        QVERIFY(panel.items().isEmpty());
    }

    void signalsOfFailedWritesDoNotEndIt()
    {
        Program program(m_bus->address());
        QVERIFY(m_panel->waitForItem());
        // Of a file that is too large, and of a pipe without a reader.
        for (const int number : {SIGXFSZ, SIGPIPE, SIGTERM})
            program.signal(number);
        QCOMPARE(program.exitStatus(), EXIT_SUCCESS);
    }

    void theLanguageOfTheDesktopIsShown()
    {
        const std::tuple<QString, QString, QString> rows[] = {
            {"C.UTF-8", "", "Quit"},
            {"ja_JP.UTF-8", "", "終了"},
            {"en_US.UTF-8", "nl:de", "Beenden"},
            {"de_DE.UTF-8", "en_GB:de", "Quit"},
            {"de_DE.UTF-8", "nl", "Quit"},
            {"de_DE.UTF-8", "tlh:ru", "Выход"},
            {"pt_BR.UTF-8", "", "Sair"},
            {"pt_PT.UTF-8", "", "Quit"},
            {"zh_CN.UTF-8", "", "退出"},
            {"zh_TW.UTF-8", "", "Quit"},
            {"zh_TW.UTF-8", "zh_TW:zh_CN", "退出"},
        };
        for (const auto& [locale, language, quit] : rows) {
            const qsizetype items = m_panel->items().size();
            const Program program(m_bus->address(), {"LC_ALL=" + locale, "LANGUAGE=" + language});
            QTRY_COMPARE(m_panel->items().size(), items + 1);
            const QDBusMessage reply = m_panel->menu().call("GetProperty", {3, "label"});
            const QString shown = reply.arguments().value(0).value<QDBusVariant>().variant().toString();
            QVERIFY2(shown == quit, qPrintable(locale + u' ' + language + ": " + shown));
        }
    }

private:
    /// Stores a rule that moves everything.
    void storeRule() const
    {
        const auto url = [this](const char* name) {
            return FileUrl::fromPath(m_folder->filePath(name).toStdString());
        };
        FilterRule all;
        all.destination = url("to");
        const WatchedFolder folder{.url = url("from"), .bookmarkData = {}, .rules = {all}};
        FolderStore().saveState({{folder}, folder.id});
    }

    std::unique_ptr<SessionBus> m_bus;
    std::unique_ptr<FakePanel> m_panel;
    std::unique_ptr<QTemporaryDir> m_folder;
};

HARBEX_TEST(TestProgram)
#include "tst_Program.moc"
