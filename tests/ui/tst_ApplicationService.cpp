#include "support/ProgramRun.h"
#include "support/SessionBus.h"
#include "support/TestMain.h"
#include "ui/ActivationToken.h"
#include "ui/ApplicationService.h"

#include <cstdio>
#include <functional>
#include <optional>
#include <tuple>
#include <utility>

using namespace harbex;
using namespace harbex::test;

namespace
{

constexpr const char* busName = "org.harbex.Harbex";

/// A program with only the service. It prints the result of the start and each request.
HARBEX_MAIN(ServiceProgram)
{
    const auto say = [](const QByteArray& text) {
        std::puts(text.constData());
        std::fflush(stdout);
    };
    const QString token = activationTokenOfEnvironment();
    const QCoreApplication application(argc, argv);
    ApplicationService service(QDBusConnection::connectToBus(QDBusConnection::SessionBus, "service"));
    const ApplicationService::Start start = service.start(token);
    // In the order of the enumerators.
    const QByteArray results[] = {"first " + service.activationToken().toUtf8(), "handed over", "refused",
                                  "only to quit"};
    say(results[static_cast<int>(start)]);
    if (start != ApplicationService::Start::first) return 0;
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
    std::function<void()> end;

    Q_SCRIPTABLE void Activate(const QVariantMap& /*platformData*/, const QDBusMessage& message)
    {
        message.setDelayedReply(true);
        end();
    }
};

/// Runs the program with only the service.
struct ServiceRun : ProgramRun {
    explicit ServiceRun(const QString& busAddress, const QStringList& variables = {})
        : ProgramRun(QCoreApplication::applicationFilePath(), {"ServiceProgram"}, busAddress, variables)
    {
    }
};

/// The service, started in this process.
struct ServiceFixture {
    ServiceFixture()
    {
        if (service.start({}) != ApplicationService::Start::first) qFatal("the service does not start");
    }

    SessionBus bus;
    ApplicationService service{bus.connect()};
    QSignalSpy open{&service, &ApplicationService::openRequested};
    QSignalSpy quit{&service, &ApplicationService::quitRequested};
    /// The service as launchers see it.
    RemoteObject application = harbexOn(bus.connect());
};

} // namespace

