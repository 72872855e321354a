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

/// What a person sees of the status item, and what choosing an entry leads to.
class TestStatusItem : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void menuIsOpenHarbexSeparatorQuit();
    void isTitledHarbex();
    void iconIsAFolderThatIsBundledToo();
    void openHarbexAsksForTheWindow();
    void openHarbexPassesTheActivationTokenOnce();
    void quitAsksForTheEnd();
    void openingTheMenuAsksForNothing();

    void panelThatDrawsNoMenusGetsThePopUp_data();
    void panelThatDrawsNoMenusGetsThePopUp();
    void popUpIsTheSameMenu();
    void popUpOpensAtThePosition();

    void xembedTrayIsLeftAloneWhereAPanelShowsTheItem();
    void xembedTrayServesWhereThereIsNoPanel();
    void xembedTrayServesWhereThereIsNoBus();
    void xembedTrayIsLeftForAPanelThatStartsLater();
    void xembedTrayServesAgainWhenThePanelIsGone();
    void xembedTrayShowsTheSameIconAndMenu();
    void leftClickInTheXEmbedTrayOpensTheMenu();
    void otherClicksInTheXEmbedTrayAreTheMenusOwn();

private:
    void makeItem(const QDBusConnection& connection)
    {
        m_item = std::make_unique<StatusItem>(connection);
        m_open.emplace(m_item.get(), &StatusItem::openRequested);
        m_quit.emplace(m_item.get(), &StatusItem::quitRequested);
    }
    void makeItem() { makeItem(m_bus->connect()); }
    [[nodiscard]] QSystemTrayIcon* trayIcon() const { return m_item->findChild<QSystemTrayIcon*>(); }
    [[nodiscard]] bool isInXEmbedTray() const { return trayIcon() && trayIcon()->isVisible(); }
    static QMenu* popUp() { return qobject_cast<QMenu*>(QApplication::activePopupWidget()); }
    static QDBusMessage click(const FakePanel& panel, int id)
    {
        return panel.menu().call(QStringLiteral("Event"),
                                 {id, QStringLiteral("clicked"), QVariant::fromValue(QDBusVariant(0)), 0U});
    }

    std::unique_ptr<SessionBus> m_bus;
    std::unique_ptr<StatusItem> m_item;
    std::optional<QSignalSpy> m_open;
    std::optional<QSignalSpy> m_quit;
};

void TestStatusItem::init()
{
    m_bus = std::make_unique<SessionBus>();
}

void TestStatusItem::cleanup()
{
    m_open.reset();
    m_quit.reset();
    m_item.reset();
    m_bus.reset();
}

void TestStatusItem::menuIsOpenHarbexSeparatorQuit()
{
    const FakePanel panel(*m_bus);
    makeItem();
    QTRY_COMPARE(panel.items().size(), 1);
    const QDBusMessage answer = panel.menu().call(QStringLiteral("GetLayout"), {0, -1, QStringList()});
    const auto layout = qdbus_cast<DBusMenuLayout>(answer.arguments().value(1));
    QList<QVariantMap> entries;
    for (const DBusMenuLayout& entry : layout.children)
        entries.append(entry.properties);
    QCOMPARE(entries, QList<QVariantMap>({{{QStringLiteral("label"), QStringLiteral("Open Harbex")}},
                                          {{QStringLiteral("type"), QStringLiteral("separator")}},
                                          {{QStringLiteral("label"), QStringLiteral("Quit")}}}));
}

void TestStatusItem::isTitledHarbex()
{
    const FakePanel panel(*m_bus);
    makeItem();
    QTRY_COMPARE(panel.items().size(), 1);
    QCOMPARE(panel.item().property(QStringLiteral("Title")), QVariant(QStringLiteral("Harbex")));
}

void TestStatusItem::iconIsAFolderThatIsBundledToo()
{
    const FakePanel panel(*m_bus);
    makeItem();
    QTRY_COMPARE(panel.items().size(), 1);
    QCOMPARE(panel.item().property(QStringLiteral("IconName")), QVariant(QStringLiteral("folder")));
    const auto pixmaps =
        qdbus_cast<QList<StatusNotifierPixmap>>(panel.item().property(QStringLiteral("IconPixmap")));
    QVERIFY(!pixmaps.isEmpty());
    for (const StatusNotifierPixmap& pixmap : pixmaps) {
        // The middle of a folder is drawn, the corner is not.
        const auto alpha = [&](int x, int y) {
            return int(quint8(pixmap.pixels[(y * pixmap.width + x) * 4]));
        };
        QCOMPARE(alpha(pixmap.width / 2, pixmap.height / 2), 255);
        QCOMPARE(alpha(0, 0), 0);
    }
}

