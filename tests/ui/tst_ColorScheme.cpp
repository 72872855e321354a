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

/// The part of the desktop portal that tells settings. It answers in the main loop of the test: a program
/// that waited for the answer would wait for ever.
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

/// Has the name of the portal and leaves every question unanswered.
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

/// How well a text can be read on a ground: 1 for not at all, 21 for black on white.
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

/// Counts how often its colours change.
class PaletteWitness : public QWidget
{
public:
    int changes = 0;

protected:
    void changeEvent(QEvent* event) override
    {
        if (event->type() == QEvent::PaletteChange) ++changes;
    }
};

constexpr uint noPreference = 0;
constexpr uint dark = 1;
constexpr uint light = 2;

} // namespace

class TestColorScheme : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { QApplication::setPalette(QPalette()); }
    void cleanupTestCase() { QApplication::setPalette(QPalette()); }

    void aDarkDesktopMakesTheProgramDark();
    void aLightDesktopOrNoPreferenceLeavesThePalette();
    void aChangeOfTheDesktopIsFollowedWithoutARestart();
    void otherSettingsAreNotLookedAt();
    void withoutAPortalNothingChanges();
    void withoutABusNothingChanges();
    void aPortalThatDoesNotAnswerHoldsNothingUp();
    void anAnswerOfAnotherTypeIsNoDarkness();
    void aPaletteOfTheDesktopsOwnIsLeftAlone();
    void everyTextOfTheDarkPaletteCanBeRead();
};

void TestColorScheme::aDarkDesktopMakesTheProgramDark()
{
    SessionBus bus;
    const Portal portal(bus, dark);
    QWidget window;
    const ColorScheme scheme(bus.connect());
    // The answer is not waited for.
    QVERIFY(!isDark());
    QTRY_VERIFY(isDark());
    QCOMPARE(QApplication::palette().color(QPalette::Window),
             ColorScheme::darkPalette().color(QPalette::Window));
    QTRY_COMPARE(window.palette().color(QPalette::Window), QApplication::palette().color(QPalette::Window));
}

void TestColorScheme::aLightDesktopOrNoPreferenceLeavesThePalette()
{
    const QPalette before = QApplication::palette();
    for (const uint answer : {noPreference, light, 3U}) {
        SessionBus bus;
        const Portal portal(bus, answer);
        const ColorScheme scheme(bus.connect());
        QTRY_COMPARE(portal.questions, 1);
        QTest::qWait(20);
        QCOMPARE(QApplication::palette(), before);
    }
}

void TestColorScheme::aChangeOfTheDesktopIsFollowedWithoutARestart()
{
    const QPalette before = QApplication::palette();
    SessionBus bus;
    const Portal portal(bus, light);
    const ColorScheme scheme(bus.connect());
    QTRY_COMPARE(portal.questions, 1);
    portal.change(appearance, colorScheme, dark);
    QTRY_VERIFY(isDark());
    portal.change(appearance, colorScheme, light);
    QTRY_VERIFY(!isDark());
    QCOMPARE(QApplication::palette(), before);
    portal.change(appearance, colorScheme, dark);
    QTRY_VERIFY(isDark());
    portal.change(appearance, colorScheme, noPreference);
    QTRY_VERIFY(!isDark());
}

void TestColorScheme::otherSettingsAreNotLookedAt()
{
    SessionBus bus;
    const Portal portal(bus, dark);
    const QDBusConnection connection = bus.connect();
    const ColorScheme scheme(connection);
    QTRY_VERIFY(isDark());
    portal.change(appearance, QStringLiteral("contrast"), light);
    portal.change(QStringLiteral("org.gnome.desktop.interface"), colorScheme, light);
    // What one sender sends comes in its order, an answer too.
    const RemoteObject settings{connection, portalService, portalPath, portalInterface};
    QCOMPARE(settings.call(QStringLiteral("Read"), {appearance, colorScheme}).type(),
             QDBusMessage::ReplyMessage);
    QVERIFY(isDark());
    portal.change(appearance, colorScheme, light);
    QTRY_VERIFY(!isDark());
}

void TestColorScheme::withoutAPortalNothingChanges()
{
    const QPalette before = QApplication::palette();
    SessionBus bus;
    const ColorScheme scheme(bus.connect());
    QTest::qWait(100);
    QCOMPARE(QApplication::palette(), before);
    // One that comes later is followed.
    const Portal portal(bus, light);
    portal.change(appearance, colorScheme, dark);
    QTRY_VERIFY(isDark());
}

void TestColorScheme::withoutABusNothingChanges()
{
    const QPalette before = QApplication::palette();
    const ColorScheme scheme(
        QDBusConnection::connectToBus(QStringLiteral("unix:path=/nonexistent"), QStringLiteral("none")));
    QTest::qWait(20);
    QCOMPARE(QApplication::palette(), before);
}

void TestColorScheme::aPortalThatDoesNotAnswerHoldsNothingUp()
{
    SessionBus bus;
    const SilentPortal portal(bus);
    QElapsedTimer timer;
    timer.start();
    {
        const ColorScheme scheme(bus.connect());
        QVERIFY(timer.elapsed() < 5000);
        QTRY_COMPARE(portal.questions, 1);
        timer.restart();
    }
    QVERIFY(timer.elapsed() < 5000);
    QVERIFY(!isDark());
}

void TestColorScheme::anAnswerOfAnotherTypeIsNoDarkness()
{
    for (const QVariant& answer :
         {QVariant(QStringLiteral("dark")), QVariant(QStringList{QStringLiteral("1")})}) {
        SessionBus bus;
        const Portal portal(bus, answer);
        const ColorScheme scheme(bus.connect());
        QTRY_COMPARE(portal.questions, 1);
        QTest::qWait(20);
        QVERIFY(!isDark());
    }
}

void TestColorScheme::aPaletteOfTheDesktopsOwnIsLeftAlone()
{
    // As the desktop's plugin of Qt sets it.
    QPalette own = QApplication::palette();
    own.setColor(QPalette::Window, QColor(0xf6, 0xf0, 0xe0));
    QApplication::setPalette(own);
    SessionBus bus;
    const Portal portal(bus, dark);
    const ColorScheme scheme(bus.connect());
    portal.change(appearance, colorScheme, dark);
    QTest::qWait(100);
    QCOMPARE(portal.questions, 0);
    QCOMPARE(QApplication::palette(), own);
}

void TestColorScheme::everyTextOfTheDarkPaletteCanBeRead()
{
    const QPalette palette = ColorScheme::darkPalette();
    const auto read = [&](QPalette::ColorRole text, QPalette::ColorRole ground) {
        return contrast(palette.color(text), palette.color(ground));
    };
    QVERIFY(read(QPalette::WindowText, QPalette::Window) > 7);
    QVERIFY(read(QPalette::Text, QPalette::Base) > 7);
    QVERIFY(read(QPalette::Text, QPalette::AlternateBase) > 7);
    QVERIFY(read(QPalette::ButtonText, QPalette::Button) > 7);
    QVERIFY(read(QPalette::ToolTipText, QPalette::ToolTipBase) > 7);
    QVERIFY(read(QPalette::HighlightedText, QPalette::Highlight) > 4.5);
    QVERIFY(read(QPalette::PlaceholderText, QPalette::Base) > 4.5);
    QVERIFY(read(QPalette::Link, QPalette::Base) > 4.5);
    QVERIFY(contrast(palette.color(QPalette::Disabled, QPalette::WindowText),
                     palette.color(QPalette::Window)) > 3);
}

HARBEX_WINDOW_TEST_MAIN(TestColorScheme)
#include "tst_ColorScheme.moc"
