#include "e2e/DesktopSession.h"

#include <QDBusConnectionInterface>
#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QSettings>

#include <csignal>
#include <sys/prctl.h>

namespace harbex::test
{

namespace
{

constexpr int patienceMilliseconds = 30000;

/// Returns an environment without the variables of the surrounding desktop.
QProcessEnvironment emptyEnvironment()
{
    const QProcessEnvironment around = QProcessEnvironment::systemEnvironment();
    QProcessEnvironment environment;
    for (const char* name : {"PATH", "HOME", "TMPDIR", "XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME",
                             "XDG_RUNTIME_DIR", "ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"}) {
        const QString variable = QString::fromLatin1(name);
        if (around.contains(variable)) environment.insert(variable, around.value(variable));
    }
    environment.insert(QStringLiteral("LC_ALL"), QStringLiteral("C.UTF-8"));
    // GSettings stay in memory instead of the user's store.
    environment.insert(QStringLiteral("GSETTINGS_BACKEND"), QStringLiteral("memory"));
    return environment;
}

} // namespace

DesktopSession::DesktopSession(Kind kind)
    : m_kind(kind), m_connection(m_bus.connect()), m_environment(emptyEnvironment())
{
    set("DBUS_SESSION_BUS_ADDRESS", m_bus.address());
    if (kind == Kind::x11)
        startX11();
    else
        startWayland();
    startAccessibility();
}

DesktopSession::~DesktopSession()
{
    if (QTest::currentTestFailed()) keepEvidence();
    QDBusConnection::disconnectFromBus(m_accessibilityBus.name());
    for (auto last = m_programs.rbegin(); last != m_programs.rend(); ++last) {
        QProcess* const program = last->get();
        // In reverse order, because the service that starts the accessibility bus also ends it.
        program->terminate();
        if (program->waitForFinished(5000)) continue;
        program->kill();
        program->waitForFinished();
    }
}

void DesktopSession::set(const char* variable, const QString& value)
{
    m_environment.insert(QString::fromLatin1(variable), value);
}

QProcess& DesktopSession::start(const char* program, const QStringList& arguments)
{
    QProcess& process = *m_programs.emplace_back(std::make_unique<QProcess>());
    process.setProcessEnvironment(m_environment);
    process.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGTERM); });
    process.start(QString::fromUtf8(program), arguments);
    if (!process.waitForStarted()) qFatal("%s: %s", program, qPrintable(process.errorString()));
    return process;
}

void DesktopSession::startService(const char* name)
{
    const QString service = QString::fromLatin1(name);
    const QSettings file(QStringLiteral("/usr/share/dbus-1/services/%1.service").arg(service),
                         QSettings::IniFormat);
    QStringList command = QProcess::splitCommand(file.value(QStringLiteral("D-BUS Service/Exec")).toString());
    if (command.isEmpty()) qFatal("%s is not installed", name);
    const QByteArray program = command.takeFirst().toUtf8();
    start(program, command);
    const auto isReady = [&] { return m_connection.interface()->isServiceRegistered(service).value(); };
    if (!QTest::qWaitFor(isReady, patienceMilliseconds)) qFatal("%s does not start", name);
}

std::optional<QByteArray> DesktopSession::run(const char* program, const QStringList& arguments)
{
    QProcess process;
    process.setProcessEnvironment(m_environment);
    process.setStandardInputFile(QProcess::nullDevice());
    process.start(QString::fromUtf8(program), arguments);
    const bool hasWorked = process.waitForFinished(patienceMilliseconds) &&
                           process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    return hasWorked ? std::optional(process.readAllStandardOutput()) : std::nullopt;
}

void DesktopSession::startX11()
{
    QProcess& server = start("Xvfb", words("-displayfd 1 -screen 0 1280x800x24 -nolisten tcp -noreset"));
    if (!QTest::qWaitFor([&] { return server.canReadLine(); }, patienceMilliseconds))
        qFatal("no screen: %s", server.readAllStandardError().constData());
    set("DISPLAY", QStringLiteral(":") + QString::fromLatin1(server.readLine().trimmed()));

    start("openbox");
    // The window manager sets the number of desktops when it is ready.
    const auto isManaged = [&] { return run("xdotool", words("get_num_desktops")).has_value(); };
    if (!QTest::qWaitFor(isManaged, patienceMilliseconds)) qFatal("no window manager");
    // The first key press announces a new keyboard. The window manager then releases its key grabs for a
    // moment, so that it could miss one of its own keys.
    if (!press("Shift_L")) qFatal("no keyboard");
}

void DesktopSession::startWayland()
{
    const QString name = QStringLiteral("harbex-test-%1").arg(QCoreApplication::applicationPid());
    start("weston", words("--backend=headless-backend.so --use-pixman --width=1280 --height=800 --no-config "
                          "--debug")
                        << QStringLiteral("--socket=") + name);
    const QString socket = m_environment.value(QStringLiteral("XDG_RUNTIME_DIR")) + u'/' + name;
    if (!QTest::qWaitFor([&] { return QFile::exists(socket); }, patienceMilliseconds))
        qFatal("no compositor: %s", m_programs.back()->readAllStandardError().constData());
    set("WAYLAND_DISPLAY", name);
    set("QT_QPA_PLATFORM", QStringLiteral("wayland"));
}

