#include "support/SessionBus.h"
#include "support/TestMain.h"
#include "ui/ActivationToken.h"
#include "ui/ApplicationService.h"

#include <QDBusConnectionInterface>
#include <QDBusReply>
#include <QElapsedTimer>
#include <QSignalSpy>
#include <QSocketNotifier>

#include <csignal>
#include <cstdio>
#include <functional>
#include <optional>
#include <unistd.h>
#include <utility>

using namespace harbex;
using namespace harbex::test;

namespace
{

constexpr QLatin1String busName("org.harbex.Harbex");

/// What the program does with the service, and nothing else: says on standard output what it is told, and
/// when it is asked something, whether it has a bus. This file's executable runs it when its argument is
/// "start".
int runProgram(int argc, char** argv)
{
    const auto say = [](const QString& text) {
        std::puts(qPrintable(text));
        std::fflush(stdout);
    };
    const QString token = activationTokenOfEnvironment();
    const QCoreApplication application(argc, argv);
    ApplicationService service(QDBusConnection::sessionBus());
    switch (service.start(token)) {
    case ApplicationService::Start::first:
        say(QStringLiteral("first"));
        break;
    case ApplicationService::Start::handedOver:
        say(QStringLiteral("handed over"));
        return 0;
    case ApplicationService::Start::refused:
        say(QStringLiteral("refused"));
        return 1;
    }
    QSocketNotifier question(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&question, &QSocketNotifier::activated, [&] {
        char byte = 0;
        if (::read(STDIN_FILENO, &byte, 1) != 1) question.setEnabled(false);
        say(QDBusConnection::sessionBus().isConnected() ? QStringLiteral("connected")
                                                        : QStringLiteral("alone"));
    });
    QObject::connect(&service, &ApplicationService::openRequested,
                     [&](const QString& given) { say(QStringLiteral("open ") + given); });
    QObject::connect(&service, &ApplicationService::quitRequested, [&] {
        say(QStringLiteral("quit"));
        QCoreApplication::exit(0);
    });
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

/// One start of that program.
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
        m_process.start(QCoreApplication::applicationFilePath(), {QStringLiteral("start")});
    }
    ~Program()
    {
        m_process.kill();
        m_process.waitForFinished();
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    /// The next line it says, once it does; empty when it has ended without one.
    [[nodiscard]] QString nextLine()
    {
        while (!m_process.canReadLine() && m_process.state() != QProcess::NotRunning) {
            if (!m_process.waitForReadyRead(30000)) break;
        }
        return QString::fromUtf8(m_process.readLine()).trimmed();
    }
    [[nodiscard]] bool isRunning() const { return m_process.state() == QProcess::Running; }

    /// Its exit status, once it has ended; -1 when it was killed or goes on.
    [[nodiscard]] int exitStatus()
    {
        if (isRunning() && !m_process.waitForFinished(30000)) return -1;
        return m_process.exitStatus() == QProcess::NormalExit ? m_process.exitCode() : -1;
    }
    [[nodiscard]] bool hasBus()
    {
        m_process.write("?");
        m_process.waitForBytesWritten();
        return nextLine() == QLatin1String("connected");
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
    void cleanup() { m_bus.reset(); }

    void firstStartGoesOn();
    void secondStartHandsOverAndEndsWithStatusZero();
    void secondStartPassesItsActivationToken_data();
    void secondStartPassesItsActivationToken();
    void eachLaterStartHandsOverAgain();
    void startAfterTheEndIsTheFirst();
    void startsAtOnceLeaveExactlyOne();
    void startWithoutABusGoesOn();
    void startWithABusThatEndsLaterGoesOn();

    void secondStartIsRefusedByOneThatHangs();
    void secondStartGoesOnWhenTheFirstEndsMeanwhile();
    void strangerUnderTheNameIsNoReasonToWait();
    void nameCannotBeTakenOver();

    void activateOpens();
    void openOpensWhateverTheFiles();
    void actionQuitQuits();
    void unknownActionIsIgnored();
    void tokenIsThatOfEitherDisplaySystem_data();
    void tokenIsThatOfEitherDisplaySystem();
    void wrongCallsAreErrors_data();
    void wrongCallsAreErrors();

private:
    [[nodiscard]] RemoteObject application() const
    {
        return {m_bus->connect(), busName, QStringLiteral("/org/harbex/Harbex"),
                QStringLiteral("org.freedesktop.Application")};
    }

    std::unique_ptr<SessionBus> m_bus;
};

void TestApplicationService::firstStartGoesOn()
{
    Program first(m_bus->address());
    QCOMPARE(first.nextLine(), QStringLiteral("first"));
    QVERIFY(m_bus->connect().interface()->isServiceRegistered(busName).value());
}

void TestApplicationService::secondStartHandsOverAndEndsWithStatusZero()
{
    Program first(m_bus->address());
    QCOMPARE(first.nextLine(), QStringLiteral("first"));
    Program second(m_bus->address());
    QCOMPARE(second.nextLine(), QStringLiteral("handed over"));
    QCOMPARE(second.exitStatus(), 0);
    QCOMPARE(first.nextLine(), QStringLiteral("open"));
    QVERIFY(first.isRunning());
}

void TestApplicationService::secondStartPassesItsActivationToken_data()
{
    QTest::addColumn<QStringList>("variables");
    QTest::addColumn<QString>("token");
    const QString wayland = QStringLiteral("XDG_ACTIVATION_TOKEN=of-wayland");
    const QString x11 = QStringLiteral("DESKTOP_STARTUP_ID=of-x11_TIME1");
    QTest::newRow("Wayland") << QStringList(wayland) << QStringLiteral("of-wayland");
    QTest::newRow("X11") << QStringList(x11) << QStringLiteral("of-x11_TIME1");
    QTest::newRow("both") << QStringList({wayland, x11}) << QStringLiteral("of-wayland");
    QTest::newRow("none") << QStringList() << QString();
    QTest::newRow("impossible") << QStringList(QStringLiteral("XDG_ACTIVATION_TOKEN=") + QString(2000, u'x'))
                                << QString();
}

void TestApplicationService::secondStartPassesItsActivationToken()
{
    QFETCH(QStringList, variables);
    QFETCH(QString, token);
    Program first(m_bus->address());
    QCOMPARE(first.nextLine(), QStringLiteral("first"));
    Program second(m_bus->address(), variables);
    QCOMPARE(second.nextLine(), QStringLiteral("handed over"));
    QCOMPARE(first.nextLine(), (QStringLiteral("open ") + token).trimmed());
}

void TestApplicationService::eachLaterStartHandsOverAgain()
{
    Program first(m_bus->address());
    QCOMPARE(first.nextLine(), QStringLiteral("first"));
    for (int start = 0; start < 5; ++start) {
        Program later(m_bus->address());
        QCOMPARE(later.exitStatus(), 0);
        QCOMPARE(first.nextLine(), QStringLiteral("open"));
    }
}

void TestApplicationService::startAfterTheEndIsTheFirst()
{
    for (const int signal : {SIGTERM, SIGKILL}) {
        Program program(m_bus->address());
        QCOMPARE(program.nextLine(), QStringLiteral("first"));
        program.signal(signal);
        QCOMPARE(program.exitStatus(), -1);
    }
}

void TestApplicationService::startsAtOnceLeaveExactlyOne()
{
    for (int round = 0; round < 20; ++round) {
        const SessionBus bus;
        Program one(bus.address());
        Program other(bus.address());
        const QString first = QStringLiteral("first");
        const QString handedOver = QStringLiteral("handed over");
        const QStringList said{one.nextLine(), other.nextLine()};
        QVERIFY2(said == QStringList({first, handedOver}) || said == QStringList({handedOver, first}),
                 qPrintable(said.join(u'|')));
        Program& winner = said.first() == first ? one : other;
        Program& loser = said.first() == first ? other : one;
        QCOMPARE(loser.exitStatus(), 0);
        QCOMPARE(winner.nextLine(), QStringLiteral("open"));
        QVERIFY(winner.isRunning());
    }
}

void TestApplicationService::startWithoutABusGoesOn()
{
    Program one(QStringLiteral("unix:path=/nonexistent"));
    Program other(QStringLiteral("unix:path=/nonexistent"));
    QCOMPARE(one.nextLine(), QStringLiteral("first"));
    QCOMPARE(other.nextLine(), QStringLiteral("first"));
}

void TestApplicationService::startWithABusThatEndsLaterGoesOn()
{
    Program program(m_bus->address());
    QCOMPARE(program.nextLine(), QStringLiteral("first"));
    QVERIFY(program.hasBus());
    m_bus.reset();
    QTRY_VERIFY(!program.hasBus());
    QVERIFY(program.isRunning());
}

void TestApplicationService::secondStartIsRefusedByOneThatHangs()
{
    Program first(m_bus->address());
    QCOMPARE(first.nextLine(), QStringLiteral("first"));
    first.signal(SIGSTOP);
    QElapsedTimer timer;
    timer.start();
    Program second(m_bus->address());
    QCOMPARE(second.nextLine(), QStringLiteral("refused"));
    QCOMPARE(second.exitStatus(), 1);
    QVERIFY2(timer.elapsed() >= 4000, "one that is slow for a moment must have its chance");
    first.signal(SIGCONT);
    QVERIFY(first.isRunning());
}

void TestApplicationService::secondStartGoesOnWhenTheFirstEndsMeanwhile()
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
    QCOMPARE(second.nextLine(), QStringLiteral("first"));
}

void TestApplicationService::strangerUnderTheNameIsNoReasonToWait()
{
    QDBusConnection stranger = m_bus->connect();
    QVERIFY(stranger.registerService(busName));
    QElapsedTimer timer;
    timer.start();
    Program program(m_bus->address());
    QCOMPARE(program.nextLine(), QStringLiteral("refused"));
    QCOMPARE(program.exitStatus(), 1);
    QVERIFY(timer.elapsed() < 4000);
}

void TestApplicationService::nameCannotBeTakenOver()
{
    Program first(m_bus->address());
    QCOMPARE(first.nextLine(), QStringLiteral("first"));
    const QDBusReply<QDBusConnectionInterface::RegisterServiceReply> reply =
        m_bus->connect().interface()->registerService(busName,
                                                      QDBusConnectionInterface::ReplaceExistingService,
                                                      QDBusConnectionInterface::AllowReplacement);
    QVERIFY(reply != QDBusConnectionInterface::ServiceRegistered);
}

void TestApplicationService::activateOpens()
{
    ApplicationService service(m_bus->connect());
    QVERIFY(service.start({}) == ApplicationService::Start::first);
    QSignalSpy open(&service, &ApplicationService::openRequested);
    QCOMPARE(application().call(QStringLiteral("Activate"), {QVariantMap()}).type(),
             QDBusMessage::ReplyMessage);
    QCOMPARE(open.count(), 1);
}

void TestApplicationService::openOpensWhateverTheFiles()
{
    ApplicationService service(m_bus->connect());
    QVERIFY(service.start({}) == ApplicationService::Start::first);
    QSignalSpy open(&service, &ApplicationService::openRequested);
    const QStringList uris{QStringLiteral("file:///etc"), QStringLiteral("no URI")};
    const QVariantMap platformData{{QStringLiteral("activation-token"), QStringLiteral("token")}};
    QCOMPARE(application().call(QStringLiteral("Open"), {uris, platformData}).type(),
             QDBusMessage::ReplyMessage);
    QCOMPARE(open.takeFirst(), QVariantList({QStringLiteral("token")}));
}

void TestApplicationService::actionQuitQuits()
{
    Program first(m_bus->address());
    QCOMPARE(first.nextLine(), QStringLiteral("first"));
    const QDBusMessage answer = application().call(QStringLiteral("ActivateAction"),
                                                   {QStringLiteral("quit"), QVariantList(), QVariantMap()});
    QCOMPARE(answer.type(), QDBusMessage::ReplyMessage);
    QCOMPARE(first.nextLine(), QStringLiteral("quit"));
    QCOMPARE(first.exitStatus(), 0);
}

void TestApplicationService::unknownActionIsIgnored()
{
    ApplicationService service(m_bus->connect());
    QVERIFY(service.start({}) == ApplicationService::Start::first);
    const QSignalSpy open(&service, &ApplicationService::openRequested);
    const QSignalSpy quit(&service, &ApplicationService::quitRequested);
    for (const char* action : {"", "Quit", "quit ", "preferences"}) {
        const QDBusMessage answer = application().call(
            QStringLiteral("ActivateAction"),
            {QString::fromLatin1(action), QVariantList({1, QStringLiteral("x")}), QVariantMap()});
        QCOMPARE(answer.type(), QDBusMessage::ReplyMessage);
    }
    QCOMPARE(open.count() + quit.count(), 0);
}

void TestApplicationService::tokenIsThatOfEitherDisplaySystem_data()
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
    QTest::newRow("impossible") << QVariantMap{{wayland, QString(1'000'000, u'x')}} << QString();
}

