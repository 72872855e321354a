#include "support/SessionBus.h"
#include "support/SettingsPortal.h"
#include "support/WindowTestMain.h"
#include "ui/ColorScheme.h"

#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QElapsedTimer>
#include <QWidget>

#include <cmath>

using namespace harbex;
using namespace harbex::test;

namespace
{

const QString portalService = QStringLiteral("org.freedesktop.portal.Desktop");
const QString portalPath = QStringLiteral("/org/freedesktop/portal/desktop");
const QString appearance = QStringLiteral("org.freedesktop.appearance");
const QString colorScheme = QStringLiteral("color-scheme");

/// A portal in this process. It replies only when the test says so.
class SlowPortal : public QDBusVirtualObject
{
public:
    explicit SlowPortal(SessionBus& bus) : m_connection(bus.connect())
    {
        m_connection.registerVirtualObject(portalPath, this);
        m_connection.registerService(portalService);
    }

    [[nodiscard]] QString introspect(const QString& /*path*/) const override { return {}; }
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& /*connection*/) override
    {
        m_questions.append(message);
        return true;
    }

    [[nodiscard]] int questions() const { return int(m_questions.size()); }
    /// Replies to the latest question.
    void reply(uint scheme) const
    {
        m_connection.send(m_questions.last().createReply(asVariant(asVariant(scheme))));
    }

private:
    QDBusConnection m_connection;
    QList<QDBusMessage> m_questions;
};

bool isDark()
{
    const QPalette palette = QApplication::palette();
    return palette.color(QPalette::Window).lightness() < palette.color(QPalette::WindowText).lightness();
}

/// Returns the contrast ratio: 1 for equal colours, 21 for black on white.
double contrast(const QColor& text, const QColor& ground)
{
    const auto part = [](float value) {
        return value <= 0.03928F ? value / 12.92 : std::pow((value + 0.055) / 1.055, 2.4);
    };
    const auto luminance = [&](const QColor& colour) {
        return 0.2126 * part(colour.redF()) + 0.7152 * part(colour.greenF()) + 0.0722 * part(colour.blueF());
    };
    const double a = luminance(text);
    const double b = luminance(ground);
    return (std::max(a, b) + 0.05) / (std::min(a, b) + 0.05);
}

constexpr uint noPreference = 0;
constexpr uint dark = 1;
constexpr uint light = 2;

} // namespace

