#include "e2e/HarbexRun.h"
#include "support/TestMain.h"

using namespace harbex;
using namespace harbex::test;

/// A Wayland compositor. It does not tell a program the positions of its windows, and does not let a program
/// raise them.
class TestWayland : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // A click that the program refuses is left to the panel, which matters only where the panel has an
    // answer.
    void itOpensItsWindow_data()
    {
        QTest::addColumn<QString>("currentDesktop");
        QTest::addColumn<bool>("takesLeftClick");
        QTest::newRow("Plasma opens the menu instead") << "KDE" << false;
        QTest::newRow("LXQt does nothing instead") << "LXQt" << true;
    }
    void itOpensItsWindow()
    {
        QFETCH(QString, currentDesktop);
        QFETCH(bool, takesLeftClick);
        DesktopSession desktop(DesktopSession::Kind::wayland);
        // Qt's Wayland plugin keeps memory until exit, which the sanitizer would report.
        desktop.set("ASAN_OPTIONS", "detect_leaks=0");
        desktop.set("XDG_CURRENT_DESKTOP", currentDesktop);
        HarbexRun harbex(desktop);
        harbex.storeRuleForAll();
        harbex.start();
        STEP("the window opens with the stored folder", harbex.control("list item", "Inbox"));
        // The window is accessible before the compositor shows it.
        STEP("the compositor shows it as a window of the application",
             desktop.run("weston-debug", words("scene-graph"))
                 .value_or(QByteArray())
                 .contains("top-level window 'Harbex' of org.harbex.Harbex"));
        const auto click = [&](const char* method) {
            return desktop
                .run("dbus-send",
                     words("--session --print-reply --dest=org.harbex.Harbex /StatusNotifierItem")
                         << QString("org.kde.StatusNotifierItem.") + method << words("int32:1 int32:1"))
                .has_value();
        };
        QCOMPARE(click("Activate"), takesLeftClick);
        QVERIFY2(click("ContextMenu"), "a panel without a menu of its own gets the window for a right click");
        harbex.signal(SIGTERM);
        STEP("the program ends in order", harbex.hasEndedInOrder());
    }
};

HARBEX_TEST(TestWayland)
#include "tst_Wayland.moc"
