#include "store/FolderStore.h"
#include "support/FakePanel.h"
#include "support/FolderDialogUser.h"
#include "support/SessionBus.h"
#include "support/WindowTestMain.h"
#include "ui/ApplicationService.h"
#include "ui/ApplicationShell.h"
#include "ui/FlatButton.h"
#include "ui/FolderList.h"

#include <QComboBox>
#include <QDir>
#include <QFile>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QTemporaryDir>
#include <QTimer>
#include <QToolBar>
#include <QTranslator>

#include <utility>

using namespace harbex;
using namespace harbex::test;

namespace
{

FileUrl urlOf(const QDir& folder)
{
    return FileUrl::fromPath(folder.path().toStdString());
}

/// A folder that is watched, whose every new entry goes into another folder.
class MovingFolder
{
public:
    MovingFolder()
    {
        QDir(m_folder.path()).mkdir(QStringLiteral("from"));
        QDir(m_folder.path()).mkdir(QStringLiteral("to"));
    }

    [[nodiscard]] WatchedFolder record() const
    {
        FilterRule all;
        all.destination = urlOf(m_folder.filePath(QStringLiteral("to")));
        return {.url = urlOf(m_folder.filePath(QStringLiteral("from"))), .bookmarkData = {}, .rules = {all}};
    }
    /// Lets one more file arrive.
    void drop()
    {
        QFile file(m_folder.filePath(QStringLiteral("from/%1").arg(++m_dropped)));
        if (!file.open(QIODevice::WriteOnly)) qFatal("no new file");
    }
    [[nodiscard]] qsizetype movedFiles() const
    {
        return QDir(m_folder.filePath(QStringLiteral("to"))).entryList(QDir::Files).size();
    }
    /// Whether files that arrive from now on are moved; those before the engine runs are not.
    [[nodiscard]] bool isWatched()
    {
        const qsizetype before = movedFiles();
        return QTest::qWaitFor(
            [&] {
                drop();
                return movedFiles() > before;
            },
            30000);
    }

private:
    QTemporaryDir m_folder;
    int m_dropped = 0;
};

/// Translates every text of the program, while it lives, into the same in brackets.
class BracketTranslator : public QTranslator
{
public:
    BracketTranslator() { QCoreApplication::installTranslator(this); }
    ~BracketTranslator() override { QCoreApplication::removeTranslator(this); }

    [[nodiscard]] bool isEmpty() const override { return false; }
    [[nodiscard]] QString translate(const char* context, const char* source, const char* /*comment*/,
                                    int /*number*/) const override
    {
        if (!QByteArrayView(context).startsWith("harbex::")) return {};
        return u'[' + QString::fromUtf8(source) + u']';
    }
};

} // namespace

/// The parts together: one engine, one window, one item.
class TestApplicationShell : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void launchOpensTheWindowAndShowsTheItem();
    void launchWithoutAPanelKeepsTheWindowOpen();
    void watchingGoesOnWhileTheWindowIsClosed();
    void openHarbexOpensTheClosedWindow();
    void openHarbexReadsTheFoldersAgain();
    void openHarbexRestartsNothing();
    void openHarbexWithTheWindowOpenBringsTheSameForward();
    void openingTheMenuNeitherReadsNorWrites();
    void secondStartOpensTheWindow();
    void quitOfTheMenuEndsWithoutSaving();
    void quitOfTheBusEndsWithoutSaving();
    void quitOfTheSessionManagerEndsWithoutSaving();
    void everyTextIsTranslatedAndTheStoreIsNot();

