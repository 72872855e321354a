#include "e2e/HarbexRun.h"
#include "store/Bookmark.h"
#include "support/TestMain.h"

#include <QFile>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// LXQt's panel, which contains only the status icons. On a left click the program opens its own menu. On a
/// right click the panel draws the menu.
class LxqtPanel
{
public:
    explicit LxqtPanel(DesktopSession& desktop) : m_desktop(desktop)
    {
        DesktopSession::configure("lxqt/panel.conf", "panels=panel1\n"
                                                     "iconTheme=Adwaita\n"
                                                     "[panel1]\n"
                                                     "plugins=statusnotifier\n"
                                                     "position=Bottom\n"
                                                     "desktop=0\n"
                                                     "panelSize=32\n"
                                                     "iconSize=22\n"
                                                     "width=100\n"
                                                     "width-percent=true\n"
                                                     "[statusnotifier]\n"
                                                     "type=statusnotifier\n"
                                                     "alignment=Right\n");
        m_desktop.start("lxqt-panel");
    }

    [[nodiscard]] QRect icon() const
    {
        // LXQt 1 gives its panel the role "frame", LXQt 2 the role "panel".
        for (const char* role : {"frame", "panel"}) {
            const Accessible panel = m_desktop.window(role, "LXQt Panel");
            if (panel) return panel.find("push button").extents();
        }
        return {};
    }

private:
    DesktopSession& m_desktop;
};

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
    /// From the first start to quitting, with the mouse and the accessibility bus.
    void aPersonsFirstDay()
    {
        DesktopSession desktop;
        const LxqtPanel panel(desktop);
        HarbexRun harbex(desktop);
        harbex.start();
        STEP("the window opens at the start", harbex.window());
        STEP("the panel draws the icon", desktop.countColours(panel.icon()) > 4);
        // In Qt 6.8 the first click into a menu closes it, unless the pointer has been in a window of the
        // program before or has reached the menu in many small steps.
        QVERIFY2(desktop.click(harbex.window().extents()), "a click into the window");
        QVERIFY2(harbex.closeWindow(), "the window closes");
        QVERIFY2(harbex.chooseFromMenu(panel.icon(), HarbexRun::MenuItem::open),
                 "a click on the icon opens the menu, which has \"Open Harbex\"");
        STEP("\"Open Harbex\" opens the window, in front", harbex.isInFront());

        QVERIFY2(desktop.click(harbex.control("push button", "Add Folder").extents()),
                 "a click on \"Add Folder\"");
        STEP("the folder dialog opens with the confirm text",
             harbex.dialog().find("push button", "Select Focus Folder"));
        QVERIFY2(harbex.answerDialog(HarbexRun::inbox()), "the folder dialog takes a path that is typed");
        STEP("the folder is in the list and selected",
             harbex.control("list item", "Inbox").has(Accessible::State::selected));
        STEP("it has one rule", harbex.controls("combo box", "Field").size() == 1);
        STEP("the folder is watched", harbex.watches(HarbexRun::inbox()));

        QVERIFY2(harbex.choose(harbex.control("combo box", "Field"), "Extension"),
                 "the field becomes Extension");
        QVERIFY2(harbex.choose(harbex.control("combo box", "Operator"), "is"), "the operator becomes \"is\"");
        QVERIFY2(harbex.control("push button", "Select destination...").press(), "the destination's button");
        QVERIFY2(harbex.answerDialog(HarbexRun::sorted()), "the folder dialog takes the destination");
        STEP("the rule shows its destination",
             harbex.control("push button", "Select destination...").description() ==
                 HarbexRun::sorted().toUtf8());

        const Accessible value = harbex.control("text", "Value");
        QVERIFY2(value.setText("pdf"), "the value can be written");
        QVERIFY2(harbex.drop("early.pdf") && harbex.drop("plain"), "two files arrive");
        STEP("before Return the rule is still the one without a value",
             harbex.wasMoved("plain") && QFile::exists(HarbexRun::inbox() + "/early.pdf"));
        QVERIFY2(value.takeFocus(), "the value can be given the focus");
        STEP("the value has the focus", value.has(Accessible::State::focused));
        QVERIFY2(desktop.press("Return"), "Return");
        QVERIFY2(harbex.drop("report.pdf"), "a file arrives");
        STEP("after Return the rule has the value", harbex.wasMoved("report.pdf"));

        QVERIFY2(harbex.closeWindow(), "the window closes after the edits");
        QVERIFY2(harbex.drop("second.pdf"), "a file arrives while the window is closed");
        STEP("it is moved while the window is closed", harbex.wasMoved("second.pdf"));
        QVERIFY2(!harbex.window(), "the window has stayed closed");

        QVERIFY2(harbex.chooseFromMenu(panel.icon(), HarbexRun::MenuItem::open), "\"Open Harbex\" once more");
        STEP("the window shows the rule again", harbex.control("text", "Value").text() == "pdf");
        QVERIFY2(harbex.control("text", "Value").setText("lost"), "an edit that nothing saves");
        QVERIFY2(
            harbex.chooseFromMenu(panel.icon(), HarbexRun::MenuItem::quit, DesktopSession::Button::right),
            "\"Quit\" is in the menu that a right click opens");
        STEP("the program ends with status 0", harbex.exitStatus() == 0);

        const FolderState stored = HarbexRun::stored();
        QCOMPARE(stored.folders.size(), 1U);
        const WatchedFolder& folder = stored.folders.front();
        QCOMPARE(stored.selectedFolderID, folder.id);
        QCOMPARE(folder.url.path(), HarbexRun::inbox().toStdString());
        QCOMPARE(folder.bookmarkData, *createBookmark(HarbexRun::inbox().toStdString()));
        FilterRule rule;
        rule.id = folder.rules.at(0).id;
        rule.field = RuleField::fileExtension;
        rule.operatorType = RuleOperator::isEqual;
        rule.value = "pdf";
        rule.destination = FileUrl::fromPath(HarbexRun::sorted().toStdString());
        rule.destinationBookmarkData = *createBookmark(HarbexRun::sorted().toStdString());
        QVERIFY2(folder.rules == std::vector{rule}, "the rule is stored as it was made");
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
        STEP("the program ends with status 0", harbex.exitStatus() == 0);
    }
};

HARBEX_TEST(TestStatusNotifierPanel)
#include "tst_StatusNotifierPanel.moc"