void TestApplicationService::tokenIsThatOfEitherDisplaySystem()
{
    QFETCH(QVariantMap, platformData);
    QFETCH(QString, token);
    ApplicationService service(m_bus->connect());
    QVERIFY(service.start({}) == ApplicationService::Start::first);
    QSignalSpy open(&service, &ApplicationService::openRequested);
    QCOMPARE(application().call(QStringLiteral("Activate"), {platformData}).type(),
             QDBusMessage::ReplyMessage);
    QCOMPARE(open.takeFirst(), QVariantList({token}));
}

void TestApplicationService::wrongCallsAreErrors_data()
{
    QTest::addColumn<QString>("method");
    QTest::addColumn<QVariantList>("arguments");
    const auto row = [](const char* name, const char* method, const QVariantList& arguments) {
        QTest::newRow(name) << QString::fromLatin1(method) << arguments;
    };
    row("no arguments", "Activate", {});
    row("a text for a table", "Activate", {QStringLiteral("x")});
    row("no files", "Open", {QVariantMap()});
    row("no name", "ActivateAction", {QVariantList(), QVariantMap()});
    row("an unknown method", "Quit", {});
    row("what only the program may do", "start", {QString()});
    row("what QObject has", "deleteLater", {});
}

void TestApplicationService::wrongCallsAreErrors()
{
    QFETCH(QString, method);
    QFETCH(QVariantList, arguments);
    ApplicationService service(m_bus->connect());
    QVERIFY(service.start({}) == ApplicationService::Start::first);
    const QSignalSpy open(&service, &ApplicationService::openRequested);
    const QSignalSpy quit(&service, &ApplicationService::quitRequested);
    QCOMPARE(application().call(method, arguments).type(), QDBusMessage::ErrorMessage);
    QCOMPARE(open.count() + quit.count(), 0);
}

int main(int argc, char** argv)
{
    if (argc == 2 && qstrcmp(argv[1], "start") == 0) return runProgram(argc, argv);
    return harbex::test::runTest<QCoreApplication, TestApplicationService>(argc, argv);
}
#include "tst_ApplicationService.moc"
