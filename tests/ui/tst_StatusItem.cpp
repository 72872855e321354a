#include "support/FakePanel.h"
#include "support/SessionBus.h"
#include "support/WindowTestMain.h"
#include "ui/DBusMenu.h"
#include "ui/StatusItem.h"

#include <QDBusMetaType>
#include <QMenu>
#include <QSignalSpy>
#include <QSystemTrayIcon>

using namespace harbex;
using namespace harbex::test;

/// The status item as a user sees it, and the signals of its menu.
class TestStatusItem : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { m_bus = std::make_unique<SessionBus>(); }

    void cleanup()
    {
        m_open.reset();
        m_quit.reset();
        m_item.reset();
        m_panel.reset();
        m_bus.reset();
    }

    void panelGetsTitleIconAndMenu()
    {
        QVERIFY(makeItemInPanel());
        QCOMPARE(m_panel->item().property("Title"), QVariant(QStringLiteral("Harbex")));
        QCOMPARE(m_panel->item().property("IconName"), QVariant(QStringLiteral("folder-symbolic")));
        const auto pixmaps = qdbus_cast<QList<StatusNotifierPixmap>>(m_panel->item().property("IconPixmap"));
        QVERIFY(!pixmaps.isEmpty());
        for (const StatusNotifierPixmap& pixmap : pixmaps) {
            // The middle of a folder is drawn, the corner is not.
            const auto alpha = [&](int x, int y) {
                return int(quint8(pixmap.pixels[(y * pixmap.width + x) * 4]));
            };
            QCOMPARE(alpha(pixmap.width / 2, pixmap.height / 2), 255);
            QCOMPARE(alpha(0, 0), 0);
        }

        const QDBusMessage answer = m_panel->menu().call("GetLayout", {0, -1, QStringList()});
        QList<QVariantMap> entries;
        for (const auto& entry : qdbus_cast<DBusMenuLayout>(answer.arguments().value(1)).children)
            entries.append(entry.properties);
        QCOMPARE(entries, QList<QVariantMap>({{{QStringLiteral("label"), QStringLiteral("Open Harbex")}},
                                              {{QStringLiteral("type"), QStringLiteral("separator")}},
                                              {{QStringLiteral("label"), QStringLiteral("Quit")}}}));
    }

    void entriesAskForTheWindowOrTheEnd()
    {
        QVERIFY(makeItemInPanel());
        QVERIFY(m_panel->item().accepts("ProvideXdgActivationToken", {QStringLiteral("token")}));
        m_panel->click(1);
        QTRY_COMPARE(m_open->count(), 1);
        QCOMPARE(m_open->takeFirst(), QVariantList({QStringLiteral("token")}));
        m_panel->click(1);
        QTRY_COMPARE(m_open->count(), 1);
        QCOMPARE(m_open->takeFirst(), QVariantList({QString()}));
        QCOMPARE(m_quit->count(), 0);
        m_panel->click(3);
        QTRY_COMPARE(m_quit->count(), 1);
        QCOMPARE(m_open->count(), 0);
    }

    void panelThatDrawsNoMenusGetsThePopUp_data()
    {
        QTest::addColumn<QByteArray>("method");
        QTest::newRow("left click") << QByteArray("Activate");
        QTest::newRow("right click") << QByteArray("ContextMenu");
    }

    void panelThatDrawsNoMenusGetsThePopUp()
    {
        QFETCH(const QByteArray, method);
        QVERIFY(makeItemInPanel());
        QVERIFY(m_panel->item().accepts(method, {123, 234}));
        QTRY_VERIFY(popUp());
        QCOMPARE(popUp()->pos(), QPoint(123, 234));
        const QList<QAction*> entries = popUp()->actions();
        QCOMPARE(entries.size(), 3);
        QCOMPARE(entries[0]->text(), QStringLiteral("Open Harbex"));
        QVERIFY(entries[1]->isSeparator());
        QCOMPARE(entries[2]->text(), QStringLiteral("Quit"));
        for (const QAction* entry : entries) {
            QVERIFY(entry->isEnabled() && entry->isVisible() && !entry->isCheckable());
            QVERIFY(entry->icon().isNull() && entry->shortcut().isEmpty());
        }

        // A second click does not open a second menu.
        QVERIFY(m_panel->item().accepts(method, {120, 120}));
        popUp()->close();
        QTRY_VERIFY(!popUp());
        QCOMPARE(m_open->count() + m_quit->count(), 0);

        QVERIFY(m_panel->item().accepts(method, {123, 234}));
        QTRY_VERIFY(popUp());
        QTest::keyClick(popUp(), Qt::Key_Down);
        QTest::keyClick(popUp(), Qt::Key_Return);
        QCOMPARE(m_open->count(), 1);
        QCOMPARE(m_quit->count(), 0);
    }

    void itIsShownWhileAPanelHasAHost()
    {
        FakePanel panel(*m_bus, false);
        makeItem(m_bus->connect());
        const QSignalSpy shown(m_item.get(), &StatusItem::shownChanged);
        QTRY_VERIFY(isInXEmbedTray());
        QVERIFY2(shown.isEmpty(), "there is no tray yet, neither of this kind nor of the other");
        qsizetype changes = 0;
        for (const bool isThere : {true, false, true}) {
            panel.setHost(isThere);
            ++changes;
            QTRY_COMPARE(shown.size(), changes);
            QCOMPARE(shown.last(), QVariantList() << isThere);
        }
    }

    void xembedTrayIsUsedOnlyAfterThePanelIsGone()
    {
        QVERIFY(makeItemInPanel());
        // The reply comes after the replies to all earlier calls of the item.
        QCOMPARE(m_panel->item().property("Id"), QVariant(QStringLiteral("harbex")));
        QTest::qWait(0);
        QVERIFY(!trayIcon());
        m_panel.reset();
        QTRY_VERIFY(isInXEmbedTray());
    }

    void xembedTrayIsUsedWheneverThereIsNoPanel()
    {
        makeItem(m_bus->connect());
        for (int time = 0; time < 3; ++time) {
            QTRY_VERIFY(isInXEmbedTray());
            const FakePanel panel(*m_bus);
            QTRY_COMPARE(panel.items().size(), 1);
            QTRY_VERIFY(!isInXEmbedTray());
        }
        QTRY_VERIFY(isInXEmbedTray());
        QCOMPARE(m_item->findChildren<QSystemTrayIcon*>().size(), 1);
    }

    void xembedTrayHasTheSameMenuForALeftClick()
    {
        makeItem(QDBusConnection(QStringLiteral("no such connection")));
        QTRY_VERIFY(isInXEmbedTray());
        QVERIFY(!trayIcon()->icon().pixmap(22).isNull());
        QCOMPARE(trayIcon()->toolTip(), QStringLiteral("Harbex"));

        // Qt itself opens the menu for a right click. Two calls would close it at once.
        for (const auto reason :
             {QSystemTrayIcon::Context, QSystemTrayIcon::DoubleClick, QSystemTrayIcon::MiddleClick})
            Q_EMIT trayIcon()->activated(reason);
        QTest::qWait(0);
        QVERIFY(!popUp());
        Q_EMIT trayIcon()->activated(QSystemTrayIcon::Trigger);
        QTRY_VERIFY(popUp());
        QCOMPARE(popUp(), trayIcon()->contextMenu());
        popUp()->close();
        QCOMPARE(m_open->count() + m_quit->count(), 0);
        QCOMPARE(trayIcon()->contextMenu()->actions().size(), 3);
        trayIcon()->contextMenu()->actions().at(2)->trigger();
        QCOMPARE(m_quit->count(), 1);
    }

