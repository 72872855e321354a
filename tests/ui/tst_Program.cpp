#include "store/FolderStore.h"
#include "support/FakePanel.h"
#include "support/SessionBus.h"
#include "support/TestMain.h"

#include <QDBusVariant>
#include <QDataStream>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <csignal>
#include <cstdlib>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// One start of the program itself, on a screen that nobody sees.
class Program
{
public:
    explicit Program(const QString& busAddress)
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), busAddress);
        environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        m_process.setProcessEnvironment(environment);
        m_process.start(QStringLiteral(HARBEX_PROGRAM), QStringList());
        m_process.waitForStarted();
    }
    ~Program()
    {
        m_process.kill();
        m_process.waitForFinished();
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    [[nodiscard]] bool isRunning() const { return m_process.state() == QProcess::Running; }

    /// Its exit status, once it has ended; -1 when it was killed or goes on.
    [[nodiscard]] int exitStatus()
    {
        // The main loop must run meanwhile: the panel lives in it.
        if (!QTest::qWaitFor([this] { return !isRunning(); }, 30000)) return -1;
        return m_process.exitStatus() == QProcess::NormalExit ? m_process.exitCode() : -1;
    }
    [[nodiscard]] QByteArray output() { return m_process.readAllStandardOutput(); }
    [[nodiscard]] QByteArray errors() { return m_process.readAllStandardError(); }
    void signal(int number) { ::kill(pid_t(m_process.processId()), number); }

private:
    QProcess m_process;
};

QByteArray storeContent()
{
    QFile file(FolderStore().path());
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/// A file of translations as the tools write it, with one text and its translation.
QByteArray translationFile(const char* text, const QString& translation)
{
    quint32 hash = 0;
    for (const char* each = text; *each; ++each) {
        hash = (hash << 4) + static_cast<quint8>(*each);
        const quint32 high = hash & 0xf0000000;
        hash = (hash ^ (high >> 24)) & ~high;
    }
    constexpr quint32 offset = 0;
    constexpr quint8 isTranslation = 3;
    constexpr quint8 isEnd = 1;
    QByteArray hashes;
    QDataStream(&hashes, QIODevice::WriteOnly) << hash << offset;
    QByteArray messages;
    QDataStream(&messages, QIODevice::WriteOnly) << isTranslation << translation << isEnd;

    constexpr quint8 isHashes = 0x42;
    constexpr quint8 isMessages = 0x69;
    QByteArray file = QByteArray::fromHex("3cb86418caef9c95cd211cbf60a1bddd");
    QDataStream stream(&file, QIODevice::Append);
    stream << isHashes << hashes << isMessages << messages;
    return file;
}

} // namespace

/// What only the whole program shows: how it starts and ends.
class TestProgram : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void secondStartHandsOverAndEndsWithStatusZero();
    void startsAtOnceLeaveExactlyOne();
    void startWhileTheFirstHangsSaysSoAndFails();
    void startWithoutABusWorks();
    void quitEndsAtOnceAndSaysAndSavesNothing();
    void quitByTheDesktopsMenuEndsTheProgram();
    void terminationEndsInOrderAndSavesNothing();
    void signalsOfFailedWritesDoNotEndIt();
    void translationOfTheUsersLanguageIsShown();

private:
    /// Empties the store behind the back of a program that has been launched: if it saves, that is seen.
    QByteArray emptyStore()
    {
        // Answered in the main loop, which begins when the program has read the store.
        if (!m_panel->item().property(QStringLiteral("Id")).isValid()) qFatal("the program does not answer");
        FolderStore().saveState({});
        return storeContent();
    }

    std::unique_ptr<SessionBus> m_bus;
    std::unique_ptr<FakePanel> m_panel;
    std::unique_ptr<QTemporaryDir> m_folder;
};

void TestProgram::init()
{
    m_bus = std::make_unique<SessionBus>();
    m_panel = std::make_unique<FakePanel>(*m_bus);
    m_folder = std::make_unique<QTemporaryDir>();
    for (const char* name : {"from", "to"})
        QDir(m_folder->path()).mkdir(QString::fromLatin1(name));
    const auto url = [this](const char* name) {
        return FileUrl::fromPath(m_folder->filePath(QString::fromLatin1(name)).toStdString());
    };
    FilterRule all;
    all.destination = url("to");
    const WatchedFolder folder{.url = url("from"), .bookmarkData = {}, .rules = {all}};
    FolderStore().saveState({{folder}, folder.id});
}

void TestProgram::cleanup()
{
    m_panel.reset();
    m_bus.reset();
}

void TestProgram::secondStartHandsOverAndEndsWithStatusZero()
{
    Program first(m_bus->address());
    QTRY_COMPARE(m_panel->items().size(), 1);
    Program second(m_bus->address());
    QCOMPARE(second.exitStatus(), EXIT_SUCCESS);
    QCOMPARE(second.output() + second.errors(), QByteArray());
    QVERIFY(first.isRunning());
    QCOMPARE(m_panel->items().size(), 1);
}

