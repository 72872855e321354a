#include "e2e/HarbexRun.h"
#include "support/FakePanel.h"
#include "support/TestMain.h"

using namespace harbex;
using namespace harbex::test;

namespace
{

QString desktopFile()
{
    return DesktopSession::installed("share/applications/org.harbex.Harbex.desktop");
}

/// Launches the program as the menu of a desktop does. Returns whether that works.
bool launch(DesktopSession& desktop)
{
    return desktop.run("gapplication", words("launch org.harbex.Harbex")).has_value();
}

} // namespace

/// The installed program, used through its desktop file as desktops use it.
class TestDesktopFile : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { DesktopSession::installHarbex(); }

    void everyLaunchOpensTheWindowOfOneProgram()
    {
        DesktopSession desktop;
        const HarbexRun harbex(desktop);
        QProcess& events = desktop.start("xev", words("-root -event property"));
        QByteArray log;
        const auto logged = [&](const char* text) {
            log += events.readAllStandardOutput();
            return log.count(text);
        };
        STEP("xev reports a change of the root window",
             desktop.run("xprop", words("-root -format HARBEX_TEST 8s -set HARBEX_TEST x")) &&
                 logged("HARBEX_TEST") > 0);
        // With this message a program ends the sign of the desktop that it is starting.
        const char* const started = "_NET_STARTUP_INFO_BEGIN";

        int starts = 0;
        for (const char* id : {"the-first_TIME1", "the-second_TIME2"}) {
            desktop.set("DESKTOP_STARTUP_ID", id);
            QVERIFY2(launch(desktop), "the desktop can launch the program");
            ++starts;
            STEP("the window opens, in front", harbex.isInFront());
            STEP("the desktop is told that the start is over", logged(started) == starts);
            QVERIFY2(harbex.closeWindow(), "the window closes");
        }

        const qint64 process = desktop.harbexProcess();
        QVERIFY2(desktop.run("sh", {"-c", "exec harbex"}),
                 "a start by the command works, as that of a desktop without D-Bus activation");
        STEP("it opens the window too", harbex.isInFront());
        QCOMPARE(desktop.harbexProcess(), process);
        QCOMPARE(desktop.bus().startedPrograms(), 1);
    }

    void theActionQuitEndsTheProgramAndStartsNone()
    {
        const QSettings file(desktopFile(), QSettings::IniFormat);
        QStringList command = QProcess::splitCommand(file.value("Desktop Action quit/Exec").toString());
        QVERIFY2(!command.isEmpty(), "the desktop file has the action");
        const QByteArray program = command.takeFirst().toUtf8();
        DesktopSession desktop;
        const FakePanel panel(desktop.bus());
        const HarbexRun harbex(desktop);
        QCOMPARE(desktop.run("gapplication", words("list-actions org.harbex.Harbex")), "quit\n");
        QVERIFY2(launch(desktop), "the desktop can launch the program");
        STEP("the window opens", harbex.window());
        STEP("the icon is there", panel.items().size() == 1);
        QVERIFY2(desktop.run(program, command), "the action works");
        STEP("the action ends the program", desktop.harbexProcess() == 0);
        QVERIFY2(desktop.run(program, command), "without a running program it works too");
        QCOMPARE(desktop.bus().startedPrograms(), 1);
    }

    /// What README describes under the same title.
    void theFirstFiveMinutes()
    {
        std::optional<DesktopSession> desktop(std::in_place);
        const HarbexRun harbex(*desktop);
        for (const char* folder : {"Invoices", "Documents", "Pictures"})
            QVERIFY(QDir(HarbexRun::sorted()).mkdir(folder));

        QVERIFY2(launch(*desktop), "the desktop can launch the program");
        STEP("the window opens", harbex.isInFront());
        QVERIFY2(harbex.control("push button", "Add Folder").press(), "\"Add Folder\"");
        QVERIFY2(harbex.answerDialog(HarbexRun::inbox()), "the folder dialog takes the folder");
        STEP("it has one rule", harbex.controls("combo box", "Field").size() == 1);
        const auto fillIn = [&](int rule, const char* field, const char* value, const char* folder) {
            const Accessible text = harbex.controls("text", "Value").value(rule);
            const Accessible destination =
                harbex.controls("push button", "Select destination...").value(rule);
            const QString path = HarbexRun::sorted() + u'/' + folder;
            const auto isShown = [&] { return destination.description() == path.toUtf8(); };
            // The engine restarts in the next iteration of the program's main loop, and does not move what
            // arrives before. It has restarted when the program answers again.
            return harbex.choose(harbex.controls("combo box", "Field").value(rule), field) &&
                   (!value || text.setText(value)) && destination.press() && harbex.answerDialog(path) &&
                   waitFor(isShown) && isShown();
        };
        const auto addRule = [&](int number) {
            return harbex.control("push button", "Add Rule").press() &&
                   waitFor([&] { return harbex.controls("combo box", "Field").size() == number; });
        };
        QVERIFY2(fillIn(0, "Name", "invoice", "Invoices"), "the first rule");
        QVERIFY2(addRule(2) && fillIn(1, "Extension", "pdf", "Documents"), "the second rule");
        QVERIFY2(addRule(3) && fillIn(2, "Kind", nullptr, "Pictures"), "the third rule, for images");
        QVERIFY2(harbex.drop("notes.txt") && harbex.drop("invoice.pdf") && harbex.drop("report.pdf") &&
                     harbex.drop("photo.jpg"),
                 "files arrive");
        STEP("each is where its rule says", harbex.wasMoved("invoice.pdf", "Invoices") &&
                                                harbex.wasMoved("report.pdf", "Documents") &&
                                                harbex.wasMoved("photo.jpg", "Pictures"));
        QVERIFY2(harbex.closeWindow(), "the window closes");
        const QDir autostart(qEnvironmentVariable("XDG_CONFIG_HOME") + "/autostart");
        QVERIFY2(autostart.mkpath(".") &&
                     QFile::copy(desktopFile(), autostart.filePath(QFileInfo(desktopFile()).fileName())),
                 "the program is added to those that start at login");

        const QString process = QString("/proc/%1").arg(desktop->harbexProcess());
        QVERIFY2(QFile::exists(process), "the program runs");
        desktop.reset(); // the user logs out
        STEP("the program ends with the session", !QFile::exists(process));
        desktop.emplace();                               // and in
        desktop->set("XDG_CONFIG_DIRS", "/nonexistent"); // has programs of this machine
        QVERIFY2(
            desktop->run("sh", {"-c", "$(find /usr/lib* -maxdepth 2 -name openbox-xdg-autostart) OPENBOX"}),
            "the desktop starts the programs of the user");
        STEP("the window shows the rules", harbex.controls("combo box", "Field").size() == 3);
        QVERIFY2(harbex.closeWindow(), "the window closes");
        QVERIFY2(harbex.drop("tree.png"), "a file arrives");
        STEP("it is moved", harbex.wasMoved("tree.png", "Pictures"));
        QVERIFY2(QFile::exists(HarbexRun::inbox() + "/notes.txt"), "what no rule takes stays");
    }
};

HARBEX_TEST(TestDesktopFile)
#include "tst_DesktopFile.moc"
