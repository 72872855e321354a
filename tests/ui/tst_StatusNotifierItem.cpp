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
    void init()
    {
        m_bus = std::make_unique<SessionBus>();
        m_menu = std::make_unique<QMenu>();
        m_menu->addAction(QStringLiteral("Entry"));
    }

    void cleanup()
    {
        m_shown.reset();
        m_item.reset();
        m_menu.reset();
        m_panel.reset();
        m_bus.reset();
    }

    // Registration.
    void isShownByAPanelThatIsThere()
    {
        QVERIFY(makeItemInPanel());
        QTRY_COMPARE(m_shown->count(), 1);
        QVERIFY(isShown());
    }

    void isShownByEveryPanelThatStartsLater()
    {
        makeItem();
        QTRY_COMPARE(m_shown->count(), 1);
        QVERIFY(!isShown());
        for (int time = 0; time < 3; ++time) {
            m_panel = std::make_unique<FakePanel>(*m_bus);
            QTRY_COMPARE(m_panel->items().size(), 1);
            QTRY_VERIFY(isShown());
            m_panel.reset();
            QTRY_VERIFY(!isShown());
        }
    }

    void registersWithAPanelWithoutAHostAndWithTheNextOne()
    {
        const FakePanel first(*m_bus, false);
        makeItem();
        QTRY_COMPARE(m_shown->count(), 1);
        QVERIFY(!isShown());
        QCOMPARE(first.items().size(), 1);
        // The name of the watcher changes its owner without a pause.
        const FakePanel second(*m_bus);
        QTRY_COMPARE(second.items().size(), 1);
        QTRY_VERIFY(isShown());
    }

    void noticesEachChangeOfTheHostOnce()
    {
        FakePanel panel(*m_bus, false);
        makeItem();
        QTRY_COMPARE(m_shown->count(), 1);
        for (const bool isThere : {true, false, true}) {
            panel.setHost(isThere);
            QTRY_COMPARE(isShown(), isThere);
        }
        panel.setHost(true); // a second host
        panel.setHost(true);
        panel.setHost(false);
        QTRY_VERIFY(!isShown());
        // The second reply comes after the item has handled all replies of the panel.
        for (int call = 0; call < 2; ++call)
            QVERIFY(panel.item().property("Id").isValid());
        QCOMPARE(m_shown->count(), 5);
    }

    void isNotShownWithoutABus()
    {
        makeItem(QDBusConnection(QStringLiteral("no such connection")));
        QTRY_COMPARE(m_shown->count(), 1);
        QVERIFY(!isShown());
    }

    void registersItsPathOnItsConnection()
    {
        const QDBusConnection connection = m_bus->connect();
        QVERIFY(makeItemInPanel(connection));
        QCOMPARE(m_panel->items(),
                 QStringList(connection.baseService() + QStringLiteral("/StatusNotifierItem")));
        QCOMPARE(text("Id"), "harbex");
    }

    // Properties.
    void propertiesDescribeTheItemAndItsMenu()
    {
        QVERIFY(makeItemInPanel());
        QCOMPARE(text("Category"), "ApplicationStatus");
        QCOMPARE(text("Id"), "harbex");
        QCOMPARE(text("Title"), "Title");
        QCOMPARE(text("Status"), "Active");
        QCOMPARE(text("IconName"), "folder");
        QCOMPARE(text("OverlayIconName"), "");
        QCOMPARE(text("AttentionIconName"), "");
        // A click opens the menu.
        QCOMPARE(m_panel->item().property("ItemIsMenu"), QVariant(true));

        const auto toolTip = qdbus_cast<StatusNotifierToolTip>(m_panel->item().property("ToolTip"));
        QCOMPARE(toolTip.title, QStringLiteral("Title"));
        QCOMPARE(toolTip.iconName + toolTip.text, QString());
        QVERIFY(toolTip.iconPixmap.isEmpty());

        const QDBusMessage label = m_panel->menu().call("GetProperty", {1, QStringLiteral("label")});
        QCOMPARE(label.arguments().value(0).value<QDBusVariant>().variant(), QStringLiteral("Entry"));
    }

    void iconIsSentInTheSizesOfPanels()
    {
        QVERIFY(makeItemInPanel());
        const auto pixmaps = qdbus_cast<QList<StatusNotifierPixmap>>(m_panel->item().property("IconPixmap"));
        QList<int> widths;
        for (const StatusNotifierPixmap& pixmap : pixmaps) {
            QCOMPARE(pixmap.height, pixmap.width);
            QCOMPARE(pixmap.pixels.size(), pixmap.width * pixmap.height * 4);
            widths.append(pixmap.width);
            // In network byte order, not multiplied with the transparency. A pixmap loses the last bit.
            const auto channel = [&](int i) { return int(quint8(pixmap.pixels[i])); };
            QCOMPARE(channel(0), color.alpha());
            QVERIFY(qAbs(channel(1) - color.red()) <= 1);
            QVERIFY(qAbs(channel(2) - color.green()) <= 1);
            QVERIFY(qAbs(channel(3) - color.blue()) <= 1);
        }
        QCOMPARE(widths, QList<int>({16, 22, 24, 32, 48, 64}));
    }

    void iconThatCannotBeDrawnIsLeftOut()
    {
        makeItem(m_bus->connect(), QIcon(QStringLiteral(":/no/such/icon.svg")));
        QVERIFY(m_item->iconPixmap().isEmpty());
    }

    // Calls of the panel.
    void leftAndRightClickAskForTheMenuOtherButtonsDoNothing()
    {
        QVERIFY(makeItemInPanel());
        QSignalSpy requested(m_item.get(), &StatusNotifierItem::menuRequested);
        QVERIFY(m_panel->item().accepts("Activate", {12, 345}));
        QCOMPARE(requested.takeFirst(), QVariantList({QPoint(12, 345)}));
        QVERIFY(m_panel->item().accepts("ContextMenu", {-1, INT_MAX}));
        QCOMPARE(requested.takeFirst(), QVariantList({QPoint(-1, INT_MAX)}));
        QVERIFY(m_panel->item().accepts("SecondaryActivate", {1, 2}));
        QVERIFY(m_panel->item().accepts("Scroll", {1, QStringLiteral("vertical")}));
        QCOMPARE(requested.count(), 0);
    }

    void aLeftClickIsAnErrorIfOnlyThePanelCanOpenTheMenu()
    {
        QVERIFY(makeItemInPanel());
        m_item->setMenuOfPanelOnly(true);
        QSignalSpy requested(m_item.get(), &StatusNotifierItem::menuRequested);
        const QDBusMessage answer = m_panel->item().call("Activate", {12, 345});
        QCOMPARE(answer.errorName(), QStringLiteral("org.freedesktop.DBus.Error.UnknownMethod"));
        QVERIFY(requested.isEmpty());
        QVERIFY(m_panel->item().accepts("ContextMenu", {1, 2}));
        QCOMPARE(requested.count(), 1);
    }

    void latestTokenServesOneClick()
    {
        QVERIFY(makeItemInPanel());
        QCOMPARE(m_item->takeActivationToken(), QString());
        for (const QString& token : {QStringLiteral("early"), QStringLiteral("late")})
            QVERIFY(m_panel->item().accepts("ProvideXdgActivationToken", {token}));
        QCOMPARE(m_item->takeActivationToken(), QStringLiteral("late"));
        QCOMPARE(m_item->takeActivationToken(), QString());
    }

    void tokenOfMoreThan1024BytesIsDropped()
    {
        makeItem();
        m_item->ProvideXdgActivationToken(QString(1024, u'x'));
        QCOMPARE(m_item->takeActivationToken().size(), 1024);
        for (const QString& token : {QString(1025, u'x'), QString(1000, u'\u00e9')}) {
            m_item->ProvideXdgActivationToken(token);
            QCOMPARE(m_item->takeActivationToken(), QString());
        }
    }

    void wrongCallsAreErrors()
    {
        const NamedCall calls[] = {
            {"no position", "Activate", {}},
            {"half a position", "ContextMenu", {1}},
            {"a position of strings", "Activate", {QStringLiteral("1"), QStringLiteral("2")}},
            {"a token that is none", "ProvideXdgActivationToken", {1}},
            {"an unknown method", "Quit", {}},
            {"a slot of QObject", "deleteLater", {}},
            {"a function for the program only", "takeActivationToken", {}},
        };
        QVERIFY(makeItemInPanel());
        const QSignalSpy requested(m_item.get(), &StatusNotifierItem::menuRequested);
        for (const NamedCall& call : calls)
            QVERIFY2(!m_panel->item().accepts(call.method, call.arguments), call.name);
        QCOMPARE(text("Id"), "harbex");
        QCOMPARE(requested.count(), 0);
    }