void TestProgram::startsAtOnceLeaveExactlyOne()
{
    for (int round = 1; round <= 20; ++round) {
        Program one(m_bus->address());
        Program other(m_bus->address());
        QTRY_VERIFY_WITH_TIMEOUT(one.isRunning() != other.isRunning(), 30000);
        Program& winner = one.isRunning() ? one : other;
        Program& loser = one.isRunning() ? other : one;
        QCOMPARE(loser.exitStatus(), EXIT_SUCCESS);
        QTRY_COMPARE(m_panel->items().size(), round);
        winner.signal(SIGTERM);
        QCOMPARE(winner.exitStatus(), EXIT_SUCCESS);
    }
}

void TestProgram::startWhileTheFirstHangsSaysSoAndFails()
{
    Program first(m_bus->address());
    QTRY_COMPARE(m_panel->items().size(), 1);
    first.signal(SIGSTOP);
    Program second(m_bus->address());
    QCOMPARE(second.exitStatus(), EXIT_FAILURE);
    QCOMPARE(second.errors(), QByteArray("Harbex runs already, but does not answer.\n"));
    QCOMPARE(second.output(), QByteArray());
    first.signal(SIGCONT);
}

void TestProgram::startWithoutABusWorks()
{
    Program program(QStringLiteral("unix:path=/nonexistent"));
    int dropped = 0;
    // What arrives before it watches stays.
    QTRY_VERIFY_WITH_TIMEOUT(([&] {
                                 QFile file(m_folder->filePath(QStringLiteral("from/%1").arg(++dropped)));
                                 return file.open(QIODevice::WriteOnly) &&
                                        !QDir(m_folder->filePath(QStringLiteral("to"))).isEmpty();
                             }()),
                             30000);
    program.signal(SIGTERM);
    QCOMPARE(program.exitStatus(), EXIT_SUCCESS);
}

void TestProgram::quitEndsAtOnceAndSaysAndSavesNothing()
{
    Program program(m_bus->address());
    QTRY_COMPARE(m_panel->items().size(), 1);
    const QByteArray stored = emptyStore();
    m_panel->menu().send(QStringLiteral("Event"),
                         {3, QStringLiteral("clicked"), QVariant::fromValue(QDBusVariant(0)), 0U});
    QCOMPARE(program.exitStatus(), EXIT_SUCCESS);
    QCOMPARE(program.output(), QByteArray());
    QCOMPARE(storeContent(), stored);
}

void TestProgram::quitByTheDesktopsMenuEndsTheProgram()
{
    Program program(m_bus->address());
    QTRY_COMPARE(m_panel->items().size(), 1);
    const RemoteObject application{m_bus->connect(), QStringLiteral("org.harbex.Harbex"),
                                   QStringLiteral("/org/harbex/Harbex"),
                                   QStringLiteral("org.freedesktop.Application")};
    application.send(QStringLiteral("ActivateAction"),
                     {QStringLiteral("quit"), QVariantList(), QVariantMap()});
    QCOMPARE(program.exitStatus(), EXIT_SUCCESS);
}

void TestProgram::terminationEndsInOrderAndSavesNothing()
{
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        Program program(m_bus->address());
        const qsizetype before = m_panel->items().size();
        QTRY_COMPARE(m_panel->items().size(), before + 1);
        const QByteArray stored = emptyStore();
        program.signal(number);
        QCOMPARE(program.exitStatus(), EXIT_SUCCESS);
        QCOMPARE(storeContent(), stored);
    }
}

void TestProgram::signalsOfFailedWritesDoNotEndIt()
{
    Program program(m_bus->address());
    QTRY_COMPARE(m_panel->items().size(), 1);
    // Of a file that may not grow so large, and of a pipe that nobody reads.
    for (const int number : {SIGXFSZ, SIGPIPE, SIGTERM})
        program.signal(number);
    QCOMPARE(program.exitStatus(), EXIT_SUCCESS);
}

void TestProgram::translationOfTheUsersLanguageIsShown()
{
    const QDir data(QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation));
    QVERIFY(data.mkpath(QStringLiteral("harbex/translations")));
    QFile file(data.filePath(QStringLiteral("harbex/translations/harbex_de.qm")));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(translationFile("Harbex", QStringLiteral("Habicht")));
    file.close();
    const auto titleFor = [this](const char* language) {
        qputenv("LANGUAGE", language);
        const Program program(m_bus->address());
        const qsizetype before = m_panel->items().size();
        (void)QTest::qWaitFor([&] { return m_panel->items().size() > before; }, 30000);
        return m_panel->item().property(QStringLiteral("Title")).toString();
    };
    const QString german = titleFor("de");
    const QString french = titleFor("fr");
    qunsetenv("LANGUAGE");
    QVERIFY(file.remove());
    QCOMPARE(german, QStringLiteral("Habicht"));
    QCOMPARE(french, QStringLiteral("Harbex"));
}

HARBEX_TEST_MAIN(TestProgram)
#include "tst_Program.moc"
