#include "support/SessionBus.h"
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
const QString portalInterface = QStringLiteral("org.freedesktop.portal.Settings");
const QString portalPath = QStringLiteral("/org/freedesktop/portal/desktop");
const QString appearance = QStringLiteral("org.freedesktop.appearance");
const QString colorScheme = QStringLiteral("color-scheme");

/// The settings part of the desktop portal. It replies in the main loop of the test, so code that blocks
/// until the reply would block for ever.
class Portal : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.portal.Settings")

public:
    Portal(SessionBus& bus, const QVariant& scheme) : m_connection(bus.connect()), m_scheme(scheme)
    {
        m_connection.registerObject(portalPath, this, QDBusConnection::ExportAllSlots);
        m_connection.registerService(portalService);
    }
    ~Portal() override { m_connection.unregisterService(portalService); }

    void change(const QString& group, const QString& key, const QVariant& value) const
    {
        auto signal =
            QDBusMessage::createSignal(portalPath, portalInterface, QStringLiteral("SettingChanged"));
        signal << group << key << QVariant::fromValue(QDBusVariant(value));
        m_connection.send(signal);
    }

    int questions = 0;

public Q_SLOTS:
    QDBusVariant Read(const QString& group, const QString& key)
    {
        if (group == appearance && key == colorScheme) ++questions;
        return QDBusVariant(QVariant::fromValue(QDBusVariant(m_scheme)));
    }

private:
    QDBusConnection m_connection;
    QVariant m_scheme;
};

/// A portal that never replies.
class SilentPortal : public QDBusVirtualObject
{
public:
    explicit SilentPortal(SessionBus& bus) : m_connection(bus.connect())
    {
        m_connection.registerVirtualObject(portalPath, this);
        m_connection.registerService(portalService);
    }

    [[nodiscard]] QString introspect(const QString& /*path*/) const override { return {}; }
    bool handleMessage(const QDBusMessage& /*message*/, const QDBusConnection& /*connection*/) override
    {
        ++questions;
        return true;
    }

    int questions = 0;

private:
    QDBusConnection m_connection;
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

/// Reads the setting from the portal. A bus keeps the order of messages from one sender to one receiver, so
/// afterwards all earlier signals and replies of the portal to this connection have been handled.
bool isReplyReceived(const QDBusConnection& connection)
{
    const RemoteObject settings{connection, portalService, portalPath, portalInterface};
    return settings.accepts("Read", {appearance, colorScheme});
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

    void aDarkDesktopMakesTheProgramDarkWithoutBlocking()
    {
        const Portal portal(*m_bus, dark);
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
        const Portal portal(*m_bus, answer);
        const ColorScheme scheme(*m_connection);
        QVERIFY(isReplyReceived(*m_connection));
        QCOMPARE(portal.questions, 2);
        QCOMPARE(QApplication::palette(), before);
    }

    void aChangeOfTheDesktopIsFollowed()
    {
        const QPalette before = QApplication::palette();
        const Portal portal(*m_bus, light);
        const ColorScheme scheme(*m_connection);
        QVERIFY(isReplyReceived(*m_connection));
        for (const uint other : {light, noPreference}) {
            portal.change(appearance, colorScheme, dark);
            QTRY_VERIFY(isDark());
            portal.change(appearance, colorScheme, other);
            QTRY_VERIFY(!isDark());
            QCOMPARE(QApplication::palette(), before);
        }
    }

    void changesOfOtherSettingsAreIgnored()
    {
        const Portal portal(*m_bus, dark);
        const ColorScheme scheme(*m_connection);
        QTRY_VERIFY(isDark());
        portal.change(appearance, QStringLiteral("contrast"), light);
        QVERIFY(isReplyReceived(*m_connection));
        QVERIFY2(isDark(), "another key");
        portal.change(QStringLiteral("org.gnome.desktop.interface"), colorScheme, light);
        QVERIFY(isReplyReceived(*m_connection));
        QVERIFY2(isDark(), "another group");
    }

    void withoutAPortalNothingChangesUntilOneStarts()
    {
        const QPalette before = QApplication::palette();
        const ColorScheme scheme(*m_connection);
        QVERIFY2(!isReplyReceived(*m_connection), "the bus replies with an error");
        QCOMPARE(QApplication::palette(), before);
        const Portal portal(*m_bus, light);
        portal.change(appearance, colorScheme, dark);
        QTRY_VERIFY(isDark());
    }

    void withoutABusNothingChanges()
    {
        const QPalette before = QApplication::palette();
        const auto noBus =
            QDBusConnection::connectToBus(QStringLiteral("unix:path=/nonexistent"), QStringLiteral("none"));
        const ColorScheme scheme(noBus);
        QCoreApplication::processEvents();
        QCOMPARE(QApplication::palette(), before);
    }

    void aPortalThatDoesNotReplyDelaysNothing()
    {
        const SilentPortal portal(*m_bus);
        QElapsedTimer timer;
        timer.start();
        {
            const ColorScheme scheme(*m_connection);
            QVERIFY(timer.elapsed() < 5000);
            QTRY_COMPARE(portal.questions, 1);
            timer.restart();
        }
        QVERIFY(timer.elapsed() < 5000);
        QVERIFY(!isDark());
    }

    void aPaletteOfTheDesktopIsLeftAlone()
    {
        // As the desktop's plugin of Qt sets it.
        QPalette own = QApplication::palette();
        own.setColor(QPalette::Window, QColor(0xf6, 0xf0, 0xe0));
        QApplication::setPalette(own);
        const Portal portal(*m_bus, dark);
        const ColorScheme scheme(*m_connection);
        portal.change(appearance, colorScheme, dark);
        QVERIFY(isReplyReceived(*m_connection));
        QCOMPARE(portal.questions, 1);
        QCOMPARE(QApplication::palette(), own);
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
