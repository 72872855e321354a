#include "e2e/HarbexRun.h"
#include "support/TestMain.h"

using namespace harbex;
using namespace harbex::test;

namespace
{

QProcess& startPanel(DesktopSession& desktop)
{
    const QString path = DesktopSession::configure("tint2rc", "panel_items = S\n"
                                                              "panel_position = bottom center horizontal\n"
                                                              "panel_size = 100% 32\n"
                                                              "systray_icon_size = 24\n");
    return desktop.start("tint2", {"-c", path});
}

/// Returns the rectangle of the program's window that is on the panel.
QRect iconIn(DesktopSession& desktop)
{
    const QRect panel = desktop.windows("tint2").value(0);
    const QList<QRect> windows = desktop.windows("harbex");
    for (const QRect& window : windows)
        if (panel.contains(window)) return window;
    return {};
}

} // namespace

/// A panel that supports only the XEmbed tray of X11, in which programs place a window.
class TestXEmbedTray : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void theIconDocksInEveryPanelAndItsMenuOpensAndQuits()
    {
        DesktopSession desktop;
        QProcess* panel = &startPanel(desktop);
        STEP("the panel is there", !desktop.windows("tint2").isEmpty());
        HarbexRun harbex(desktop);
        harbex.start();
        STEP("the window opens at the start", harbex.window());
        STEP("the icon is docked and drawn", desktop.countColours(iconIn(desktop)) > 4);

        QVERIFY2(harbex.closeWindow(), "the window closes");
        QVERIFY2(harbex.chooseFromMenu(iconIn(desktop), HarbexRun::MenuItem::open),
                 "a left click opens the menu");
        STEP("\"Open Harbex\" opens the window, in front", harbex.isInFront());
        for (int time = 0; time < 2; ++time) {
            STEP("the window is not in the taskbar", harbex.isLeftOutOfTaskbar() == true);
            panel->terminate();
            STEP("without a tray it is", harbex.isLeftOutOfTaskbar() == false);
            panel = &startPanel(desktop);
            STEP("the icon is docked and drawn again", desktop.countColours(iconIn(desktop)) > 4);
        }

        QVERIFY2(
            harbex.chooseFromMenu(iconIn(desktop), HarbexRun::MenuItem::quit, DesktopSession::Button::right),
            "a right click opens the menu");
        STEP("\"Quit\" ends the program in order", harbex.hasEndedInOrder());
    }
};

HARBEX_TEST(TestXEmbedTray)
#include "tst_XEmbedTray.moc"