private:
    void makeItem(const QDBusConnection& connection)
    {
        m_item = std::make_unique<StatusItem>(connection);
        m_open.emplace(m_item.get(), &StatusItem::openRequested);
        m_quit.emplace(m_item.get(), &StatusItem::quitRequested);
    }
    /// Starts a panel and creates the item. Returns whether the item registers.
    [[nodiscard]] bool makeItemInPanel()
    {
        m_panel = std::make_unique<FakePanel>(*m_bus);
        makeItem(m_bus->connect());
        return m_panel->waitForItem();
    }
    [[nodiscard]] QSystemTrayIcon* trayIcon() const { return m_item->findChild<QSystemTrayIcon*>(); }
    [[nodiscard]] bool isInXEmbedTray() const { return trayIcon() && trayIcon()->isVisible(); }
    static QMenu* popUp() { return qobject_cast<QMenu*>(QApplication::activePopupWidget()); }

    std::unique_ptr<SessionBus> m_bus;
    std::unique_ptr<FakePanel> m_panel;
    std::unique_ptr<StatusItem> m_item;
    std::optional<QSignalSpy> m_open;
    std::optional<QSignalSpy> m_quit;
};

HARBEX_WINDOW_TEST(TestStatusItem)
#include "tst_StatusItem.moc"
