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

/// A desktop session of the test's own that nobody sees: a session bus, the accessibility bus, and a screen
/// of 1280x800 with a window manager under X11, or a Wayland compositor. Its programs are real ones, and the
/// keyboard and the mouse are as real as the screen. All of it ends with this object, or with the test.
///
/// If a check has failed by then, a picture of the screen and what the programs have printed are kept, and it
/// is said where.
class DesktopSession
{
public:
    enum class Kind { x11, wayland };

    explicit DesktopSession(Kind kind = Kind::x11);
    ~DesktopSession();
    DesktopSession(const DesktopSession&) = delete;
    DesktopSession& operator=(const DesktopSession&) = delete;

    /// Sets an environment variable of the programs that are started from now on.
    void set(const char* variable, const QString& value);

    /// Starts a program, which goes on until it ends or the session does.
    QProcess& start(const QString& program, const QStringList& arguments = {});

    /// Starts the program that a session bus would start for this name, and waits until it has it.
    void startService(const QString& name);

    /// Runs a program to its end and gives what it printed; nothing when it failed.
    std::optional<QByteArray> run(const QString& program, const QStringList& arguments);

    /// The window of a program as assistive technology sees it, by its role ("frame", "dialog") and, if
    /// given, its name; empty while none is shown.
    [[nodiscard]] Accessible window(const QString& role, const QString& name = {}) const;

    enum class Button { left = 1, right = 3 };

    /// Clicks into the middle. Whether there is a place to click on.
    [[nodiscard]] bool click(const QRect& place, Button button = Button::left);
    /// Presses keys one after the other: "Return", "alt+F4".
    [[nodiscard]] bool press(const QStringList& keys);
    [[nodiscard]] bool type(const QString& text);

    /// Where the visible windows of that class are, icons in a tray and menus among them.
    [[nodiscard]] QList<QRect> windows(const QString& ofClass);
    /// Where a menu is open, whichever program shows it; empty when none is. Assistive technology is not told
    /// of menus that belong to no window.
    [[nodiscard]] QRect openMenu();

    /// How many colours are seen there: one where nothing is drawn.
    [[nodiscard]] int countColours(const QRect& place);

private:
    struct XWindow {
        QRect place;
        bool isUnmanaged;
    };
    [[nodiscard]] std::vector<XWindow> visibleWindows(const QString& ofClass);

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

/// Waits until the condition comes true, or fails the test with the message, which names the step.
#define STEP(message, condition)                                                                             \
    QVERIFY2(QTest::qWaitFor([&] { return static_cast<bool>(condition); }, 30000), message)

} // namespace harbex::test