class TestApplicationService : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // Starts.
    void laterStartsHandOverWithTheirActivationToken()
    {
        SessionBus bus;
        const QString wayland = "XDG_ACTIVATION_TOKEN=of-wayland";
        const QString x11 = "DESKTOP_STARTUP_ID=of-x11_TIME1";
        const std::pair<QStringList, QByteArray> cases[] = {
            {{wayland}, "open of-wayland"},
            {{x11}, "open of-x11_TIME1"},
            {{wayland, x11}, "open of-wayland"},
            {{}, "open"},
        };
        ServiceRun first(bus.address());
        QCOMPARE(first.nextLine(), "first");
        for (const auto& [variables, request] : cases) {
            ServiceRun later(bus.address(), variables);
            QCOMPARE(later.nextLine(), "handed over");
            QCOMPARE(first.nextLine(), request);
        }
    }

    void startsAtOnceLeaveExactlyOne()
    {
        for (int round = 0; round < 20; ++round) {
            const SessionBus bus;
            const QStringList token{"XDG_ACTIVATION_TOKEN=token"};
            ServiceRun one(bus.address(), token);
            ServiceRun other(bus.address(), token);
            const QByteArray saidByOne = one.nextLine();
            const QByteArray saidByOther = other.nextLine();
            const bool isOneFirst = saidByOther == "handed over";
            ServiceRun& winner = isOneFirst ? one : other;
            QCOMPARE(isOneFirst ? saidByOther : saidByOne, "handed over");
            // The call of the loser comes during the start of the winner or after it.
            const QByteArray said = isOneFirst ? saidByOne : saidByOther;
            if (said != "first token") QCOMPARE(said + '|' + winner.nextLine(), "first|open token");
            QVERIFY(winner.isRunning());
        }
    }

    void secondStartGoesOnWhenTheFirstEndsMeanwhile()
    {
        SessionBus bus;
        std::optional<QDBusConnection> connection(bus.connect());
        EndingApplication first;
        first.end = [&] {
            bus.close(*connection);
            connection.reset();
        };
        QVERIFY(connection->registerObject("/org/harbex/Harbex", &first,
                                           QDBusConnection::ExportScriptableInvokables));
        QVERIFY(connection->registerService(busName));
        ServiceRun second(bus.address());
        QTRY_VERIFY(!connection);
        QCOMPARE(second.nextLine(), "first");
    }

    void startIsRefusedAtOnceWhenAnotherProgramHasTheName()
    {
        SessionBus bus;
        QVERIFY(bus.connect().registerService(busName));
        QElapsedTimer timer;
        timer.start();
        ServiceRun program(bus.address());
        QCOMPARE(program.nextLine(), "refused");
        QVERIFY(timer.elapsed() < 4000);
    }

    void nameCannotBeTakenOver()
    {
        ServiceFixture fixture;
        const QDBusReply<QDBusConnectionInterface::RegisterServiceReply> reply =
            fixture.bus.connect().interface()->registerService(
                busName, QDBusConnectionInterface::ReplaceExistingService,
                QDBusConnectionInterface::AllowReplacement);
        QVERIFY(reply != QDBusConnectionInterface::ServiceRegistered);
    }

    void callsThatStartTheProgramCountAtItsStart()
    {
        const QByteArray activate = "Activate";
        const QByteArray quit = "ActivateAction";
        const std::pair<QByteArrayList, QByteArray> cases[] = {
            {{activate}, "first token 1"},      {{activate, activate}, "first token 2"},
            {{quit}, "only to quit"},           {{quit, activate}, "first token 2"},
            {{activate, quit}, "only to quit"},
        };
        for (const auto& [calls, result] : cases) {
            const QTemporaryDir folder;
            QFile said(folder.filePath("said"));
            writeServiceFile(folder.path(), "exec '" + QCoreApplication::applicationFilePath().toUtf8() +
                                                "' ServiceProgram >'" + said.fileName().toUtf8() + "'");
            SessionBus bus(folder.path());
            // All calls but the last arrive before the program has started.
            const RemoteObject remote = harbexOn(bus.connect());
            for (qsizetype i = 1; i <= calls.size(); ++i) {
                const QByteArray& method = calls[i - 1];
                QVariantList arguments{QVariantMap{{"activation-token", QString("token %1").arg(i)}}};
                if (method == quit) arguments = {"quit", QVariantList(), QVariantMap()};
                if (i < calls.size())
                    remote.send(method, arguments);
                else
                    QVERIFY(remote.accepts(method, arguments));
            }
            QTRY_VERIFY(said.size() > 0);
            QVERIFY(said.open(QIODevice::ReadOnly));
            QCOMPARE(said.readLine().trimmed(), result);
            QCOMPARE(bus.startedPrograms(), 1);
            // A program that serves the name outlives its bus.
            const uint process = bus.connect().interface()->servicePid(busName);
            if (process != 0) ::kill(pid_t(process), SIGTERM);
        }
    }

    // Calls.
    void activateOpensWithTheTokenOfEitherDisplaySystem()
    {
        const QString wayland = "activation-token";
        const QString x11 = "desktop-startup-id";
        const QString w = "w";
        const QString x = "x";
        const std::tuple<const char*, QVariantMap, QString> cases[] = {
            {"Wayland", {{wayland, w}}, w},
            {"X11", {{x11, x}}, x},
            {"both", {{wayland, w}, {x11, x}}, w},
            {"one empty", {{wayland, QString()}, {x11, x}}, x},
            {"none", {{"cwd", "/"}}, {}},
            {"no text", {{wayland, QStringList({w, x})}}, {}},
            {"too long", {{wayland, QString(1'000'000, u'x')}}, {}},
        };
        ServiceFixture fixture;
        for (const auto& [name, platformData, token] : cases) {
            QVERIFY2(fixture.application.accepts("Activate", {platformData}), name);
            QCOMPARE(fixture.open.count(), 1);
            QCOMPARE(fixture.open.takeFirst(), QVariantList({token}));
        }
        // The files are ignored.
        const QStringList uris{"file:///etc", "no URI"};
        QVERIFY(fixture.application.accepts("Open", {uris, QVariantMap{{wayland, w}}}));
        QCOMPARE(fixture.open.count(), 1);
        QCOMPARE(fixture.open.takeFirst(), QVariantList({w}));
    }

    void theSignalQuits()
    {
        ServiceFixture fixture;
        for (const char* interface : {"org.freedesktop.Application", "org.harbex.Harbex"}) {
            QCOMPARE(fixture.quit.count(), 0);
            fixture.application.bus.send(
                QDBusMessage::createSignal(fixture.application.path, interface, "Quit"));
            // The reply comes after the signal.
            QVERIFY(fixture.application.accepts("Activate", {QVariantMap()}));
        }
        QCOMPARE(fixture.quit.count(), 1);
    }

    void onlyTheActionQuitQuits()
    {
        ServiceFixture fixture;
        const QVariantList parameter{1, "x"};
        for (const char* action : {"", "Quit", "quit ", "preferences", "quit"}) {
            QCOMPARE(fixture.quit.count(), 0);
            QVERIFY(fixture.application.accepts("ActivateAction", {action, parameter, QVariantMap()}));
        }
        QCOMPARE(fixture.quit.count(), 1);
        QCOMPARE(fixture.open.count(), 0);
    }
};

HARBEX_TEST(TestApplicationService)

#include "tst_ApplicationService.moc"
