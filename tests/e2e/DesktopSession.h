#pragma once

#include "e2e/Accessible.h"
#include "support/SessionBus.h"

#include <QtTest>

#include <csignal>
#include <functional>
#include <memory>
#include <optional>
#include <sys/prctl.h>
#include <vector>

namespace harbex::test
{

/// Returns the words of a text without quotes, for example the arguments of a command.
[[nodiscard]] inline QStringList words(const char* text)
{
    return QString(text).split(u' ');
}

/// Waits until the condition is true. Returns false on timeout.
[[nodiscard]] inline bool waitFor(const std::function<bool()>& condition)
{
    return QTest::qWaitFor(condition, 30000);
}

/// Waits until the condition is true. On timeout the test fails with the message, which names the step.
#define STEP(message, condition)                                                                             \
    QVERIFY2(harbex::test::waitFor([&] { return static_cast<bool>(condition); }), message)

/// A private desktop session: a session bus, the accessibility bus, and either an Xvfb screen of 1280x800
/// with a window manager, or a headless Wayland compositor. All programs in it are real. The session ends
/// with this object or with the test process.
///
/// If a check has failed, the destructor keeps a screenshot and the output of the programs, and prints their
/// paths.
class DesktopSession
{
public:
    enum class Kind { x11, wayland };

    explicit DesktopSession(Kind kind = Kind::x11)
        : m_kind(kind), m_environment(emptyEnvironment()),
          m_bus(installed("share/dbus-1/services"), m_environment), m_connection(m_bus.connect())
    {
        set("DBUS_SESSION_BUS_ADDRESS", m_bus.address());
        if (kind == Kind::x11)
            startX11();
        else
            startWayland();
        startAccessibility();
        // As at the start of a desktop: what the bus starts gets the variables of the session.
        if (!run("dbus-update-activation-environment", words("--all"))) qFatal("no environment for the bus");
    }

    ~DesktopSession()
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

    DesktopSession(const DesktopSession&) = delete;
    DesktopSession& operator=(const DesktopSession&) = delete;

    /// Installs Harbex in a folder of the home. Sessions that are created later find it like a program of the
    /// system, and their bus starts it when it is called.
    static void installHarbex()
    {
        QProcess cmake;
        cmake.setProcessChannelMode(QProcess::MergedChannels);
        cmake.start(HARBEX_CMAKE, words("--install") << HARBEX_BUILD << "--prefix" << installed(""));
        if (!cmake.waitForFinished(patienceMilliseconds) || cmake.exitCode() != 0)
            qFatal("no installation: %s", cmake.readAll().constData());
    }

    /// Returns the path of an installed file, for example "bin/harbex".
    [[nodiscard]] static QString installed(const char* file)
    {
        return QDir::home().filePath(QString("installed/") + file);
    }

    /// Sets an environment variable for programs that are started later.
    void set(const char* variable, const QString& value) { m_environment.insert(variable, value); }

    /// Writes a configuration file of another program. `path` is relative to the folder of configurations.
    /// Returns the whole path.
    static QString configure(const char* path, const QByteArray& content)
    {
        QFile file(qEnvironmentVariable("XDG_CONFIG_HOME") + u'/' + path);
        const bool isWritten = QDir().mkpath(QFileInfo(file).path()) && file.open(QIODevice::WriteOnly) &&
                               file.write(content) == content.size();
        if (!isWritten) qFatal("no %s", path);
        return file.fileName();
    }

