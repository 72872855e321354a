#include "e2e/HarbexRun.h"
#include "support/TestMain.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// Returns the command of an action in the installed file.
QStringList commandOf(const QString& group)
{
    const QString path =
        qEnvironmentVariable("XDG_DATA_HOME") + QStringLiteral("/applications/org.harbex.Harbex.desktop");
    const QSettings file(path, QSettings::IniFormat);
    return QProcess::splitCommand(file.value(group + QStringLiteral("/Exec")).toString());
}

} // namespace

/// The installed desktop file, used as a desktop's menu uses it.
class TestDesktopFile : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void launchingOpensTheWindowAndTheQuitActionEndsTheProgram()
    {
        DesktopSession desktop;
        const QDir applications(qEnvironmentVariable("XDG_DATA_HOME") + QStringLiteral("/applications"));
        const QString name = QStringLiteral("org.harbex.Harbex.desktop");
        QVERIFY(applications.mkpath(QStringLiteral(".")));
        QVERIFY2(QFile::copy(QStringLiteral(HARBEX_PACKAGING "/") + name, applications.filePath(name)),
                 "the desktop file is installed");

        // Desktops ignore desktop files whose TryExec program is not in PATH.
        desktop.set("PATH",
                    QFileInfo(QStringLiteral(HARBEX_PROGRAM)).path() + u':' + qEnvironmentVariable("PATH"));
        QCOMPARE(desktop.run("gapplication", words("list-actions org.harbex.Harbex")), "quit\n");

        HarbexRun harbex(desktop);
        harbex.start();
        STEP("the window opens at the start", harbex.isInFront());
        QVERIFY2(harbex.closeWindow(), "the window closes");
        QVERIFY2(desktop.run("gapplication", words("launch org.harbex.Harbex")),
                 "the desktop can launch the program");
        STEP("launching opens the window of the one that runs, in front", harbex.isInFront());

        QStringList command = commandOf(QStringLiteral("Desktop Action quit"));
        QVERIFY2(!command.isEmpty(), "the desktop file has the action");
        const QByteArray program = command.takeFirst().toUtf8();
        QVERIFY2(desktop.run(program, command), "the command of the action works");
        STEP("the action ends the program with status 0", harbex.exitStatus() == 0);
        QVERIFY2(desktop.run(program, command), "without a running program it works too");
        STEP("it starts none",
             desktop.run("dbus-send", words("--session --print-reply --dest=org.freedesktop.DBus / "
                                            "org.freedesktop.DBus.ListNames"))
                     .value_or(QByteArray())
                     .count("org.harbex") == 0);
    }
};

HARBEX_TEST(TestDesktopFile)
#include "tst_DesktopFile.moc"
