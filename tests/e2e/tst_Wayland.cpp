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
    void itOpensItsWindowAndMovesAFile()
    {
        DesktopSession desktop(DesktopSession::Kind::wayland);
        // Qt's Wayland plugin keeps memory until exit, which the sanitizer would report.
        desktop.set("ASAN_OPTIONS", QStringLiteral("detect_leaks=0"));
        HarbexRun harbex(desktop);
        harbex.storeRuleForAll();
        harbex.start();
        STEP("the window opens with the stored folder", harbex.control("list item", "Inbox"));
        const QByteArray shown = desktop.run("weston-debug", words("scene-graph")).value_or(QByteArray());
        QVERIFY2(shown.contains("top-level window 'Harbex' of org.harbex.Harbex"), shown.constData());
        STEP("the folder is watched", harbex.watches(HarbexRun::inbox()));
        QVERIFY2(harbex.drop("photo.jpg"), "a file arrives");
        STEP("it is moved", harbex.wasMoved("photo.jpg"));
        QVERIFY2(!desktop.run("dbus-send", words("--session --print-reply --dest=org.harbex.Harbex "
                                                 "/StatusNotifierItem org.kde.StatusNotifierItem.Activate "
                                                 "int32:1 int32:1")),
                 "a left click on the icon is left to the panel");
        QVERIFY2(desktop.run("dbus-send", words("--session --print-reply --dest=org.harbex.Harbex "
                                                "/StatusNotifierItem org.kde.StatusNotifierItem.ContextMenu "
                                                "int32:1 int32:1")),
                 "a panel without a menu of its own gets the window for a right click");
        harbex.signal(SIGTERM);
        STEP("the program ends with status 0", harbex.exitStatus() == 0);
    }
};

HARBEX_TEST(TestWayland)
#include "tst_Wayland.moc"