void DesktopSession::startAccessibility()
{
    startService("org.a11y.Bus");
    const RemoteObject launcher{m_connection, QStringLiteral("org.a11y.Bus"), QStringLiteral("/org/a11y/bus"),
                                QStringLiteral("org.a11y.Bus")};
    QString address;
    const auto hasAddress = [&] {
        address = launcher.call("GetAddress").arguments().value(0).toString();
        return address.startsWith(QLatin1String("unix:"));
    };
    if (!QTest::qWaitFor(hasAddress, patienceMilliseconds)) qFatal("no accessibility bus");

    const RemoteObject properties{m_connection, launcher.service, launcher.path,
                                  QStringLiteral("org.freedesktop.DBus.Properties")};
    (void)properties.call("Set",
                          {QStringLiteral("org.a11y.Status"), QStringLiteral("IsEnabled"), asVariant(true)});
    set("QT_LINUX_ACCESSIBILITY_ALWAYS_ON", QStringLiteral("1"));
    m_accessibilityBus = QDBusConnection::connectToBus(address, address);
    if (!m_accessibilityBus.isConnected()) qFatal("no connection to the accessibility bus");
}

Accessible DesktopSession::window(const char* role, const char* name) const
{
    const QList<Accessible> programs = Accessible::desktop(m_accessibilityBus).children();
    for (const Accessible& program : programs) {
        const QList<Accessible> windows = program.children();
        for (const Accessible& window : windows)
            if (window.isShown(role, name)) return window;
    }
    return {};
}

bool DesktopSession::click(const QRect& place, Button button)
{
    if (place.isEmpty()) return false;
    const QString command = QStringLiteral("mousemove %1 %2 click %3")
                                .arg(place.center().x())
                                .arg(place.center().y())
                                .arg(static_cast<int>(button));
    return run("xdotool", command.split(u' ')).has_value();
}

bool DesktopSession::press(const char* keys)
{
    return run("xdotool", words("key") + words(keys)).has_value();
}

bool DesktopSession::type(const QString& text)
{
    return run("xdotool", words("type --") << text).has_value();
}

QList<QRect> DesktopSession::windows(const char* ofClass)
{
    QList<QRect> places;
    for (const XWindow& window : visibleWindows(ofClass))
        places.append(window.place);
    return places;
}

QRect DesktopSession::openMenu()
{
    // Menus are the only unmanaged windows of a visible size. Hidden helper windows are tiny.
    for (const XWindow& window : visibleWindows("."))
        if (window.isUnmanaged && window.place.height() > 1) return window.place;
    return {};
}

std::vector<DesktopSession::XWindow> DesktopSession::visibleWindows(const char* ofClass)
{
    std::vector<XWindow> windows;
    const QByteArray ids =
        run("xdotool", words("search --onlyvisible --class") + words(ofClass)).value_or(QByteArray());
    const auto number = [](const QString& report, const char* label) {
        const QRegularExpression line(QString::fromLatin1(label) + QStringLiteral(": +(-?\\d+)"));
        return line.match(report).captured(1).toInt();
    };
    for (const QByteArray& id : ids.trimmed().split('\n')) {
        if (id.isEmpty()) continue;
        // The window may have closed since the search.
        const auto answer = run("xwininfo", words("-stats -children -id") + words(id));
        if (!answer) continue;
        const QString report = QString::fromUtf8(*answer);
        windows.push_back({{number(report, "Absolute upper-left X"), number(report, "Absolute upper-left Y"),
                            number(report, "Width"), number(report, "Height")},
                           report.contains(QLatin1String("Override Redirect State: yes")) &&
                               report.contains(QRegularExpression(QStringLiteral(
                                   "Root window id: (0x[0-9a-f]+) .*\n *Parent window id: \\1 ")))});
    }
    return windows;
}

int DesktopSession::countColours(const QRect& place)
{
    // "import" takes an empty rectangle for the whole screen.
    if (place.isEmpty()) return 0;
    const QString crop =
        QStringLiteral("%1x%2+%3+%4").arg(place.width()).arg(place.height()).arg(place.x()).arg(place.y());
    const QStringList arguments = words("-window root -format %k -crop") << crop << QStringLiteral("info:");
    return run("import", arguments).value_or(QByteArray()).toInt();
}

void DesktopSession::keepEvidence()
{
    const QString place = QStringLiteral(HARBEX_EVIDENCE);
    const QString name = QStringLiteral("%1/%2.%3")
                             .arg(place, QCoreApplication::applicationName(),
                                  QString::fromLatin1(QTest::currentTestFunction()));
    QDir().mkpath(place);
    if (m_kind == Kind::x11) {
        run("import", words("-window root") << name + QStringLiteral(".png"));
        qInfo("The screen as it was: %s.png", qPrintable(name));
    } else {
        // weston-screenshooter chooses the file name, which contains the time.
        set("XDG_PICTURES_DIR", place);
        run("weston-screenshooter");
        qInfo("The screen as it was: the latest %s/wayland-screenshot-*.png", qPrintable(place));
    }
    QFile log(name + QStringLiteral(".log"));
    if (!log.open(QIODevice::WriteOnly)) return;
    for (const auto& program : m_programs) {
        log.write("=== " + program->program().toUtf8() + '\n' + program->readAllStandardOutput() +
                  program->readAllStandardError() + '\n');
    }
    log.write(Accessible::desktop(m_accessibilityBus).outline().toUtf8());
    qInfo("What the programs printed and showed: %s.log", qPrintable(name));
}

QStringList words(const char* text)
{
    return QString::fromLatin1(text).split(u' ');
}

} // namespace harbex::test