private:
    void makeItem(const QDBusConnection& connection, const QIcon& icon = coloredIcon())
    {
        m_item = std::make_unique<StatusNotifierItem>(connection, QStringLiteral("Title"),
                                                      QStringLiteral("folder"), icon, *m_menu);
        m_shown.emplace(m_item.get(), &StatusNotifierItem::shownChanged);
    }
    void makeItem() { makeItem(m_bus->connect()); }

    /// Starts a panel and creates the item. Returns whether the item registers.
    [[nodiscard]] bool makeItemInPanel(const QDBusConnection& connection)
    {
        m_panel = std::make_unique<FakePanel>(*m_bus);
        makeItem(connection);
        return m_panel->waitForItem();
    }
    [[nodiscard]] bool makeItemInPanel() { return makeItemInPanel(m_bus->connect()); }

    [[nodiscard]] bool isShown() const { return m_shown->last().at(0).toBool(); }
    /// Returns a property as the panel reads it.
    [[nodiscard]] QByteArray text(const char* property) const
    {
        return m_panel->item().property(property).toString().toUtf8();
    }

    std::unique_ptr<SessionBus> m_bus;
    std::unique_ptr<FakePanel> m_panel;
    std::unique_ptr<QMenu> m_menu;
    std::unique_ptr<StatusNotifierItem> m_item;
    std::optional<QSignalSpy> m_shown;
};

HARBEX_WINDOW_TEST(TestStatusNotifierItem)
#include "tst_StatusNotifierItem.moc"