private:
    void launch()
    {
        m_service = std::make_unique<ApplicationService>(m_bus->connect());
        QVERIFY(m_service->start({}) == ApplicationService::Start::first);
        m_shell = std::make_unique<ApplicationShell>(m_bus->connect(), *m_service);
        m_shell->applicationDidFinishLaunching();
    }
    /// With a panel, in which the item then is.
    void launchIntoAPanel()
    {
        m_panel = std::make_unique<FakePanel>(*m_bus);
        launch();
        QTRY_COMPARE(m_panel->items().size(), 1);
    }
    static QList<MainWindow*> windows()
    {
        QList<MainWindow*> windows;
        for (QWidget* widget : QApplication::topLevelWidgets()) {
            if (auto* window = qobject_cast<MainWindow*>(widget)) windows.append(window);
        }
        return windows;
    }
    static MainWindow* window() { return windows().value(0); }
    void choose(int entry) const
    {
        m_panel->menu().send(QStringLiteral("Event"),
                             {entry, QStringLiteral("clicked"), QVariant::fromValue(QDBusVariant(0)), 0U});
    }
    void chooseOpen() const { choose(1); }
    void chooseQuit() const { choose(3); }
    [[nodiscard]] RemoteObject application() const
    {
        return {m_bus->connect(), QStringLiteral("org.harbex.Harbex"), QStringLiteral("/org/harbex/Harbex"),
                QStringLiteral("org.freedesktop.Application")};
    }

    /// What is stored, and as if somebody else had stored it.
    static size_t storedFolders() { return FolderStore().loadState({}).folders.size(); }
    static void store(const std::vector<WatchedFolder>& folders)
    {
        FolderStore().saveState({folders, folders.front().id});
    }
    static QByteArray storeContent()
    {
        QFile file(FolderStore().path());
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    std::unique_ptr<SessionBus> m_bus;
    std::unique_ptr<FakePanel> m_panel;
    std::unique_ptr<ApplicationService> m_service;
    std::unique_ptr<ApplicationShell> m_shell;
};

void TestApplicationShell::init()
{
    m_bus = std::make_unique<SessionBus>();
    QFile::remove(FolderStore().path());
}

void TestApplicationShell::cleanup()
{
    m_shell.reset();
    m_service.reset();
    m_panel.reset();
    m_bus.reset();
}

void TestApplicationShell::launchOpensTheWindowAndShowsTheItem()
{
    launchIntoAPanel();
    QCOMPARE(windows().size(), 1);
    QVERIFY(window()->isVisible());
    QCOMPARE(window()->windowTitle(), QStringLiteral("Harbex"));
    QCOMPARE(m_panel->item().property(QStringLiteral("IconName")), QVariant(QStringLiteral("folder")));
}

void TestApplicationShell::launchWithoutAPanelKeepsTheWindowOpen()
{
    launch();
    QVERIFY(window()->isVisible());
    // Nothing comes after that would close it; the program is reached again by a second start.
    window()->close();
    QCOMPARE(application().call(QStringLiteral("Activate"), {QVariantMap()}).type(),
             QDBusMessage::ReplyMessage);
    QVERIFY(window()->isVisible());
}

void TestApplicationShell::watchingGoesOnWhileTheWindowIsClosed()
{
    MovingFolder folder;
    store({folder.record()});
    launch();
    QVERIFY(folder.isWatched());
    window()->close();
    QVERIFY(folder.isWatched());
    QVERIFY(!window()->isVisible());
}

void TestApplicationShell::openHarbexOpensTheClosedWindow()
{
    launchIntoAPanel();
    window()->close();
    chooseOpen();
    QTRY_VERIFY(window()->isVisible());
    QCOMPARE(windows().size(), 1);
    QTRY_VERIFY(window()->isActiveWindow());
}

void TestApplicationShell::openHarbexReadsTheFoldersAgain()
{
    MovingFolder one;
    MovingFolder other;
    store({one.record()});
    launchIntoAPanel();
    window()->close();
    store({one.record(), other.record()});
    chooseOpen();
    QTRY_VERIFY(window()->isVisible());
    // Closing writes what was read.
    window()->close();
    QCOMPARE(storedFolders(), size_t(2));
}

