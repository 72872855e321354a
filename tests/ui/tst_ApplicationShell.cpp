#include "base/FileDescriptor.h"
#include "support/ContentStateFixture.h"
#include "support/FakePanel.h"
#include "support/SessionBus.h"
#include "support/SettingsPortal.h"
#include "support/WindowTestMain.h"
#include "ui/ApplicationService.h"
#include "ui/ApplicationShell.h"
#include "ui/ColorScheme.h"

#include <sys/inotify.h>
#include <unistd.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// Returns how often `action` opens a file, one after another.
int openingsOf(const QString& path, const std::function<void()>& action)
{
    const FileDescriptor inotify(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    // The kernel merges equal events. Closings separate the openings.
    if (::inotify_add_watch(inotify.get(), QFile::encodeName(path).constData(), IN_OPEN | IN_CLOSE) < 0)
        qFatal("cannot watch %s", qPrintable(path));
    action();
    int openings = 0;
    // Events of a file have no name.
    for (inotify_event event; ::read(inotify.get(), &event, sizeof event) == sizeof event;)
        if (event.mask & IN_OPEN) ++openings;
    return openings;
}

/// Returns the only main window; null if there is not exactly one.
MainWindow* mainWindow()
{
    QList<MainWindow*> windows;
    for (QWidget* widget : QApplication::topLevelWidgets())
        if (auto* window = qobject_cast<MainWindow*>(widget)) windows.append(window);
    return windows.size() == 1 ? windows.first() : nullptr;
}

/// Harbex, launched into a panel that shows the item.
struct LaunchedShell {
    LaunchedShell()
    {
        QVERIFY(service.start({}) == ApplicationService::Start::first);
        shell.applicationDidFinishLaunching();
        QVERIFY(panel.waitForItem());
    }

    SessionBus bus;
    FakePanel panel{bus};
    ApplicationService service{bus.connect()};
    ApplicationShell shell{bus.connect(), service};
};

} // namespace

/// The parts together: the window, the status item and the service.
class TestApplicationShell : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void launchTheMenuAndASecondStartOpenTheWindow()
    {
        LaunchedShell harbex;
        QVERIFY(mainWindow()->isVisible());
        QCOMPARE(harbex.panel.item().property("IconName"), QVariant("folder-symbolic"));
        mainWindow()->close();
        harbex.panel.click(1);
        QTRY_VERIFY(mainWindow()->isVisible());
        QTRY_VERIFY(mainWindow()->isActiveWindow());
        mainWindow()->close();
        QVERIFY(harbexOn(harbex.bus.connect()).accepts("Activate", {QVariantMap()}));
        QVERIFY(mainWindow()->isVisible());
    }

    void theFirstFrameHasTheColoursOfTheDesktop()
    {
        SessionBus bus;
        SettingsPortal portal(bus);
        portal.set("org.freedesktop.appearance", "color-scheme", 1U);
        const ApplicationService service(bus.connect());
        ApplicationShell shell(bus.connect(), service);
        shell.applicationDidFinishLaunching();
        // Nothing is painted before the main loop runs.
        QVERIFY(mainWindow()->isVisible());
        QCOMPARE(QApplication::palette().color(QPalette::Window),
                 ColorScheme::darkPalette().color(QPalette::Window));
        QApplication::setPalette(QPalette());
    }

    void openingTheWindowReadsTheStoreOnce()
    {
        // Without a selection, the first opening saves nothing. A save reads the file too.
        FolderStore().saveState({});
        const QString store = FolderStore().path();
        std::optional<LaunchedShell> harbex;
        QCOMPARE(openingsOf(store, [&] { harbex.emplace(); }), 1);
        // Closing replaces the file.
        mainWindow()->close();
        QCOMPARE(openingsOf(store, [] { mainWindow()->open(); }), 1);
    }

    void theSessionManagerEndsTheProgramWithoutSaving()
    {
        const WatchedFolder folder = makeFolder("A");
        FolderStore().saveState({{folder}, folder.id});
        const QByteArray stored = storedText();
        {
            const LaunchedShell harbex;
            // The focus is in a row, which goes with it.
            auto* field = mainWindow()->findChild<QLineEdit*>();
            field->setFocus();
            QTest::keyClicks(field, "not saved yet");
            QTimer::singleShot(0, this, [] {
                QEvent quit(QEvent::Quit);
                QCoreApplication::sendEvent(qApp, &quit);
            });
            QCOMPARE(QApplication::exec(), 0);
            // Closing the window would have saved.
            QVERIFY(mainWindow()->isVisible());
        }
        QCOMPARE(storedText(), stored);
    }
};

HARBEX_WINDOW_TEST(TestApplicationShell)
#include "tst_ApplicationShell.moc"
