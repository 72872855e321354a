#include "support/FakePanel.h"
#include "support/SessionBus.h"
#include "support/WindowTestMain.h"
#include "ui/StatusNotifierItem.h"

#include <QDBusConnectionInterface>
#include <QDBusMetaType>
#include <QDBusReply>
#include <QMenu>
#include <QSignalSpy>

using namespace harbex;
using namespace harbex::test;

namespace
{

// Half transparent, and different in each channel.
const QColor color(0x33, 0x66, 0xcc, 0x80);

QIcon coloredIcon()
{
    QPixmap pixmap(64, 64);
    pixmap.fill(color);
    return {pixmap};
}

} // namespace

/// The status item as a panel finds it on the bus.
class TestStatusNotifierItem : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void registersWithAPanelThatIsThere();
    void registersWithAPanelThatStartsLater();
    void registersAgainWhenThePanelRestarts();
    void registersAgainWhenAnotherPanelTakesOver();
    void isReachedUnderTheNameItRegisters();
    void ownsANameOfItsProcess();
    void registersUnderTheConnectionWhereTheNameIsTaken();

    void isShownWhereAPanelHasAHost();
    void isNotShownWithoutAPanel();
    void isNotShownByAWatcherWithoutHost();
    void noticesAHostThatComesAndGoes();
    void noticesAPanelThatComesAndGoes();
    void tellsOfChangesOnly();
    void isNotShownWithoutABus();

    void propertiesAreAsStated();
    void clickOpensTheMenu();
    void menuIsFoundWhereThePropertySays();
    void iconIsSentInSeveralSizes();
    void pixelsAreInNetworkByteOrder();
    void iconThatCannotBeDrawnIsLeftOut();

    void activateAsksForTheMenuAtThePosition();
    void contextMenuAsksForTheMenuAtThePosition();
    void middleButtonAndWheelDoNothing();

    void tokenServesOneClick();
    void tokenOfAnImpossibleLengthIsNone();
    void wrongCallsAreErrors_data();
    void wrongCallsAreErrors();

private:
    void makeItem(const QDBusConnection& connection, const QIcon& icon = coloredIcon())
    {
        m_item = std::make_unique<StatusNotifierItem>(connection, QStringLiteral("Title"),
                                                      QStringLiteral("folder"), icon, *m_menu);
        m_shown.emplace(m_item.get(), &StatusNotifierItem::shownChanged);
    }
    void makeItem() { makeItem(m_bus->connect()); }
    [[nodiscard]] bool wasLastShown() const { return m_shown->last().at(0).toBool(); }

    std::unique_ptr<SessionBus> m_bus;
    std::unique_ptr<QMenu> m_menu;
    std::unique_ptr<StatusNotifierItem> m_item;
    std::optional<QSignalSpy> m_shown;
};

void TestStatusNotifierItem::init()
{
    m_bus = std::make_unique<SessionBus>();
    m_menu = std::make_unique<QMenu>();
    m_menu->addAction(QStringLiteral("Entry"));
}

void TestStatusNotifierItem::cleanup()
{
    m_shown.reset();
    m_item.reset();
    m_menu.reset();
    m_bus.reset();
}

void TestStatusNotifierItem::registersWithAPanelThatIsThere()
{
    const FakePanel panel(*m_bus);
    makeItem();
    QTRY_COMPARE(panel.items().size(), 1);
}

void TestStatusNotifierItem::registersWithAPanelThatStartsLater()
{
    makeItem();
    QTRY_COMPARE(m_shown->count(), 1);
    const FakePanel panel(*m_bus);
    QTRY_COMPARE(panel.items().size(), 1);
    QTRY_VERIFY(wasLastShown());
}

void TestStatusNotifierItem::registersAgainWhenThePanelRestarts()
{
    auto panel = std::make_unique<FakePanel>(*m_bus);
    makeItem();
    QTRY_COMPARE(panel->items().size(), 1);
    const QStringList items = panel->items();
    for (int restart = 0; restart < 3; ++restart) {
        panel.reset();
        panel = std::make_unique<FakePanel>(*m_bus);
        QTRY_COMPARE(panel->items(), items);
    }
}