class TestColorScheme : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        QApplication::setPalette(QPalette());
        m_bus = std::make_unique<SessionBus>();
        m_connection.emplace(m_bus->connect());
    }

    void cleanup()
    {
        m_connection.reset();
        m_bus.reset();
        QApplication::setPalette(QPalette());
    }

    // First, because Qt 6.4 can connect a QDBusVariant after anything in the process has used that type.
    void everyChangeOfTheDesktopIsFollowed()
    {
        const QPalette before = QApplication::palette();
        SettingsPortal portal(*m_bus);
        const ColorScheme scheme(*m_connection);
        QVERIFY(SettingsPortal::replies(*m_connection));
        for (const uint other : {light, noPreference, light}) {
            portal.set(appearance, colorScheme, dark);
            QTRY_VERIFY(isDark());
            portal.set(appearance, colorScheme, other);
            QTRY_VERIFY(!isDark());
            QCOMPARE(QApplication::palette(), before);
        }
    }

    void aDarkDesktopMakesTheProgramDarkWithoutBlocking()
    {
        SettingsPortal portal(*m_bus);
        portal.set(appearance, colorScheme, dark);
        QWidget window;
        const ColorScheme scheme(*m_connection);
        QVERIFY(!isDark());
        QTRY_VERIFY(isDark());
        QCOMPARE(QApplication::palette().color(QPalette::Window),
                 ColorScheme::darkPalette().color(QPalette::Window));
        QTRY_COMPARE(window.palette().color(QPalette::Window),
                     QApplication::palette().color(QPalette::Window));
    }

    void otherAnswersLeaveThePalette_data()
    {
        QTest::addColumn<QVariant>("answer");
        QTest::newRow("no preference") << QVariant(noPreference);
        QTest::newRow("light") << QVariant(light);
        QTest::newRow("unknown") << QVariant(3U);
        QTest::newRow("a text") << QVariant(QStringLiteral("dark"));
        QTest::newRow("a list") << QVariant(QStringList{QStringLiteral("1")});
    }

    void otherAnswersLeaveThePalette()
    {
        QFETCH(const QVariant, answer);
        const QPalette before = QApplication::palette();
        SettingsPortal portal(*m_bus);
        portal.set(appearance, colorScheme, answer);
        const ColorScheme scheme(*m_connection);
        QVERIFY(SettingsPortal::replies(*m_connection));
        QCOMPARE(portal.questions(), 1);
        QCOMPARE(QApplication::palette(), before);
    }

    void changesOfOtherSettingsAreIgnored()
    {
        SettingsPortal portal(*m_bus);
        portal.set(appearance, colorScheme, dark);
        const ColorScheme scheme(*m_connection);
        QTRY_VERIFY(isDark());
        portal.set(appearance, QStringLiteral("contrast"), light);
        QVERIFY(SettingsPortal::replies(*m_connection));
        QVERIFY2(isDark(), "another key");
        portal.set(QStringLiteral("org.gnome.desktop.interface"), colorScheme, light);
        QVERIFY(SettingsPortal::replies(*m_connection));
        QVERIFY2(isDark(), "another group");
    }

    void withoutAPortalNothingChangesUntilOneStarts()
    {
        const QPalette before = QApplication::palette();
        const ColorScheme scheme(*m_connection);
        QVERIFY2(!SettingsPortal::replies(*m_connection), "the bus replies with an error");
        QCOMPARE(QApplication::palette(), before);
        SettingsPortal portal(*m_bus);
        portal.set(appearance, colorScheme, dark);
        QTRY_VERIFY(isDark());
    }

    void withoutABusNothingChanges()
    {
        const QPalette before = QApplication::palette();
        const auto noBus =
            QDBusConnection::connectToBus(QStringLiteral("unix:path=/nonexistent"), QStringLiteral("none"));
        ColorScheme scheme(noBus);
        scheme.waitForAnswer();
        QCoreApplication::processEvents();
        QCOMPARE(QApplication::palette(), before);
    }

    void thePaletteIsRightBeforeTheFirstWindow()
    {
        SettingsPortal portal(*m_bus);
        portal.set(appearance, colorScheme, dark);
        ColorScheme scheme(*m_connection);
        scheme.waitForAnswer();
        QVERIFY(isDark());
        QCOMPARE(portal.questions(), 1);
    }

    void aPortalThatDoesNotReplyDelaysTheFirstWindowBriefly()
    {
        const SlowPortal portal(*m_bus);
        QElapsedTimer timer;
        timer.start();
        ColorScheme scheme(*m_connection);
        scheme.waitForAnswer();
        QVERIFY2(timer.elapsed() < 2000, "Qt's own limit is 25 seconds");
        timer.restart();
        scheme.waitForAnswer();
        QVERIFY2(timer.elapsed() < 50, "it waits only once");
        QVERIFY(!isDark());

        QTRY_COMPARE(portal.questions(), 2);
        portal.reply(dark);
        QTRY_VERIFY(isDark());
    }

    void anAnswerBeforeThePaletteOfThePlatformThemeIsIgnored_data()
    {
        QTest::addColumn<QByteArray>("theme");
        QTest::addColumn<bool>("isOurs");
        QTest::newRow("of the desktop") << QByteArray() << false;
        QTest::newRow("chosen") << QByteArray("kde") << false;
        QTest::newRow("another") << QByteArray("none") << true;
    }

    void anAnswerBeforeThePaletteOfThePlatformThemeIsIgnored()
    {
        QFETCH(const QByteArray, theme);
        QFETCH(const bool, isOurs);
        qputenv("XDG_CURRENT_DESKTOP", "ubuntu:KDE");
        qputenv("QT_QPA_PLATFORMTHEME", theme);
        SettingsPortal portal(*m_bus);
        portal.set(appearance, colorScheme, dark);
        // The style has a light palette, like that of Plasma before its platform theme changes it.
        ColorScheme scheme(*m_connection);
        scheme.waitForAnswer();
        qunsetenv("XDG_CURRENT_DESKTOP");
        qunsetenv("QT_QPA_PLATFORMTHEME");
        QCOMPARE(isDark(), isOurs);
    }

    void aPaletteOfTheDesktopIsLeftAlone_data()
    {
        QTest::addColumn<QColor>("window");
        QTest::addColumn<QColor>("text");
        QTest::newRow("light") << QColor(0xf6, 0xf0, 0xe0) << QColor(Qt::black);
        QTest::newRow("dark") << QColor(0x20, 0x23, 0x26) << QColor(0xfc, 0xfc, 0xfc);
    }

    void aPaletteOfTheDesktopIsLeftAlone()
    {
        QFETCH(const QColor, window);
        QFETCH(const QColor, text);
        SettingsPortal portal(*m_bus);
        const ColorScheme scheme(*m_connection);
        QVERIFY(SettingsPortal::replies(*m_connection));
        // As the desktop's plugin of Qt sets it, before the portal reports the change.
        QPalette own = QApplication::palette();
        own.setColor(QPalette::Window, window);
        own.setColor(QPalette::WindowText, text);
        QApplication::setPalette(own);
        for (const uint preference : {dark, light, dark}) {
            portal.set(appearance, colorScheme, preference);
            QVERIFY(SettingsPortal::replies(*m_connection));
            QCOMPARE(QApplication::palette(), own);
        }
    }

    void everyTextOfTheDarkPaletteIsReadable()
    {
        const QPalette palette = ColorScheme::darkPalette();
        const auto ratio = [&](QPalette::ColorRole text, QPalette::ColorRole ground) {
            return contrast(palette.color(text), palette.color(ground));
        };
        QVERIFY(ratio(QPalette::WindowText, QPalette::Window) > 7);
        QVERIFY(ratio(QPalette::Text, QPalette::Base) > 7);
        QVERIFY(ratio(QPalette::Text, QPalette::AlternateBase) > 7);
        QVERIFY(ratio(QPalette::ButtonText, QPalette::Button) > 7);
        QVERIFY(ratio(QPalette::ToolTipText, QPalette::ToolTipBase) > 7);
        QVERIFY(ratio(QPalette::HighlightedText, QPalette::Highlight) > 4.5);
        QVERIFY(ratio(QPalette::PlaceholderText, QPalette::Base) > 4.5);
        QVERIFY(ratio(QPalette::Link, QPalette::Base) > 4.5);
        QVERIFY(contrast(palette.color(QPalette::Disabled, QPalette::WindowText),
                         palette.color(QPalette::Window)) > 3);
    }

private:
    std::unique_ptr<SessionBus> m_bus;
    /// The connection of the program.
    std::optional<QDBusConnection> m_connection;
};

HARBEX_WINDOW_TEST(TestColorScheme)
#include "tst_ColorScheme.moc"
