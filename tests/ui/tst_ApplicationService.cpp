#include "support/SessionBus.h"
#include "support/TestMain.h"
#include "ui/ActivationToken.h"
#include "ui/ApplicationService.h"

#include <QDBusConnectionInterface>
#include <QDBusReply>
#include <QElapsedTimer>
#include <QSignalSpy>

#include <csignal>
#include <cstdio>
#include <functional>
#include <optional>
#include <utility>

using namespace harbex;
using namespace harbex::test;

namespace
{

constexpr QLatin1String busName("org.harbex.Harbex");

/// A program with only the service. It prints the result of the start and each request.
HARBEX_MAIN(ServiceProgram)
{
    const auto say = [](const QByteArray& text) {
        std::puts(text.constData());
        std::fflush(stdout);
    };
    const QString token = activationTokenOfEnvironment();
    const QCoreApplication application(argc, argv);
    ApplicationService service(QDBusConnection::sessionBus());
    switch (service.start(token)) {
    case ApplicationService::Start::first:
        say("first");
        break;
    case ApplicationService::Start::handedOver:
        say("handed over");
        return 0;
    case ApplicationService::Start::refused:
        say("refused");
        return 1;
    }
    QObject::connect(&service, &ApplicationService::openRequested,
                     [&](const QString& given) { say("open " + given.toUtf8()); });
    return QCoreApplication::exec();
}

/// An application that ends when it is activated, before it answers.
class EndingApplication : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Application")

public:
    explicit EndingApplication(std::function<void()> end) : m_end(std::move(end)) {}

    [[nodiscard]] bool wasActivated() const { return m_wasActivated; }

    Q_SCRIPTABLE void Activate(const QVariantMap& /*platformData*/, const QDBusMessage& message)
    {
        message.setDelayedReply(true);
        m_wasActivated = true;
        m_end();
    }

private:
    std::function<void()> m_end;
    bool m_wasActivated = false;
};

/// A process that runs that program.
class Program
{
public:
    explicit Program(const QString& busAddress, const QStringList& variables = {})
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), busAddress);
        for (const QString& variable : variables)
            environment.insert(variable.section(u'=', 0, 0), variable.section(u'=', 1));
        m_process.setProcessEnvironment(environment);
        m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_process.start(QCoreApplication::applicationFilePath(), {QStringLiteral("ServiceProgram")});
    }
    ~Program()
    {
        m_process.kill();
        m_process.waitForFinished();
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    /// Waits for the next line of its output. Empty if it has ended without one.
    [[nodiscard]] QByteArray nextLine()
    {
        while (!m_process.canReadLine() && m_process.state() != QProcess::NotRunning) {
            if (!m_process.waitForReadyRead(30000)) break;
        }
        return m_process.readLine().trimmed();
    }
    [[nodiscard]] bool isRunning() const { return m_process.state() == QProcess::Running; }

    /// Waits for the end and returns the exit status; -1 if it was killed or still runs.
    [[nodiscard]] int exitStatus()
    {
        if (isRunning() && !m_process.waitForFinished(30000)) return -1;
        return m_process.exitStatus() == QProcess::NormalExit ? m_process.exitCode() : -1;
    }
    void signal(int number) { ::kill(pid_t(m_process.processId()), number); }

private:
    QProcess m_process;
};

} // namespace

