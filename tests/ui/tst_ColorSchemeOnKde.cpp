#include "support/SessionBus.h"
#include "support/SettingsPortal.h"
#include "support/WindowTestMain.h"
#include "ui/ColorScheme.h"

using namespace harbex;
using namespace harbex::test;

namespace
{

/// A colour scheme of KDE.
struct Scheme {
    const char* name;
    uint preference;
    QColor window;
    QColor text;
};
const Scheme breeze{"BreezeLight", 2, {0xef, 0xf0, 0xf1}, {0x23, 0x26, 0x29}};
const Scheme breezeDark{"BreezeDark", 1, {0x20, 0x23, 0x26}, {0xfc, 0xfc, 0xfc}};
const Scheme blueDark{"BlueDark", 1, {0x10, 0x18, 0x38}, {0xe0, 0xe8, 0xff}};

/// Writes the colours into the configuration of KDE.
void write(const Scheme& scheme)
{
    const auto text = [](const QColor& color) {
        return QString("%1,%2,%3\n").arg(color.red()).arg(color.green()).arg(color.blue()).toUtf8();
    };
    QFile file(qEnvironmentVariable("XDG_CONFIG_HOME") + "/kdeglobals");
    if (!file.open(QIODevice::WriteOnly)) qFatal("no configuration of KDE");
    file.write(QByteArray("[General]\nColorScheme=") + scheme.name + '\n');
    for (const char* group : {"Window", "View", "Button", "Selection", "Tooltip"})
        file.write(QByteArray("[Colors:") + group + "]\nBackgroundNormal=" + text(scheme.window) +
                   "ForegroundNormal=" + text(scheme.text));
}

/// The application in a Plasma session that begins with the light scheme. The platform theme of Qt connects
/// to the session bus when the application is constructed.
class PlasmaApplication : public QApplication
{
public:
    PlasmaApplication(int& argc, char** argv) : QApplication(begin(argc), argv) {}
    ~PlasmaApplication() override { bus.reset(); }

    static inline std::unique_ptr<SessionBus> bus;

private:
    static int& begin(int& argc)
    {
        bus = std::make_unique<SessionBus>();
        qputenv("DBUS_SESSION_BUS_ADDRESS", bus->address().toUtf8());
        qputenv("XDG_CURRENT_DESKTOP", "KDE");
        qputenv("KDE_SESSION_VERSION", "5");
        write(breeze);
        return argc;
    }
};

bool isShown(const Scheme& scheme)
{
    const QPalette palette = QApplication::palette();
    return palette.color(QPalette::Window) == scheme.window &&
           palette.color(QPalette::WindowText) == scheme.text;
}

} // namespace

/// The colours with Qt's platform theme for KDE. Needs a desktop of its own, because offscreen windows have
/// no theme.
class TestColorSchemeOnKde : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void everyChangeOfTheColoursIsFollowed()
    {
        QVERIFY2(isShown(breeze), "Qt has read the configuration of KDE");
        SettingsPortal portal(*PlasmaApplication::bus);
        QWidget window;
        window.show();
        ColorScheme scheme(QDBusConnection::sessionBus());
        // The bus starts the portal of a real desktop only when somebody asks it.
        scheme.waitForAnswer();
        QVERIFY(portal.questions() > 0);
        QVERIFY(isShown(breeze));

        for (const bool isPreferenceFirst : {false, true}) {
            for (const Scheme& next : {breezeDark, blueDark, breeze, breezeDark, breeze}) {
                write(next);
                const auto announcePreference = [&] {
                    portal.set("org.freedesktop.appearance", "color-scheme", next.preference);
                };
                if (isPreferenceFirst) announcePreference();
                portal.set("org.kde.kdeglobals.General", "ColorScheme", next.name);
                if (!isPreferenceFirst) announcePreference();
                QTRY_VERIFY(isShown(next));
                QTRY_COMPARE(window.palette().color(QPalette::Window), next.window);
                // The replies come after all signals that could replace the colours.
                QVERIFY(SettingsPortal::replies(QDBusConnection::sessionBus()));
                QVERIFY(isShown(next));
            }
        }
    }
};

HARBEX_MAIN(TestColorSchemeOnKde)
{
    return runTest<PlasmaApplication, TestColorSchemeOnKde>(argc, argv);
}

#include "tst_ColorSchemeOnKde.moc"