void TestApplicationShell::openHarbexRestartsNothing()
{
    MovingFolder one;
    MovingFolder other;
    store({one.record()});
    launchIntoAPanel();
    QVERIFY(one.isWatched());
    window()->close();
    store({other.record()});
    chooseOpen();
    QTRY_VERIFY(window()->isVisible());
    // The engine that runs still watches what it was started with, and that only.
    other.drop();
    QVERIFY(one.isWatched());
    QCOMPARE(other.movedFiles(), 0);
}

void TestApplicationShell::openHarbexWithTheWindowOpenBringsTheSameForward()
{
    MovingFolder one;
    MovingFolder other;
    store({one.record()});
    launchIntoAPanel();
    const MainWindow* const before = window();
    QWidget inFront;
    inFront.show();
    inFront.activateWindow();
    QTRY_VERIFY(inFront.isActiveWindow());

    store({one.record(), other.record()});
    const QByteArray stored = storeContent();
    chooseOpen();
    QTRY_VERIFY(window()->isActiveWindow());
    QCOMPARE(windows().size(), 1);
    QCOMPARE(window(), before);
    // Nothing was written, and nothing read: closing writes the one folder again.
    QCOMPARE(storeContent(), stored);
    window()->close();
    QCOMPARE(storedFolders(), size_t(1));
}

void TestApplicationShell::openingTheMenuNeitherReadsNorWrites()
{
    MovingFolder one;
    MovingFolder other;
    store({one.record()});
    launchIntoAPanel();
    store({one.record(), other.record()});
    const QByteArray stored = storeContent();
    QCOMPARE(m_panel->menu().call(QStringLiteral("AboutToShow"), {0}).type(), QDBusMessage::ReplyMessage);
    QCOMPARE(m_panel->item().call(QStringLiteral("Activate"), {50, 50}).type(), QDBusMessage::ReplyMessage);
    QTRY_VERIFY(QApplication::activePopupWidget());
    QApplication::activePopupWidget()->close();
    QCOMPARE(storeContent(), stored);
    QVERIFY(one.isWatched());
    window()->close();
    QCOMPARE(storedFolders(), size_t(1));
}

void TestApplicationShell::secondStartOpensTheWindow()
{
    launch();
    window()->close();
    QCOMPARE(application().call(QStringLiteral("Activate"), {QVariantMap()}).type(),
             QDBusMessage::ReplyMessage);
    QVERIFY(window()->isVisible());
    QCOMPARE(windows().size(), 1);
}

void TestApplicationShell::quitOfTheMenuEndsWithoutSaving()
{
    MovingFolder one;
    MovingFolder other;
    store({one.record()});
    launchIntoAPanel();
    store({one.record(), other.record()});
    const QByteArray stored = storeContent();
    QTimer::singleShot(0, this, [this] { chooseQuit(); });
    QCOMPARE(QApplication::exec(), 0);
    // Closing the window would have saved.
    QVERIFY(window()->isVisible());
    // The engine was not stopped.
    QVERIFY(one.isWatched());
    m_shell.reset();
    QCOMPARE(storeContent(), stored);
}

void TestApplicationShell::quitOfTheBusEndsWithoutSaving()
{
    MovingFolder one;
    MovingFolder other;
    store({one.record()});
    launch();
    store({one.record(), other.record()});
    const QByteArray stored = storeContent();
    QTimer::singleShot(0, this, [this] {
        application().send(QStringLiteral("ActivateAction"),
                           {QStringLiteral("quit"), QVariantList(), QVariantMap()});
    });
    QCOMPARE(QApplication::exec(), 0);
    QVERIFY(window()->isVisible());
    // The engine was not stopped.
    QVERIFY(one.isWatched());
    m_shell.reset();
    QCOMPARE(storeContent(), stored);
}

