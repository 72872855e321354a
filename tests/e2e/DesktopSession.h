#pragma once

#include "e2e/Accessible.h"
#include "support/SessionBus.h"

#include <QProcess>
#include <QRect>
#include <QString>
#include <QStringList>
#include <QTest>

#include <memory>
#include <optional>
#include <vector>

namespace harbex::test
{

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

    explicit DesktopSession(Kind kind = Kind::x11);
    ~DesktopSession();
    DesktopSession(const DesktopSession&) = delete;
    DesktopSession& operator=(const DesktopSession&) = delete;

    /// Sets an environment variable for programs that are started later.
    void set(const char* variable, const QString& value);

    /// Starts a program. It runs until it ends or the session ends.
    QProcess& start(const char* program, const QStringList& arguments = {});

    /// Starts the D-Bus service `name` from its service file, and waits until it owns the name.
    void startService(const char* name);

    /// Runs a program and returns its standard output. Empty if it failed.
    std::optional<QByteArray> run(const char* program, const QStringList& arguments = {});

    /// Returns the window with this role ("frame", "dialog") and, if given, this name. Empty if it is not
    /// visible.
    [[nodiscard]] Accessible window(const char* role, const char* name = nullptr) const;

    enum class Button { left = 1, right = 3 };

    /// Clicks the centre of the rectangle. Returns false if the rectangle is empty or the click fails.
    [[nodiscard]] bool click(const QRect& place, Button button = Button::left);
    /// Presses keys one after another, for example "Return" or "shift+F10 Down".
    [[nodiscard]] bool press(const char* keys);
    [[nodiscard]] bool type(const QString& text);

    /// Returns the rectangles of the visible windows of this class, including tray icons and menus.
    [[nodiscard]] QList<QRect> windows(const char* ofClass);
    /// Returns the rectangle of an open menu of any program. Empty if there is none. It asks the X server,
    /// because menus without a parent window are not on the accessibility bus.
    [[nodiscard]] QRect openMenu();

    /// Returns the number of colours in the rectangle. 1 means that nothing is drawn there.
    [[nodiscard]] int countColours(const QRect& place);

private:
    struct XWindow {
        QRect place;
        bool isUnmanaged;
    };
    [[nodiscard]] std::vector<XWindow> visibleWindows(const char* ofClass);

    void startX11();
    void startWayland();
    void startAccessibility();
    void keepEvidence();

    Kind m_kind;
    SessionBus m_bus;
    QDBusConnection m_connection;
    QProcessEnvironment m_environment;
    std::vector<std::unique_ptr<QProcess>> m_programs;
    QDBusConnection m_accessibilityBus{QString()};
};

/// Returns the words of a text without quotes, for example the arguments of a command.
[[nodiscard]] QStringList words(const char* text);

/// Waits until the condition is true. On timeout the test fails with the message, which names the step.
#define STEP(message, condition)                                                                             \
    QVERIFY2(QTest::qWaitFor([&] { return static_cast<bool>(condition); }, 30000), message)

} // namespace harbex::test
