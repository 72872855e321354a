#include "e2e/HarbexRun.h"
#include "support/TestMain.h"

using namespace harbex;
using namespace harbex::test;

/// Folder dialogs of desktop environments, which Qt shows instead of its own.
class TestFolderDialogs : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void theDesktopsDialogHasTheConfirmTextIsCancelledAndChooses_data()
    {
        QTest::addColumn<QString>("platformTheme");
        QTest::newRow("GTK's own") << "gtk3";
        QTest::newRow("the portal's") << "xdgdesktopportal";
    }

    void theDesktopsDialogHasTheConfirmTextIsCancelledAndChooses()
    {
        QFETCH(const QString, platformTheme);
        DesktopSession desktop;
        if (platformTheme == "xdgdesktopportal") {
            desktop.set("XDG_CURRENT_DESKTOP", "GNOME");
            desktop.startService("org.freedesktop.impl.portal.desktop.gtk");
            desktop.startService("org.freedesktop.portal.Desktop");
        }
        desktop.set("QT_QPA_PLATFORMTHEME", platformTheme);
        // GTK keeps memory until exit, which the sanitizer would report.
        desktop.set("ASAN_OPTIONS", "detect_leaks=0");
        HarbexRun harbex(desktop);
        harbex.start();
        const auto dialog = [&] { return desktop.window("file chooser"); };

        STEP("the window opens", harbex.isInFront());
        QVERIFY2(desktop.click(harbex.control("push button", "Add Folder").extents()),
                 "a click on \"Add Folder\"");
        STEP("the desktop's dialog opens", dialog().has(Accessible::State::active));
        STEP("it has the confirm text", dialog().find("push button", "Select Focus Folder"));
        QVERIFY2(desktop.press("Escape"), "Escape");
        STEP("the dialog is gone", !dialog());
        STEP("the window has the keyboard again", harbex.focused());
        QVERIFY2(harbex.control("label", "Select a folder from the sidebar"), "there is no folder");

        // The test uses the mouse here. On a busy machine openbox sometimes leaves the focus unset, if the
        // window of another program's dialog closes after our window has requested the focus.
        QVERIFY2(desktop.click(harbex.control("push button", "Add Folder").extents()),
                 "another click on \"Add Folder\"");
        STEP("the dialog opens again", dialog().has(Accessible::State::active));
        const auto line = [&] { return dialog().find("text"); };
        QVERIFY2(desktop.press("slash"), "a path is begun");
        STEP("the dialog shows a line for it",
             line().has(Accessible::State::focused) && line().text() == "/");
        QVERIFY2(desktop.type(HarbexRun::inbox().mid(1)), "the rest of the path is typed");
        STEP("the dialog has taken it", line().text().startsWith(HarbexRun::inbox().toUtf8()));
        QVERIFY2(desktop.press("Return"), "Return");
        STEP("the dialog is gone after Return", !dialog());
        STEP("the folder is in the list", harbex.control("list item", "Inbox"));
    }

    void theProgramEndsBehindAnOpenDialogWithoutSaving_data()
    {
        QTest::addColumn<QString>("platformTheme");
        QTest::newRow("Qt's own") << "";
        QTest::newRow("GTK's own") << "gtk3";
    }

    void theProgramEndsBehindAnOpenDialogWithoutSaving()
    {
        QFETCH(const QString, platformTheme);
        DesktopSession desktop;
        desktop.set("QT_QPA_PLATFORMTHEME", platformTheme);
        desktop.set("ASAN_OPTIONS", "detect_leaks=0");
        HarbexRun harbex(desktop);
        harbex.storeRuleForAll();
        harbex.start();
        STEP("the window opens", harbex.isInFront());
        QVERIFY2(desktop.click(harbex.control("text", "Value").extents()), "a click into the value");
        QVERIFY2(desktop.type("unsaved"), "an edit that is not saved");
        STEP("it is there", harbex.control("text", "Value").text() == "unsaved");
        QVERIFY2(desktop.click(harbex.control("push button", "Add Folder").extents()),
                 "a click on \"Add Folder\"");
        const char* role = platformTheme.isEmpty() ? "dialog" : "file chooser";
        STEP("the dialog opens", desktop.window(role).has(Accessible::State::active));
        harbex.signal(SIGTERM);
        STEP("the program ends in order", harbex.hasEndedInOrder());
        const FolderState stored = HarbexRun::stored();
        QCOMPARE(stored.folders.size(), 1U);
        QCOMPARE(stored.folders[0].rules[0].value, QString());
    }
};

HARBEX_TEST(TestFolderDialogs)
#include "tst_FolderDialogs.moc"