void TestStatusItem::openHarbexAsksForTheWindow()
{
    const FakePanel panel(*m_bus);
    makeItem();
    QTRY_COMPARE(panel.items().size(), 1);
    QCOMPARE(click(panel, 1).type(), QDBusMessage::ReplyMessage);
    QTRY_COMPARE(m_open->count(), 1);
    QCOMPARE(m_open->takeFirst(), QVariantList({QString()}));
    QCOMPARE(m_quit->count(), 0);
}

void TestStatusItem::openHarbexPassesTheActivationTokenOnce()
{
    const FakePanel panel(*m_bus);
    makeItem();
    QTRY_COMPARE(panel.items().size(), 1);
    QCOMPARE(panel.item().call(QStringLiteral("ProvideXdgActivationToken"), {QStringLiteral("token")}).type(),
             QDBusMessage::ReplyMessage);
    QCOMPARE(click(panel, 1).type(), QDBusMessage::ReplyMessage);
    QCOMPARE(click(panel, 1).type(), QDBusMessage::ReplyMessage);
    QTRY_COMPARE(m_open->count(), 2);
    QCOMPARE(m_open->at(0), QVariantList({QStringLiteral("token")}));
    QCOMPARE(m_open->at(1), QVariantList({QString()}));
}

void TestStatusItem::quitAsksForTheEnd()
{
    const FakePanel panel(*m_bus);
    makeItem();
    QTRY_COMPARE(panel.items().size(), 1);
    QCOMPARE(click(panel, 3).type(), QDBusMessage::ReplyMessage);
    QTRY_COMPARE(m_quit->count(), 1);
    QCOMPARE(m_open->count(), 0);
}

void TestStatusItem::openingTheMenuAsksForNothing()
{
    const FakePanel panel(*m_bus);
    makeItem();
    QTRY_COMPARE(panel.items().size(), 1);
    QCOMPARE(panel.menu().call(QStringLiteral("AboutToShow"), {0}).type(), QDBusMessage::ReplyMessage);
    QCOMPARE(panel.item().call(QStringLiteral("Activate"), {10, 10}).type(), QDBusMessage::ReplyMessage);
    QTRY_VERIFY(popUp());
    popUp()->close();
    QCOMPARE(m_open->count() + m_quit->count(), 0);
}

void TestStatusItem::panelThatDrawsNoMenusGetsThePopUp_data()
{
    QTest::addColumn<QString>("method");
    QTest::newRow("left click") << QStringLiteral("Activate");
    QTest::newRow("right click") << QStringLiteral("ContextMenu");
}

void TestStatusItem::panelThatDrawsNoMenusGetsThePopUp()
{
    QFETCH(QString, method);
    const FakePanel panel(*m_bus);
    makeItem();
    QTRY_COMPARE(panel.items().size(), 1);
    QCOMPARE(panel.item().call(method, {100, 100}).type(), QDBusMessage::ReplyMessage);
    QTRY_VERIFY(popUp());
    // Again while it is open: there is still one.
    QCOMPARE(panel.item().call(method, {120, 120}).type(), QDBusMessage::ReplyMessage);
    popUp()->close();
    QTRY_VERIFY(!popUp());
}

void TestStatusItem::popUpIsTheSameMenu()
{
    const FakePanel panel(*m_bus);
    makeItem();
    QTRY_COMPARE(panel.items().size(), 1);
    QCOMPARE(panel.item().call(QStringLiteral("Activate"), {100, 100}).type(), QDBusMessage::ReplyMessage);
    QTRY_VERIFY(popUp());
    const QList<QAction*> entries = popUp()->actions();
    QCOMPARE(entries.size(), 3);
    QCOMPARE(entries[0]->text(), QStringLiteral("Open Harbex"));
    QVERIFY(entries[1]->isSeparator());
    QCOMPARE(entries[2]->text(), QStringLiteral("Quit"));
    for (const QAction* entry : entries) {
        QVERIFY(entry->isEnabled() && entry->isVisible() && !entry->isCheckable());
        QVERIFY(entry->icon().isNull() && entry->shortcut().isEmpty());
    }
    QTest::keyClick(popUp(), Qt::Key_Down);
    QTest::keyClick(popUp(), Qt::Key_Return);
    QCOMPARE(m_open->count(), 1);
    QCOMPARE(m_quit->count(), 0);
}