void TestApplicationShell::quitOfTheSessionManagerEndsWithoutSaving()
{
    MovingFolder one;
    store({one.record()});
    launch();
    QTest::keyClicks(window()->findChild<QLineEdit*>(), QStringLiteral("not saved yet"));
    const QByteArray stored = storeContent();
    QTimer::singleShot(0, this, [] {
        QEvent quit(QEvent::Quit);
        QCoreApplication::sendEvent(qApp, &quit);
    });
    QCOMPARE(QApplication::exec(), 0);
    QVERIFY(window()->isVisible());
    QVERIFY(one.isWatched());
    m_shell.reset();
    QCOMPARE(storeContent(), stored);
}

void TestApplicationShell::everyTextIsTranslatedAndTheStoreIsNot()
{
    const BracketTranslator translator;
    const MovingFolder one;
    WatchedFolder folder = one.record();
    folder.rules.assign(2, FilterRule());
    folder.rules.at(1).id = QUuid::createUuid();
    store({folder});
    launchIntoAPanel();

    // What is not text of the program is the name of a folder and the text in a field.
    QStringList texts{window()->windowTitle()};
    const auto choose = [](QComboBox* picker, int index) {
        picker->setCurrentIndex(index);
        Q_EMIT picker->activated(index);
    };
    const auto pickers = window()->findChildren<QComboBox*>();
    QCOMPARE(pickers.size(), 6);
    choose(pickers.at(1), 1);
    choose(pickers.at(3), 2);
    choose(pickers.at(5), 4);
    for (QWidget* widget : window()->findChildren<QWidget*>()) {
        if (const auto* label = qobject_cast<QLabel*>(widget)) texts += label->text();
        if (const auto* button = qobject_cast<QAbstractButton*>(widget)) texts += button->text();
        if (const auto* field = qobject_cast<QLineEdit*>(widget)) texts += field->placeholderText();
        texts += widget->accessibleName();
    }
    for (const QComboBox* picker : pickers)
        for (int i = 0; i < picker->count(); ++i)
            texts += picker->itemText(i);
    auto* folders = window()->findChild<FolderList*>();
    folders->setCurrentRow(0);
    QTest::keyClick(folders, Qt::Key_Menu);
    for (const QWidget* widget : QApplication::topLevelWidgets())
        if (const auto* menu = qobject_cast<const QMenu*>(widget))
            for (const QAction* entry : menu->actions())
                texts += entry->text();
    QVERIFY(QApplication::activePopupWidget());
    QApplication::activePopupWidget()->close();

    const FolderDialogUser user([&](QFileDialog& dialog) {
        texts += dialog.windowTitle();
        texts += dialog.labelText(QFileDialog::Accept);
        dialog.reject();
    });
    window()->findChild<QToolBar*>()->findChild<FlatButton*>()->click();
    const QString prompt = QStringLiteral("[Select Focus Folder]");
    QTRY_COMPARE(texts.count(prompt), 2);

    texts.removeAll(QString());
    for (const QString& text : std::as_const(texts))
        QVERIFY2(text.startsWith(u'[') && text.endsWith(u']'), qPrintable(text));
    for (const char* text : {"Harbex", "Folders", "Add Folder", "Rules", "Add Rule", "move to", "Field",
                             "Name", "contains", "Audio", "Default: All Files", "Select destination...",
                             "Delete", "Select a folder from the sidebar", "Open Harbex", "Quit"})
        QVERIFY2(texts.contains(u'[' + QString::fromLatin1(text) + u']'), text);

    window()->close();
    const auto rules = FolderStore().loadState({}).folders.at(0).rules;
    QCOMPARE(rules.at(0).operatorType, RuleOperator::isEqual);
    QCOMPARE(rules.at(1).field, RuleField::kind);
    QCOMPARE(rules.at(1).kind, RuleKind::audio);
    for (const char* rawValue : {"[Name", "[Kind", "[contains", "[is", "[Audio"})
        QVERIFY2(!storeContent().contains(rawValue), rawValue);
}

HARBEX_WINDOW_TEST_MAIN(TestApplicationShell)
#include "tst_ApplicationShell.moc"
