#include "base/FileDescriptor.h"
#include "support/ContentStateFixture.h"
#include "support/FakePanel.h"
#include "support/FolderDialogUser.h"
#include "support/SessionBus.h"
#include "support/SettingsPortal.h"
#include "support/WindowTestMain.h"
#include "ui/ApplicationService.h"
#include "ui/ApplicationShell.h"
#include "ui/ColorScheme.h"
#include "ui/FlatButton.h"
#include "ui/FolderList.h"

#include <QComboBox>
#include <QFile>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QTimer>
#include <QTranslator>

#include <sys/inotify.h>
#include <unistd.h>
#include <utility>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// Translates every text of the program into the same text in brackets while the object exists.
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

/// The colour that the program has when it first shows a window.
class FirstShow : public QObject
{
public:
    FirstShow() { qApp->installEventFilter(this); }

    [[nodiscard]] QColor colour() const { return m_colour; }

protected:
    bool eventFilter(QObject* /*watched*/, QEvent* event) override
    {
        if (event->type() == QEvent::Show && !m_colour.isValid())
            m_colour = QApplication::palette().color(QPalette::Window);
        return false;
    }

private:
    QColor m_colour;
};

/// Counts how often a file is opened, one after another.
class FileOpenings
{
public:
    explicit FileOpenings(const QString& path) : m_inotify(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC))
    {
        // The kernel merges equal events. Closings separate the openings.
        if (::inotify_add_watch(m_inotify.get(), QFile::encodeName(path).constData(), IN_OPEN | IN_CLOSE) < 0)
            qFatal("cannot watch %s", qPrintable(path));
    }

    [[nodiscard]] int count() const
    {
        int openings = 0;
        // Events of a file have no name.
        for (inotify_event event; ::read(m_inotify.get(), &event, sizeof event) == sizeof event;)
            if (event.mask & IN_OPEN) ++openings;
        return openings;
    }

private:
    FileDescriptor m_inotify;
};

} // namespace

/// The parts together: the window, the status item and the service.
class TestApplicationShell : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_bus = std::make_unique<SessionBus>();
        QFile::remove(preferencesPath());
    }

    void cleanup()
    {
        m_shell.reset();
        m_service.reset();
        m_panel.reset();
        m_bus.reset();
    }

    void launchOpensTheWindowAndShowsTheItem()
    {
        launch();
        QVERIFY(window()->isVisible());
        QCOMPARE(window()->windowTitle(), QStringLiteral("Harbex"));
        QCOMPARE(m_panel->item().property("IconName"), QVariant(QStringLiteral("folder-symbolic")));
    }

    void theFirstFrameHasTheColoursOfTheDesktop()
    {
        SettingsPortal portal(*m_bus);
        portal.set(QStringLiteral("org.freedesktop.appearance"), QStringLiteral("color-scheme"), 1U);
        const FirstShow first;
        launch();
        QCOMPARE(first.colour(), ColorScheme::darkPalette().color(QPalette::Window));
        QApplication::setPalette(QPalette());
    }

    void theMenuAndASecondStartOpenTheClosedWindow()
    {
        launch();
        window()->close();
        m_panel->click(1);
        QTRY_VERIFY(window()->isVisible());
        QTRY_VERIFY(window()->isActiveWindow());
        window()->close();
        const RemoteObject application{m_bus->connect(), QStringLiteral("org.harbex.Harbex"),
                                       QStringLiteral("/org/harbex/Harbex"),
                                       QStringLiteral("org.freedesktop.Application")};
        QVERIFY(application.accepts("Activate", {QVariantMap()}));
        QVERIFY(window()->isVisible());
    }

    void openingTheWindowReadsTheStoreOnce()
    {
        // Without a selection, the first opening saves nothing. A save reads the file too.
        FolderStore().saveState({});
        const FileOpenings first(preferencesPath());
        launch();
        QVERIFY(window()->isVisible());
        QCOMPARE(first.count(), 1);
        // Closing replaces the file.
        window()->close();
        const FileOpenings second(preferencesPath());
        window()->open();
        QCOMPARE(second.count(), 1);
    }

    void theSessionManagerEndsTheProgramWithoutSaving()
    {
        store(ContentStateFixture::makeFolder(QStringLiteral("A")));
        launch();
        QTest::keyClicks(window()->findChild<QLineEdit*>(), QStringLiteral("not saved yet"));
        const QByteArray stored = storeContent();
        QTimer::singleShot(0, this, [] {
            QEvent quit(QEvent::Quit);
            QCoreApplication::sendEvent(qApp, &quit);
        });
        QCOMPARE(QApplication::exec(), 0);
        // Closing the window would have saved.
        QVERIFY(window()->isVisible());
        m_shell.reset();
        QCOMPARE(storeContent(), stored);
    }

    void everyTextIsTranslatedAndTheStoreIsNot()
    {
        const BracketTranslator translator;
        WatchedFolder folder = ContentStateFixture::makeFolder(QStringLiteral("A"), 2);
        folder.rules.at(1).id = QUuid::createUuid();
        store(folder);
        launch();

        // Texts of the program are all texts but the names of folders and the contents of fields.
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
        window()->findChild<FlatButton*>(QStringLiteral("addFolder"))->click();
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

private:
    /// Launches into a panel that shows the item.
    void launch()
    {
        m_panel = std::make_unique<FakePanel>(*m_bus);
        m_service = std::make_unique<ApplicationService>(m_bus->connect());
        QVERIFY(m_service->start({}) == ApplicationService::Start::first);
        m_shell = std::make_unique<ApplicationShell>(m_bus->connect(), *m_service);
        m_shell->applicationDidFinishLaunching();
        QVERIFY(m_panel->waitForItem());
    }
    /// Returns the only main window; null if there is not exactly one.
    static MainWindow* window()
    {
        QList<MainWindow*> windows;
        for (QWidget* widget : QApplication::topLevelWidgets())
            if (auto* window = qobject_cast<MainWindow*>(widget)) windows.append(window);
        return windows.size() == 1 ? windows.first() : nullptr;
    }

    static void store(const WatchedFolder& folder) { FolderStore().saveState({{folder}, folder.id}); }
    static QByteArray storeContent()
    {
        QFile file(preferencesPath());
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    std::unique_ptr<SessionBus> m_bus;
    std::unique_ptr<FakePanel> m_panel;
    std::unique_ptr<ApplicationService> m_service;
    std::unique_ptr<ApplicationShell> m_shell;
};

HARBEX_WINDOW_TEST(TestApplicationShell)
#include "tst_ApplicationShell.moc"