class TestApplicationService : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { m_bus = std::make_unique<SessionBus>(); }

    void cleanup()
    {
        m_open.reset();
        m_quit.reset();
        m_service.reset();
        m_bus.reset();
    }

    // Starts.
    void laterStartsHandOverWithTheirActivationToken()
    {
        const QString wayland = QStringLiteral("XDG_ACTIVATION_TOKEN=of-wayland");
        const QString x11 = QStringLiteral("DESKTOP_STARTUP_ID=of-x11_TIME1");
        const QString tooLong = QStringLiteral("XDG_ACTIVATION_TOKEN=") + QString(2000, u'x');
        const std::pair<QStringList, QByteArray> cases[] = {
            {{wayland}, "open of-wayland"},
            {{x11}, "open of-x11_TIME1"},
            {{wayland, x11}, "open of-wayland"},
            {{}, "open"},
            {{tooLong}, "open"},
        };
        Program first(m_bus->address());
        QCOMPARE(first.nextLine(), "first");
        for (const auto& [variables, request] : cases) {
            Program later(m_bus->address(), variables);
            QCOMPARE(later.nextLine(), "handed over");
            QCOMPARE(later.exitStatus(), 0);
            QCOMPARE(first.nextLine(), request);
            QVERIFY(first.isRunning());
        }
    }

    void startAfterTheEndIsTheFirst()
    {
        for (const int signal : {SIGTERM, SIGKILL}) {
            Program program(m_bus->address());
            QCOMPARE(program.nextLine(), "first");
            program.signal(signal);
            QCOMPARE(program.exitStatus(), -1);
        }
    }

    void startsAtOnceLeaveExactlyOne()
    {
        for (int round = 0; round < 20; ++round) {
            const SessionBus bus;
            Program one(bus.address());
            Program other(bus.address());
            const QByteArray said = one.nextLine() + '|' + other.nextLine();
            QVERIFY2(said == "first|handed over" || said == "handed over|first", said);
            Program& winner = said.startsWith("first") ? one : other;
            Program& loser = said.startsWith("first") ? other : one;
            QCOMPARE(loser.exitStatus(), 0);
            QCOMPARE(winner.nextLine(), "open");
            QVERIFY(winner.isRunning());
        }
    }

    void secondStartGoesOnWhenTheFirstEndsMeanwhile()
    {
        std::optional<QDBusConnection> connection(m_bus->connect());
        EndingApplication first([&] {
            m_bus->close(*connection);
            connection.reset();
        });
        QVERIFY(connection->registerObject(QStringLiteral("/org/harbex/Harbex"), &first,
                                           QDBusConnection::ExportScriptableInvokables));
        QVERIFY(connection->registerService(busName));
        Program second(m_bus->address());
        QTRY_VERIFY(first.wasActivated());
        QCOMPARE(second.nextLine(), "first");
    }

    void startIsRefusedAtOnceWhenAnotherProgramHasTheName()
    {
        QVERIFY(m_bus->connect().registerService(busName));
        QElapsedTimer timer;
        timer.start();
        Program program(m_bus->address());
        QCOMPARE(program.nextLine(), "refused");
        QCOMPARE(program.exitStatus(), 1);
        QVERIFY(timer.elapsed() < 4000);
    }

    void nameCannotBeTakenOver()
    {
        startService();
        const QDBusReply<QDBusConnectionInterface::RegisterServiceReply> reply =
            m_bus->connect().interface()->registerService(busName,
                                                          QDBusConnectionInterface::ReplaceExistingService,
                                                          QDBusConnectionInterface::AllowReplacement);
        QVERIFY(reply != QDBusConnectionInterface::ServiceRegistered);
    }

    // Calls.
    void activateOpensWithTheTokenOfEitherDisplaySystem_data()
    {
        QTest::addColumn<QVariantMap>("platformData");
        QTest::addColumn<QString>("token");
        const QString wayland = QStringLiteral("activation-token");
        const QString x11 = QStringLiteral("desktop-startup-id");
        const QString w = QStringLiteral("w");
        const QString x = QStringLiteral("x");
        QTest::newRow("Wayland") << QVariantMap{{wayland, w}} << w;
        QTest::newRow("X11") << QVariantMap{{x11, x}} << x;
        QTest::newRow("both") << QVariantMap{{wayland, w}, {x11, x}} << w;
        QTest::newRow("one empty") << QVariantMap{{wayland, QString()}, {x11, x}} << x;
        QTest::newRow("none") << QVariantMap{{QStringLiteral("cwd"), QStringLiteral("/")}} << QString();
        QTest::newRow("no text") << QVariantMap{{wayland, QStringList({w, x})}} << QString();
        QTest::newRow("too long") << QVariantMap{{wayland, QString(1'000'000, u'x')}} << QString();
    }

    void activateOpensWithTheTokenOfEitherDisplaySystem()
    {
        QFETCH(const QVariantMap, platformData);
        QFETCH(const QString, token);
        startService();
        QVERIFY(application().accepts("Activate", {platformData}));
        QCOMPARE(m_open->count(), 1);
        QCOMPARE(m_open->first(), QVariantList({token}));
    }

    void openIgnoresTheFiles()
    {
        startService();
        const QStringList uris{QStringLiteral("file:///etc"), QStringLiteral("no URI")};
        const QVariantMap platformData{{QStringLiteral("activation-token"), QStringLiteral("token")}};
        QVERIFY(application().accepts("Open", {uris, platformData}));
        QCOMPARE(m_open->takeFirst(), QVariantList({QStringLiteral("token")}));
    }

    void onlyTheActionQuitQuits()
    {
        startService();
        const QVariantList parameter{1, QStringLiteral("x")};
        for (const char* action : {"", "Quit", "quit ", "preferences"})
            QVERIFY(application().accepts("ActivateAction",
                                          {QString::fromLatin1(action), parameter, QVariantMap()}));
        QCOMPARE(m_open->count() + m_quit->count(), 0);
        QVERIFY(
            application().accepts("ActivateAction", {QStringLiteral("quit"), QVariantList(), QVariantMap()}));
        QCOMPARE(m_quit->count(), 1);
        QCOMPARE(m_open->count(), 0);
    }

    void wrongCallsAreErrors()
    {
        const NamedCall calls[] = {
            {"no arguments", "Activate", {}},
            {"a text for a table", "Activate", {QStringLiteral("x")}},
            {"no files", "Open", {QVariantMap()}},
            {"no name", "ActivateAction", {QVariantList(), QVariantMap()}},
            {"an unknown method", "Quit", {}},
            {"a function for the program only", "start", {QString()}},
            {"a slot of QObject", "deleteLater", {}},
        };
        startService();
        for (const NamedCall& call : calls)
            QVERIFY2(!application().accepts(call.method, call.arguments), call.name);
        QCOMPARE(m_open->count() + m_quit->count(), 0);
    }

private:
    /// Starts the service in this process.
    void startService()
    {
        m_service = std::make_unique<ApplicationService>(m_bus->connect());
        if (m_service->start({}) != ApplicationService::Start::first) qFatal("the service does not start");
        m_open.emplace(m_service.get(), &ApplicationService::openRequested);
        m_quit.emplace(m_service.get(), &ApplicationService::quitRequested);
    }
    [[nodiscard]] RemoteObject application() const
    {
        return {m_bus->connect(), busName, QStringLiteral("/org/harbex/Harbex"),
                QStringLiteral("org.freedesktop.Application")};
    }

    std::unique_ptr<SessionBus> m_bus;
    std::unique_ptr<ApplicationService> m_service;
    std::optional<QSignalSpy> m_open;
    std::optional<QSignalSpy> m_quit;
};

HARBEX_TEST(TestApplicationService)

#include "tst_ApplicationService.moc"