void TestStatusNotifierItem::registersAgainWhenAnotherPanelTakesOver()
{
    // The watcher's name passes from one to the other without a moment in between.
    const FakePanel first(*m_bus, false);
    makeItem();
    QTRY_COMPARE(m_shown->count(), 1);
    QVERIFY(!wasLastShown());
    const FakePanel second(*m_bus);
    QTRY_COMPARE(second.items().size(), 1);
    QTRY_VERIFY(wasLastShown());
}

void TestStatusNotifierItem::isReachedUnderTheNameItRegisters()
{
    const FakePanel panel(*m_bus);
    makeItem();
    QTRY_COMPARE(panel.items().size(), 1);
    QCOMPARE(panel.item().property(QStringLiteral("Id")), QVariant(QStringLiteral("harbex")));
}

void TestStatusNotifierItem::ownsANameOfItsProcess()
{
    const FakePanel panel(*m_bus);
    const QDBusConnection connection = m_bus->connect();
    makeItem(connection);
    QTRY_COMPARE(panel.items().size(), 1);
    const QString name = panel.items().first();
    QCOMPARE(name, QStringLiteral("org.kde.StatusNotifierItem-%1-1").arg(QCoreApplication::applicationPid()));
    QCOMPARE(connection.interface()->serviceOwner(name).value(), connection.baseService());
}

void TestStatusNotifierItem::registersUnderTheConnectionWhereTheNameIsTaken()
{
    QDBusConnection other = m_bus->connect();
    QVERIFY(other.registerService(
        QStringLiteral("org.kde.StatusNotifierItem-%1-1").arg(QCoreApplication::applicationPid())));
    const FakePanel panel(*m_bus);
    const QDBusConnection connection = m_bus->connect();
    makeItem(connection);
    QTRY_COMPARE(panel.items(), QStringList(connection.baseService()));
    QCOMPARE(panel.item().property(QStringLiteral("Id")), QVariant(QStringLiteral("harbex")));
}

void TestStatusNotifierItem::isShownWhereAPanelHasAHost()
{
    const FakePanel panel(*m_bus);
    makeItem();
    QTRY_COMPARE(m_shown->count(), 1);
    QVERIFY(wasLastShown());
}

void TestStatusNotifierItem::isNotShownWithoutAPanel()
{
    makeItem();
    QTRY_COMPARE(m_shown->count(), 1);
    QVERIFY(!wasLastShown());
}

void TestStatusNotifierItem::isNotShownByAWatcherWithoutHost()
{
    const FakePanel panel(*m_bus, false);
    makeItem();
    QTRY_COMPARE(m_shown->count(), 1);
    QVERIFY(!wasLastShown());
    // It registers all the same: the host that comes finds it.
    QCOMPARE(panel.items().size(), 1);
}

void TestStatusNotifierItem::noticesAHostThatComesAndGoes()
{
    FakePanel panel(*m_bus, false);
    makeItem();
    QTRY_COMPARE(m_shown->count(), 1);
    panel.setHost(true);
    QTRY_VERIFY(wasLastShown());
    panel.setHost(false);
    QTRY_VERIFY(!wasLastShown());
}

void TestStatusNotifierItem::noticesAPanelThatComesAndGoes()
{
    makeItem();
    QTRY_COMPARE(m_shown->count(), 1);
    for (int time = 0; time < 3; ++time) {
        auto panel = std::make_unique<FakePanel>(*m_bus);
        QTRY_VERIFY(wasLastShown());
        panel.reset();
        QTRY_VERIFY(!wasLastShown());
    }
}

void TestStatusNotifierItem::tellsOfChangesOnly()
{
    FakePanel panel(*m_bus);
    makeItem();
    QTRY_COMPARE(m_shown->count(), 1);
    panel.setHost(true); // a second host
    panel.setHost(true);
    panel.setHost(false);
    QTRY_COMPARE(m_shown->count(), 2);
    QVERIFY(!wasLastShown());
}

void TestStatusNotifierItem::isNotShownWithoutABus()
{
    makeItem(QDBusConnection(QStringLiteral("no such connection")));
    QTRY_COMPARE(m_shown->count(), 1);
    QVERIFY(!wasLastShown());
}

