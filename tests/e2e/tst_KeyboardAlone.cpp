#include "e2e/HarbexRun.h"
#include "support/TestMain.h"

using namespace harbex;
using namespace harbex::test;

/// The program used with the keyboard only.
class TestKeyboardAlone : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void everythingCanBeDone()
    {
        DesktopSession desktop;
        HarbexRun harbex(desktop);
        harbex.start();
        const auto focusIsOn = [&](const Accessible& control) {
            return control.has(Accessible::State::focused);
        };
        const auto tabGoesOnTo = [&](const Accessible& control) {
            return desktop.press("Tab") && waitFor([&] { return focusIsOn(control); });
        };

        STEP("\"Add Folder\" has the focus in an empty window",
             focusIsOn(harbex.control("push button", "Add Folder")));
        QVERIFY2(desktop.press("space"), "space");
        QVERIFY2(harbex.answerDialog(HarbexRun::inbox()), "the folder dialog takes a path that is typed");
        STEP("the folder is in the list", harbex.control("list item", "Inbox"));
        STEP("the window has the keyboard again", harbex.focused());

        const Accessible field = harbex.control("combo box", "Field");
        QVERIFY2(harbex.tabTo(field), "Tab reaches the field");
        QVERIFY2(desktop.press("Down"), "Down");
        STEP("the field becomes Extension", field.text() == "Extension");
        const Accessible operatorType = harbex.control("combo box", "Operator");
        QVERIFY2(tabGoesOnTo(operatorType), "Tab goes on to the operator");
        QVERIFY2(desktop.press("Down"), "Down");
        STEP("the operator becomes \"is\"", operatorType.text() == "is");
        const Accessible value = harbex.control("text", "Value");
        QVERIFY2(tabGoesOnTo(value), "Tab goes on to the value");
        QVERIFY2(desktop.type("pdf") && desktop.press("Return"), "a value is typed");
        STEP("the value is there", value.text() == "pdf");

        const Accessible destination = harbex.control("push button", "Select destination...");
        QVERIFY2(tabGoesOnTo(destination), "Tab goes on to the destination");
        QVERIFY2(desktop.press("space"), "space");
        QVERIFY2(harbex.answerDialog(HarbexRun::sorted()), "the folder dialog takes the destination");
        STEP("the rule shows its destination", destination.description() == HarbexRun::sorted().toUtf8());
        STEP("the destination has the keyboard again", focusIsOn(destination));

        QVERIFY2(harbex.tabTo(harbex.control("push button", "Add Rule")), "Tab reaches \"Add Rule\"");
        QVERIFY2(desktop.press("space"), "space");
        STEP("there is a second rule", harbex.controls("combo box", "Field").size() == 2);
        QVERIFY2(harbex.tabTo(harbex.controls("push button", "Delete").value(1)),
                 "Tab reaches the deletion of it");
        QVERIFY2(desktop.press("space"), "space");
        STEP("there is one rule", harbex.controls("combo box", "Field").size() == 1);
        STEP("the deletion of the rule that is left has the focus",
             focusIsOn(harbex.control("push button", "Delete")));

        QVERIFY2(harbex.closeWindow(), "Alt+F4 closes the window");
        QVERIFY2(harbex.drop("report.pdf"), "a file arrives");
        STEP("it is moved", harbex.wasMoved("report.pdf"));

        QVERIFY2(desktop.run(HARBEX_PROGRAM), "a second start ends in order");
        STEP("it opens the window of the first, in front", harbex.isInFront());
        QVERIFY2(harbex.tabTo(harbex.control("list", "Folders")), "Tab reaches the folders");
        QVERIFY2(desktop.press("shift+F10"), "Shift+F10");
        STEP("the row's menu opens", !desktop.openMenu().isEmpty());
        QVERIFY2(desktop.press("Down Return"), "the menu's one item");
        STEP("the folder is deleted", harbex.control("label", "Select a folder from the sidebar"));
        STEP("the deletion is stored", HarbexRun::stored().folders.empty());
        harbex.signal(SIGTERM);
        STEP("the program ends in order", harbex.hasEndedInOrder());
    }
};

HARBEX_TEST(TestKeyboardAlone)
#include "tst_KeyboardAlone.moc"
