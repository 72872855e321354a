#include "e2e/HarbexRun.h"
#include "support/TestMain.h"

using namespace harbex;
using namespace harbex::test;

namespace
{

/// Starts LXQt's panel with the status icons only. On a left click the program opens its own menu. On a right
/// click the panel draws the menu.
void startLxqtPanel(DesktopSession& desktop)
{
    DesktopSession::configure("lxqt/panel.conf", "panels=panel1\n"
                                                 "iconTheme=Adwaita\n"
                                                 "[panel1]\n"
                                                 "plugins=statusnotifier\n"
                                                 "position=Bottom\n"
                                                 "[statusnotifier]\n"
                                                 "type=statusnotifier\n"
                                                 "alignment=Right\n");
    desktop.start("lxqt-panel");
}

QRect iconInLxqtPanel(const DesktopSession& desktop)
{
    // LXQt 1 gives its panel the role "frame", LXQt 2 the role "panel".
    for (const char* role : {"frame", "panel"})
        if (const Accessible panel = desktop.window(role, "LXQt Panel"))
            return panel.find("push button").extents();
    return {};
}

/// Starts Xfce's panel, which draws the menu for both mouse buttons.
QProcess& startXfcePanel(DesktopSession& desktop)
{
    DesktopSession::configure("xfce4/xfconf/xfce-perchannel-xml/xfce4-panel.xml",
                              R"(<?xml version="1.0" encoding="UTF-8"?>
        <channel name="xfce4-panel" version="1.0">
          <property name="configver" type="int" value="2"/>
          <property name="panels" type="array">
            <value type="int" value="1"/>
            <property name="panel-1" type="empty">
              <property name="position" type="string" value="p=8;x=640;y=785"/>
              <property name="position-locked" type="bool" value="true"/>
              <property name="length" type="uint" value="100"/>
              <property name="size" type="uint" value="30"/>
              <property name="plugin-ids" type="array">
                <value type="int" value="1"/>
              </property>
            </property>
          </property>
          <property name="plugins" type="empty">
            <property name="plugin-1" type="string" value="systray"/>
          </property>
        </channel>)");
    desktop.startService("org.xfce.Xfconf");
    return desktop.start("xfce4-panel");
}

} // namespace

/// Panels that support the status-notifier protocol.
class TestStatusNotifierPanel : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void theMenuOfTheProgramOpensTheWindowAndThatOfThePanelQuits()
    {
        DesktopSession desktop;
        startLxqtPanel(desktop);
        const auto icon = [&] { return iconInLxqtPanel(desktop); };
        HarbexRun harbex(desktop);
        harbex.start();
        STEP("the window opens at the start", harbex.window());
        STEP("the panel draws the icon", desktop.countColours(icon()) > 4);
        // In Qt 6.8 the first click into a menu closes it, unless the pointer has been in a window of the
        // program before or has reached the menu in many small steps.
        QVERIFY2(desktop.click(harbex.window().extents()), "a click into the window");
        QVERIFY2(harbex.closeWindow(), "the window closes");
        QVERIFY2(harbex.chooseFromMenu(icon(), HarbexRun::MenuItem::open), "a left click opens the menu");
        STEP("\"Open Harbex\" opens the window, in front", harbex.isInFront());
        QVERIFY2(harbex.chooseFromMenu(icon(), HarbexRun::MenuItem::quit, DesktopSession::Button::right),
                 "a right click opens the menu of the panel");
        STEP("\"Quit\" ends the program in order", harbex.hasEndedInOrder());
    }

    void aPanelThatStartsLaterGetsTheIconAndDrawsTheMenuItself()
    {
        DesktopSession desktop;
        HarbexRun harbex(desktop);
        harbex.start();
        STEP("the window opens without a panel", harbex.isInFront());
        QVERIFY2(harbex.closeWindow(), "the window closes");

        QProcess& panel = startXfcePanel(desktop);
        // In this panel the icons have their own window.
        const auto icon = [&] { return desktop.windows("wrapper-2.0").value(0); };
        STEP("the panel draws the icon", desktop.countColours(icon()) > 4);
        QVERIFY2(harbex.chooseFromMenu(icon(), HarbexRun::MenuItem::open),
                 "a click on the icon opens the menu");
        STEP("\"Open Harbex\" opens the window, in front", harbex.isInFront());
        STEP("the window is not in the taskbar", harbex.isLeftOutOfTaskbar() == true);

        panel.terminate();
        STEP("without a panel it is", harbex.isLeftOutOfTaskbar() == false);
        desktop.start("xfce4-panel");
        STEP("another panel draws the icon", desktop.countColours(icon()) > 4);
        STEP("the window leaves the taskbar", harbex.isLeftOutOfTaskbar() == true);
        QVERIFY2(harbex.chooseFromMenu(icon(), HarbexRun::MenuItem::quit), "\"Quit\" is in the menu");
        STEP("the program ends in order", harbex.hasEndedInOrder());
    }
};

HARBEX_TEST(TestStatusNotifierPanel)
#include "tst_StatusNotifierPanel.moc"