void TestStatusItem::popUpOpensAtThePosition()
{
    const FakePanel panel(*m_bus);
    makeItem();
    QTRY_COMPARE(panel.items().size(), 1);
    QCOMPARE(panel.item().call(QStringLiteral("Activate"), {123, 234}).type(), QDBusMessage::ReplyMessage);
    QTRY_VERIFY(popUp());
    const QPoint position = popUp()->pos();
    popUp()->close();
    QCOMPARE(position, QPoint(123, 234));
}

void TestStatusItem::xembedTrayIsLeftAloneWhereAPanelShowsTheItem()
{
    const FakePanel panel(*m_bus);
    makeItem();
    QTRY_COMPARE(panel.items().size(), 1);
    // Once this is answered, so is everything that the item has asked the panel before.
    QCOMPARE(panel.item().property(QStringLiteral("Id")), QVariant(QStringLiteral("harbex")));
    QTest::qWait(0);
    QVERIFY(!trayIcon());
}

void TestStatusItem::xembedTrayServesWhereThereIsNoPanel()
{
    makeItem();
    QTRY_VERIFY(isInXEmbedTray());
}

void TestStatusItem::xembedTrayServesWhereThereIsNoBus()
{
    makeItem(QDBusConnection(QStringLiteral("no such connection")));
    QTRY_VERIFY(isInXEmbedTray());
}

void TestStatusItem::xembedTrayIsLeftForAPanelThatStartsLater()
{
    makeItem();
    QTRY_VERIFY(isInXEmbedTray());
    const FakePanel panel(*m_bus);
    QTRY_VERIFY(!isInXEmbedTray());
}

void TestStatusItem::xembedTrayServesAgainWhenThePanelIsGone()
{
    for (int time = 0; time < 3; ++time) {
        auto panel = std::make_unique<FakePanel>(*m_bus);
        if (!m_item) makeItem();
        QTRY_COMPARE(panel->items().size(), 1);
        QTRY_VERIFY(!isInXEmbedTray());
        panel.reset();
        QTRY_VERIFY(isInXEmbedTray());
    }
    QCOMPARE(m_item->findChildren<QSystemTrayIcon*>().size(), 1);
}

void TestStatusItem::xembedTrayShowsTheSameIconAndMenu()
{
    makeItem();
    QTRY_VERIFY(isInXEmbedTray());
    QVERIFY(!trayIcon()->icon().pixmap(22).isNull());
    QCOMPARE(trayIcon()->toolTip(), QStringLiteral("Harbex"));
    QCOMPARE(trayIcon()->contextMenu()->actions().size(), 3);
    trayIcon()->contextMenu()->actions().at(2)->trigger();
    QCOMPARE(m_quit->count(), 1);
}

void TestStatusItem::leftClickInTheXEmbedTrayOpensTheMenu()
{
    makeItem();
    QTRY_VERIFY(isInXEmbedTray());
    Q_EMIT trayIcon()->activated(QSystemTrayIcon::Trigger);
    QTRY_VERIFY(popUp());
    QCOMPARE(popUp(), trayIcon()->contextMenu());
    popUp()->close();
    QCOMPARE(m_open->count(), 0);
}

void TestStatusItem::otherClicksInTheXEmbedTrayAreTheMenusOwn()
{
    makeItem();
    QTRY_VERIFY(isInXEmbedTray());
    // The right click opens the menu by itself; twice would close it at once.
    for (const auto reason :
         {QSystemTrayIcon::Context, QSystemTrayIcon::DoubleClick, QSystemTrayIcon::MiddleClick})
        Q_EMIT trayIcon()->activated(reason);
    QTest::qWait(0);
    QVERIFY(!popUp());
    QCOMPARE(m_open->count() + m_quit->count(), 0);
}

HARBEX_WINDOW_TEST_MAIN(TestStatusItem)
#include "tst_StatusItem.moc"
