#include "support/SessionBus.h"
#include "support/SettingsPortal.h"
#include "support/WindowTestMain.h"
#include "ui/ColorScheme.h"

#include <csignal>

using namespace harbex;
using namespace harbex::test;

namespace
{

const QString portalService = "org.freedesktop.portal.Desktop";
const QString appearance = "org.freedesktop.appearance";
const QString colorScheme = "color-scheme";

bool isDark()
{
    const QPalette palette = QApplication::palette();
    return palette.color(QPalette::Window).lightness() < palette.color(QPalette::WindowText).lightness();
}

constexpr uint noPreference = 0;
constexpr uint preferDark = 1;
constexpr uint preferLight = 2;

} // namespace

class TestColorScheme : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanup() { QApplication::setPalette(QPalette()); }

    // First, because Qt 6.4 can connect a QDBusVariant after anything in the process has used that type.
    void everyChangeOfTheDesktopIsFollowed()
    {
        const QPalette before = QApplication::palette();
        SettingsPortal portal(m_bus);
        const ColorScheme scheme(m_connection);
        QVERIFY(SettingsPortal::replies(m_connection));
        for (const uint other : {preferLight, noPreference, preferLight}) {
            portal.set(appearance, colorScheme, preferDark);
            QTRY_VERIFY(isDark());
            // Other settings are ignored.
            portal.set(appearance, "contrast", other);
            portal.set("org.gnome.desktop.interface", colorScheme, other);
            QVERIFY(SettingsPortal::replies(m_connection));
            QVERIFY(isDark());
            portal.set(appearance, colorScheme, other);
            QTRY_VERIFY(!isDark());
            QCOMPARE(QApplication::palette(), before);
        }
    }

    void aDarkDesktopMakesTheProgramDarkWithoutBlocking()
    {
        SettingsPortal portal(m_bus);
        portal.set(appearance, colorScheme, preferDark);
        const ColorScheme scheme(m_connection);
        QVERIFY(!isDark());
        QTRY_VERIFY(isDark());
    }

    void otherAnswersLeaveThePalette()
    {
        const QPalette before = QApplication::palette();
        for (const QVariant& answer : {QVariant(noPreference), QVariant(preferLight), QVariant(3U), // unknown
                                       QVariant("dark"), QVariant(QStringList{"1"})}) {
            SettingsPortal portal(m_bus);
            portal.set(appearance, colorScheme, answer);
            const ColorScheme scheme(m_connection);
            QVERIFY(SettingsPortal::replies(m_connection));
            QVERIFY2(portal.questions() > 0, "two when the first answer was late");
            QCOMPARE(QApplication::palette(), before);
        }
    }

    void withoutAPortalNothingChangesUntilOneStarts()
    {
        const QPalette before = QApplication::palette();
        const ColorScheme scheme(m_connection);
        QVERIFY2(!SettingsPortal::replies(m_connection), "the bus replies with an error");
        QCOMPARE(QApplication::palette(), before);
        SettingsPortal portal(m_bus);
        portal.set(appearance, colorScheme, preferDark);
        QTRY_VERIFY(isDark());
    }

    void aPortalThatDoesNotReplyDelaysTheFirstWindowBriefly()
    {
        SettingsPortal portal(m_bus);
        portal.set(appearance, colorScheme, preferDark);
        const auto process = static_cast<pid_t>(m_connection.interface()->servicePid(portalService).value());
        ::kill(process, SIGSTOP);
        QElapsedTimer timer;
        timer.start();
        ColorScheme scheme(m_connection);
        scheme.waitForAnswer();
        QVERIFY2(timer.elapsed() < 2000, "Qt's own limit is 25 seconds");
        timer.restart();
        scheme.waitForAnswer();
        QVERIFY2(timer.elapsed() < 50, "it waits only once");
        QVERIFY(!isDark());

        ::kill(process, SIGCONT);
        QTRY_VERIFY(isDark());
        QCOMPARE(portal.questions(), 2);
    }

    void anAnswerBeforeThePaletteOfThePlatformThemeIsIgnored()
    {
        const auto isDarkWith = [this](const char* platformTheme) {
            qputenv("XDG_CURRENT_DESKTOP", "ubuntu:KDE");
            qputenv("QT_QPA_PLATFORMTHEME", platformTheme);
            SettingsPortal portal(m_bus);
            portal.set(appearance, colorScheme, preferDark);
            // The style has a light palette, like that of Plasma before its platform theme changes it.
            ColorScheme scheme(m_connection);
            scheme.waitForAnswer();
            qunsetenv("XDG_CURRENT_DESKTOP");
            qunsetenv("QT_QPA_PLATFORMTHEME");
            return isDark();
        };
        QVERIFY2(!isDarkWith(""), "the theme of the desktop");
        QVERIFY2(!isDarkWith("kde"), "a chosen theme");
        QVERIFY2(isDarkWith("none"), "another theme");
    }

    void aPaletteOfTheDesktopIsLeftAlone()
    {
        SettingsPortal portal(m_bus);
        const ColorScheme scheme(m_connection);
        QVERIFY(SettingsPortal::replies(m_connection));
        // As the desktop's plugin of Qt sets it, before the portal reports the change.
        QPalette light = QApplication::palette();
        light.setColor(QPalette::Window, QColor(0xf6, 0xf0, 0xe0));
        QPalette dark = light;
        dark.setColor(QPalette::Window, QColor(0x20, 0x23, 0x26));
        dark.setColor(QPalette::WindowText, QColor(0xfc, 0xfc, 0xfc));
        for (const QPalette& own : {light, dark}) {
            QApplication::setPalette(own);
            for (const uint preference : {preferDark, preferLight, preferDark}) {
                portal.set(appearance, colorScheme, preference);
                QVERIFY(SettingsPortal::replies(m_connection));
                QCOMPARE(QApplication::palette(), own);
            }
        }
    }

private:
    SessionBus m_bus;
    /// The connection of the program.
    QDBusConnection m_connection = m_bus.connect();
};

HARBEX_WINDOW_TEST(TestColorScheme)
#include "tst_ColorScheme.moc"