void TestStatusNotifierItem::propertiesAreAsStated()
{
    const FakePanel panel(*m_bus);
    makeItem();
    QTRY_COMPARE(panel.items().size(), 1);
    const RemoteObject item = panel.item();
    const auto text = [&](const char* name) { return item.property(QLatin1String(name)).toString(); };
    QCOMPARE(text("Category"), QStringLiteral("ApplicationStatus"));
    QCOMPARE(text("Id"), QStringLiteral("harbex"));
    QCOMPARE(text("Title"), QStringLiteral("Title"));
    QCOMPARE(text("Status"), QStringLiteral("Active"));
    QCOMPARE(text("IconName"), QStringLiteral("folder"));
    QCOMPARE(text("OverlayIconName"), QString());
    QCOMPARE(text("AttentionIconName"), QString());

    const auto toolTip = qdbus_cast<StatusNotifierToolTip>(item.property(QStringLiteral("ToolTip")));
    QCOMPARE(toolTip.title, QStringLiteral("Title"));
    QCOMPARE(toolTip.iconName + toolTip.text, QString());
    QVERIFY(toolTip.iconPixmap.isEmpty());
}

void TestStatusNotifierItem::clickOpensTheMenu()
{
    const FakePanel panel(*m_bus);
    makeItem();
    QTRY_COMPARE(panel.items().size(), 1);
    QCOMPARE(panel.item().property(QStringLiteral("ItemIsMenu")), QVariant(true));
}

void TestStatusNotifierItem::menuIsFoundWhereThePropertySays()
{
    const FakePanel panel(*m_bus);
    makeItem();
    QTRY_COMPARE(panel.items().size(), 1);
    const QDBusMessage answer =
        panel.menu().call(QStringLiteral("GetProperty"), {1, QStringLiteral("label")});
    QCOMPARE(answer.arguments().value(0).value<QDBusVariant>().variant(), QStringLiteral("Entry"));
}

void TestStatusNotifierItem::iconIsSentInSeveralSizes()
{
    const FakePanel panel(*m_bus);
    makeItem();
    QTRY_COMPARE(panel.items().size(), 1);
    const auto pixmaps =
        qdbus_cast<QList<StatusNotifierPixmap>>(panel.item().property(QStringLiteral("IconPixmap")));
    QList<int> widths;
    for (const StatusNotifierPixmap& pixmap : pixmaps) {
        QCOMPARE(pixmap.height, pixmap.width);
        QCOMPARE(pixmap.pixels.size(), pixmap.width * pixmap.height * 4);
        widths.append(pixmap.width);
    }
    // Those of panels, once and twice as dense.
    QCOMPARE(widths, QList<int>({16, 22, 24, 32, 48, 64}));
}

void TestStatusNotifierItem::pixelsAreInNetworkByteOrder()
{
    makeItem();
    const QList<StatusNotifierPixmap> pixmaps = m_item->iconPixmap();
    QVERIFY(!pixmaps.isEmpty());
    for (const StatusNotifierPixmap& pixmap : pixmaps) {
        const auto channel = [&](int i) { return int(quint8(pixmap.pixels[i])); };
        QCOMPARE(channel(0), color.alpha());
        // Not multiplied with the transparency, give or take what the picture's own form loses.
        QVERIFY(qAbs(channel(1) - color.red()) <= 1);
        QVERIFY(qAbs(channel(2) - color.green()) <= 1);
        QVERIFY(qAbs(channel(3) - color.blue()) <= 1);
    }
}

void TestStatusNotifierItem::iconThatCannotBeDrawnIsLeftOut()
{
    makeItem(m_bus->connect(), QIcon(QStringLiteral(":/no/such/icon.svg")));
    QVERIFY(m_item->iconPixmap().isEmpty());
}

void TestStatusNotifierItem::activateAsksForTheMenuAtThePosition()
{
    const FakePanel panel(*m_bus);
    makeItem();
    QTRY_COMPARE(panel.items().size(), 1);
    QSignalSpy requested(m_item.get(), &StatusNotifierItem::menuRequested);
    QCOMPARE(panel.item().call(QStringLiteral("Activate"), {12, 345}).type(), QDBusMessage::ReplyMessage);
    QCOMPARE(requested.takeFirst(), QVariantList({QPoint(12, 345)}));
}