    /// Starts a program. It runs until it ends or the session ends.
    QProcess& start(const char* program, const QStringList& arguments = {})
    {
        QProcess& process = *m_programs.emplace_back(std::make_unique<QProcess>());
        process.setProcessEnvironment(m_environment);
        process.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGTERM); });
        process.start(program, arguments);
        if (!process.waitForStarted()) qFatal("%s: %s", program, qPrintable(process.errorString()));
        return process;
    }

    /// Starts the D-Bus service `name` from its service file, and waits until it owns the name.
    void startService(const char* name)
    {
        const QString service = name;
        const QSettings file(QString("/usr/share/dbus-1/services/%1.service").arg(service),
                             QSettings::IniFormat);
        QStringList command = QProcess::splitCommand(file.value("D-BUS Service/Exec").toString());
        if (command.isEmpty()) qFatal("%s is not installed", name);
        const QByteArray program = command.takeFirst().toUtf8();
        start(program, command);
        const auto isReady = [&] { return m_connection.interface()->isServiceRegistered(service).value(); };
        if (!waitFor(isReady)) qFatal("%s does not start", name);
    }

    /// Runs a program and returns its standard output. Empty if it failed.
    std::optional<QByteArray> run(const char* program, const QStringList& arguments = {})
    {
        QProcess process;
        process.setProcessEnvironment(m_environment);
        process.setStandardInputFile(QProcess::nullDevice());
        process.start(program, arguments);
        const bool hasWorked = process.waitForFinished(patienceMilliseconds) &&
                               process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
        return hasWorked ? std::optional(process.readAllStandardOutput()) : std::nullopt;
    }

    [[nodiscard]] SessionBus& bus() { return m_bus; }
    /// Returns the process of the Harbex that runs in this session, 0 if there is none.
    [[nodiscard]] qint64 harbexProcess() const
    {
        return m_connection.interface()->servicePid("org.harbex.Harbex");
    }

    /// Returns the window with this role ("frame", "dialog") and, if given, this name. Empty if it is not
    /// visible.
    [[nodiscard]] Accessible window(const char* role, const char* name = nullptr) const
    {
        for (const Accessible& program : Accessible::desktop(m_accessibilityBus).children())
            for (const Accessible& window : program.children())
                if (window.isShown(role, name)) return window;
        return {};
    }

    enum class Button { left = 1, right = 3 };

    /// Clicks the centre of the rectangle. Returns false if the rectangle is empty or the click fails.
    [[nodiscard]] bool click(const QRect& place, Button button = Button::left)
    {
        if (place.isEmpty()) return false;
        const QString command = QString("mousemove %1 %2 click %3")
                                    .arg(place.center().x())
                                    .arg(place.center().y())
                                    .arg(static_cast<int>(button));
        return run("xdotool", command.split(u' ')).has_value();
    }

    /// Presses keys one after another, for example "Return" or "shift+F10 Down".
    [[nodiscard]] bool press(const char* keys)
    {
        return run("xdotool", words("key") + words(keys)).has_value();
    }

    [[nodiscard]] bool type(const QString& text)
    {
        return run("xdotool", words("type --") << text).has_value();
    }

    /// Returns the rectangles of the visible windows of this class, including tray icons and menus.
    [[nodiscard]] QList<QRect> windows(const char* ofClass)
    {
        QList<QRect> places;
        for (const XWindow& window : visibleWindows(ofClass))
            places.append(window.place);
        return places;
    }

    /// Returns the rectangle of an open menu of any program. Empty if there is none. It asks the X server,
    /// because menus without a parent window are not on the accessibility bus.
    [[nodiscard]] QRect openMenu()
    {
        // Menus are the only unmanaged windows of a visible size. Hidden helper windows are tiny.
        for (const XWindow& window : visibleWindows("."))
            if (window.isUnmanaged && window.place.height() > 1) return window.place;
        return {};
    }

    /// Returns the number of colours in the rectangle. 1 means that nothing is drawn there.
    [[nodiscard]] int countColours(const QRect& place)
    {
        // "import" takes an empty rectangle for the whole screen.
        if (place.isEmpty()) return 0;
        const QString crop =
            QString("%1x%2+%3+%4").arg(place.width()).arg(place.height()).arg(place.x()).arg(place.y());
        const QStringList arguments = words("-window root -format %k -crop") << crop << "info:";
        return run("import", arguments).value_or(QByteArray()).toInt();
    }