void TestStatusNotifierItem::contextMenuAsksForTheMenuAtThePosition()
{
    const FakePanel panel(*m_bus);
    makeItem();
    QTRY_COMPARE(panel.items().size(), 1);
    QSignalSpy requested(m_item.get(), &StatusNotifierItem::menuRequested);
    QCOMPARE(panel.item().call(QStringLiteral("ContextMenu"), {-1, INT_MAX}).type(),
             QDBusMessage::ReplyMessage);
    QCOMPARE(requested.takeFirst(), QVariantList({QPoint(-1, INT_MAX)}));
}

void TestStatusNotifierItem::middleButtonAndWheelDoNothing()
{
    const FakePanel panel(*m_bus);
    makeItem();
    QTRY_COMPARE(panel.items().size(), 1);
    const QSignalSpy requested(m_item.get(), &StatusNotifierItem::menuRequested);
    QCOMPARE(panel.item().call(QStringLiteral("SecondaryActivate"), {1, 2}).type(),
             QDBusMessage::ReplyMessage);
    QCOMPARE(panel.item().call(QStringLiteral("Scroll"), {1, QStringLiteral("vertical")}).type(),
             QDBusMessage::ReplyMessage);
    QCOMPARE(requested.count(), 0);
}

void TestStatusNotifierItem::tokenServesOneClick()
{
    const FakePanel panel(*m_bus);
    makeItem();
    QTRY_COMPARE(panel.items().size(), 1);
    QCOMPARE(m_item->takeActivationToken(), QString());
    for (const char* token : {"early", "late"}) {
        QCOMPARE(panel.item()
                     .call(QStringLiteral("ProvideXdgActivationToken"), {QString::fromLatin1(token)})
                     .type(),
                 QDBusMessage::ReplyMessage);
    }
    QCOMPARE(m_item->takeActivationToken(), QStringLiteral("late"));
    QCOMPARE(m_item->takeActivationToken(), QString());
}

void TestStatusNotifierItem::tokenOfAnImpossibleLengthIsNone()
{
    makeItem();
    m_item->ProvideXdgActivationToken(QString(1024, u'x'));
    QCOMPARE(m_item->takeActivationToken().size(), 1024);
    m_item->ProvideXdgActivationToken(QString(1025, u'x'));
    QCOMPARE(m_item->takeActivationToken(), QString());
    m_item->ProvideXdgActivationToken(QString(1000, u'\u00e9'));
    QCOMPARE(m_item->takeActivationToken(), QString());
}

void TestStatusNotifierItem::wrongCallsAreErrors_data()
{
    QTest::addColumn<QString>("method");
    QTest::addColumn<QVariantList>("arguments");
    const auto row = [](const char* name, const char* method, const QVariantList& arguments) {
        QTest::newRow(name) << QString::fromLatin1(method) << arguments;
    };
    row("no position", "Activate", {});
    row("half a position", "ContextMenu", {1});
    row("a position of strings", "Activate", {QStringLiteral("1"), QStringLiteral("2")});
    row("a token that is none", "ProvideXdgActivationToken", {1});
    row("an unknown method", "Quit", {});
    row("what QObject has", "deleteLater", {});
    row("what only the program may do", "takeActivationToken", {});
}

void TestStatusNotifierItem::wrongCallsAreErrors()
{
    QFETCH(QString, method);
    QFETCH(QVariantList, arguments);
    const FakePanel panel(*m_bus);
    makeItem();
    QTRY_COMPARE(panel.items().size(), 1);
    const QSignalSpy requested(m_item.get(), &StatusNotifierItem::menuRequested);
    QCOMPARE(panel.item().call(method, arguments).type(), QDBusMessage::ErrorMessage);
    QCOMPARE(panel.item().property(QStringLiteral("Id")), QVariant(QStringLiteral("harbex")));
    QCOMPARE(requested.count(), 0);
}

HARBEX_WINDOW_TEST_MAIN(TestStatusNotifierItem)
#include "tst_StatusNotifierItem.moc"