private:
    static constexpr int patienceMilliseconds = 30000;

    /// Returns an environment without the variables of the surrounding desktop.
    static QProcessEnvironment emptyEnvironment()
    {
        QProcessEnvironment environment;
        for (const char* name :
             {"PATH", "HOME", "TMPDIR", "XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME",
              "XDG_RUNTIME_DIR", "ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"})
            if (qEnvironmentVariableIsSet(name)) environment.insert(name, qEnvironmentVariable(name));
        environment.insert("PATH", installed("bin") + u':' + environment.value("PATH"));
        environment.insert("XDG_DATA_DIRS", installed("share") + ":/usr/local/share:/usr/share");
        environment.insert("LC_ALL", "C.UTF-8");
        // GSettings stay in memory instead of the user's store.
        environment.insert("GSETTINGS_BACKEND", "memory");
        return environment;
    }

    struct XWindow {
        QRect place;
        bool isUnmanaged;
    };
    [[nodiscard]] std::vector<XWindow> visibleWindows(const char* ofClass)
    {
        std::vector<XWindow> windows;
        const QByteArray ids =
            run("xdotool", words("search --onlyvisible --class") + words(ofClass)).value_or(QByteArray());
        const QRegularExpression place("Absolute upper-left X: +(-?\\d+)\n"
                                       " *Absolute upper-left Y: +(-?\\d+)\n"
                                       "(?:.*\n)*? *Width: (\\d+)\n"
                                       " *Height: (\\d+)\n");
        for (const QByteArray& id : ids.trimmed().split('\n')) {
            if (id.isEmpty()) continue;
            // The window may have closed since the search.
            const auto answer = run("xwininfo", words("-stats -children -id") + words(id));
            if (!answer) continue;
            const QString report = *answer;
            const auto number = [found = place.match(report)](int i) { return found.captured(i).toInt(); };
            windows.push_back({{number(1), number(2), number(3), number(4)},
                               report.contains("Override Redirect State: yes") &&
                                   report.contains(QRegularExpression(
                                       "Root window id: (0x[0-9a-f]+) .*\n *Parent window id: \\1 "))});
        }
        return windows;
    }

    void startX11()
    {
        QProcess& server = start("Xvfb", words("-displayfd 1 -screen 0 1280x800x24 -nolisten tcp -noreset"));
        if (!waitFor([&] { return server.canReadLine(); }))
            qFatal("no screen: %s", server.readAllStandardError().constData());
        set("DISPLAY", ":" + server.readLine().trimmed());

        start("openbox");
        // The window manager sets the number of desktops when it is ready.
        const auto isManaged = [&] { return run("xdotool", words("get_num_desktops")).has_value(); };
        if (!waitFor(isManaged)) qFatal("no window manager");
        // The first key press announces a new keyboard. The window manager then releases its key grabs for a
        // moment, so that it could miss one of its own keys.
        if (!press("Shift_L")) qFatal("no keyboard");
    }

    void startWayland()
    {
        const QString name = QString("harbex-test-%1").arg(QCoreApplication::applicationPid());
        start("weston",
              words("--backend=headless-backend.so --use-pixman --width=1280 --height=800 --no-config "
                    "--debug")
                  << "--socket=" + name);
        const QString socket = m_environment.value("XDG_RUNTIME_DIR") + u'/' + name;
        if (!waitFor([&] { return QFile::exists(socket); }))
            qFatal("no compositor: %s", m_programs.back()->readAllStandardError().constData());
        set("WAYLAND_DISPLAY", name);
        set("QT_QPA_PLATFORM", "wayland");
    }

    void startAccessibility()
    {
        startService("org.a11y.Bus");
        const RemoteObject launcher{m_connection, "org.a11y.Bus", "/org/a11y/bus", "org.a11y.Bus"};
        QString address;
        const auto hasAddress = [&] {
            address = launcher.call("GetAddress").arguments().value(0).toString();
            return address.startsWith("unix:");
        };
        if (!waitFor(hasAddress)) qFatal("no accessibility bus");

        const RemoteObject properties{m_connection, launcher.service, launcher.path,
                                      "org.freedesktop.DBus.Properties"};
        (void)properties.call("Set", {"org.a11y.Status", "IsEnabled", asVariant(true)});
        set("QT_LINUX_ACCESSIBILITY_ALWAYS_ON", "1");
        m_accessibilityBus = QDBusConnection::connectToBus(address, address);
        if (!m_accessibilityBus.isConnected()) qFatal("no connection to the accessibility bus");
    }

    void keepEvidence()
    {
        const QString place = HARBEX_EVIDENCE;
        const QString name =
            QString("%1/%2.%3").arg(place, QCoreApplication::applicationName(), QTest::currentTestFunction());
        QDir().mkpath(place);
        if (m_kind == Kind::x11) {
            run("import", words("-window root") << name + ".png");
            qInfo("The screen as it was: %s.png", qPrintable(name));
        } else {
            // weston-screenshooter chooses the file name, which contains the time.
            set("XDG_PICTURES_DIR", place);
            run("weston-screenshooter");
            qInfo("The screen as it was: the latest %s/wayland-screenshot-*.png", qPrintable(place));
        }
        QFile log(name + ".log");
        if (!log.open(QIODevice::WriteOnly)) return;
        for (const auto& program : m_programs) {
            log.write("=== " + program->program().toUtf8() + '\n' + program->readAllStandardOutput() +
                      program->readAllStandardError() + '\n');
        }
        log.write(Accessible::desktop(m_accessibilityBus).outline().toUtf8());
        qInfo("What the programs printed and showed: %s.log", qPrintable(name));
    }

    Kind m_kind;
    QProcessEnvironment m_environment;
    SessionBus m_bus;
    QDBusConnection m_connection;
    std::vector<std::unique_ptr<QProcess>> m_programs;
    QDBusConnection m_accessibilityBus{QString()};
};

} // namespace harbex::test
