#include "support/FakePanel.h"
#include "support/SessionBus.h"
#include "support/WindowTestMain.h"
#include "ui/StatusItem.h"
#include "ui/StatusNotifierItem.h"

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

/// The status item as a user sees it, and its part on the bus as a panel finds it.
class TestStatusItem : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanup()
    {
        m_item.reset();
        m_notifierItem.reset();
        m_panel.reset();
    }

    // The part on the bus: registration.
    void registersWithAPanelWithoutAHostAndWithTheNextOne()
    {
        const FakePanel first(m_bus, false);
        makeNotifierItem();
        QTRY_COMPARE(m_shown->count(), 1);
        QVERIFY(!isShown());
        QCOMPARE(first.items().size(), 1);
        // The name of the watcher changes its owner without a pause.
        const FakePanel second(m_bus);
        QTRY_COMPARE(second.items().size(), 1);
        QTRY_VERIFY(isShown());
    }

    void noticesEachChangeOfTheHostOnce()
    {
        FakePanel panel(m_bus, false);
        makeNotifierItem();
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

    // The part on the bus: properties and calls of the panel.
    void propertiesDescribeTheItem()
    {
        QVERIFY(registersInPanel([this] { makeItem(); }));
        QCOMPARE(text("Category"), "ApplicationStatus");
        QCOMPARE(text("Id"), "harbex");
        QCOMPARE(text("Title"), "Harbex");
        QCOMPARE(text("Status"), "Active");
        QCOMPARE(text("IconName"), "folder-symbolic");
        // A click opens the menu.
        QCOMPARE(m_panel->item().property("ItemIsMenu"), QVariant(true));

        const auto toolTip = qdbus_cast<StatusNotifierToolTip>(m_panel->item().property("ToolTip"));
        QCOMPARE(toolTip.title, "Harbex");
        QCOMPARE(toolTip.iconName + toolTip.text, QString());
        QVERIFY(toolTip.iconPixmap.isEmpty());

        const auto pixmaps = iconPixmaps();
        QVERIFY(!pixmaps.isEmpty());
        for (const StatusNotifierPixmap& pixmap : pixmaps) {
            // The middle of a folder is drawn, the corner is not.
            const int middle = (pixmap.height / 2 * pixmap.width + pixmap.width / 2) * 4;
            QCOMPARE(int(quint8(pixmap.pixels[middle])), 255);
            QCOMPARE(int(pixmap.pixels[0]), 0);
        }
    }

    void iconIsSentInTheSizesOfPanels()
    {
        QVERIFY(registersInPanel([this] { makeNotifierItem(); }));
        QList<int> widths;
        for (const StatusNotifierPixmap& pixmap : iconPixmaps()) {
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

        makeNotifierItem(m_bus.connect(), QIcon(":/no/such/icon.svg"));
        QVERIFY2(m_notifierItem->iconPixmap().isEmpty(), "an icon that cannot be drawn is left out");
    }

    void leftAndRightClickAskForTheMenuOtherButtonsDoNothing()
    {
        QVERIFY(registersInPanel([this] { makeNotifierItem(); }));
        QSignalSpy requested(m_notifierItem.get(), &StatusNotifierItem::menuRequested);
        QVERIFY(m_panel->item().accepts("Activate", {12, 345}));
        QCOMPARE(requested.takeFirst(), QVariantList({QPoint(12, 345)}));
        QVERIFY(m_panel->item().accepts("ContextMenu", {-1, INT_MAX}));
        QCOMPARE(requested.takeFirst(), QVariantList({QPoint(-1, INT_MAX)}));
        QVERIFY(m_panel->item().accepts("SecondaryActivate", {1, 2}));
        QVERIFY(m_panel->item().accepts("Scroll", {1, "vertical"}));
        QCOMPARE(requested.count(), 0);

        m_notifierItem->setMenuOfPanelOnly(true);
        const QDBusMessage answer = m_panel->item().call("Activate", {12, 345});
        QCOMPARE(answer.errorName(), "org.freedesktop.DBus.Error.UnknownMethod");
        QVERIFY(requested.isEmpty());
        QVERIFY(m_panel->item().accepts("ContextMenu", {1, 2}));
        QCOMPARE(requested.count(), 1);
    }

    void theLatestTokenOfAtMost1024BytesServesOneClick()
    {
        makeNotifierItem();
        const auto taken = [this](std::initializer_list<QString> tokens) {
            for (const QString& token : tokens)
                m_notifierItem->ProvideXdgActivationToken(token);
            return m_notifierItem->takeActivationToken();
        };
        QCOMPARE(taken({}), QString());
        QCOMPARE(taken({"early", "late"}), "late");
        QCOMPARE(taken({}), QString());
        QCOMPARE(taken({QString(1024, u'x')}), QString(1024, u'x'));
        QCOMPARE(taken({QString(1025, u'x')}), QString());
        QCOMPARE(taken({QString(1000, u'\u00e9')}), QString());
    }

    // The whole item.
    void entriesAskForTheWindowOrTheEnd()
    {
        QVERIFY(registersInPanel([this] { makeItem(); }));
        QVERIFY(m_panel->item().accepts("ProvideXdgActivationToken", {"token"}));
        for (const char* token : {"token", ""}) {
            m_panel->click(1);
            QTRY_COMPARE(m_open->count(), 1);
            QCOMPARE(m_open->takeFirst(), QVariantList({token}));
        }
        QCOMPARE(m_quit->count(), 0);
        m_panel->click(3);
        QTRY_COMPARE(m_quit->count(), 1);
        QCOMPARE(m_open->count(), 0);
    }

    void panelThatDrawsNoMenusGetsThePopUp()
    {
        QVERIFY(registersInPanel([this] { makeItem(); }));
        for (const char* method : {"Activate", "ContextMenu"}) {
            QVERIFY(m_panel->item().accepts(method, {123, 234}));
            QTRY_VERIFY(popUp());
            QCOMPARE(popUp()->pos(), QPoint(123, 234));
            // A second click does not open a second menu.
            QVERIFY(m_panel->item().accepts(method, {120, 120}));
            popUp()->close();
            QTRY_VERIFY(!popUp());
        }
        QCOMPARE(m_open->count() + m_quit->count(), 0);

        QVERIFY(m_panel->item().accepts("ContextMenu", {123, 234}));
        QTRY_VERIFY(popUp());
        QCOMPARE(popUp()->actions().size(), 3);
        QTest::keyClick(popUp(), Qt::Key_Down);
        QTest::keyClick(popUp(), Qt::Key_Return);
        QCOMPARE(m_open->count(), 1);
        QCOMPARE(m_quit->count(), 0);
    }

    void xembedTrayIsUsedOnlyAfterThePanelIsGone()
    {
        QVERIFY(registersInPanel([this] { makeItem(); }));
        // The reply comes after the replies to all earlier calls of the item.
        QCOMPARE(text("Id"), "harbex");
        QTest::qWait(0);
        QVERIFY(!trayIcon());
        QSignalSpy shown(m_item.get(), &StatusItem::shownChanged);
        for (int time = 0; time < 3; ++time) {
            m_panel.reset();
            QTRY_VERIFY(isInXEmbedTray());
            // There is no tray of this kind.
            QCOMPARE(shown.takeFirst(), QVariantList() << false);
            m_panel = std::make_unique<FakePanel>(m_bus);
            QVERIFY(m_panel->waitForItem());
            QTRY_VERIFY(!isInXEmbedTray());
            QCOMPARE(shown.takeFirst(), QVariantList() << true);
        }
        QCOMPARE(m_item->findChildren<QSystemTrayIcon*>().size(), 1);
    }

    void xembedTrayHasTheSameMenuForALeftClick()
    {
        makeItem(QDBusConnection("no such connection"));
        const QSignalSpy shown(m_item.get(), &StatusItem::shownChanged);
        QTRY_VERIFY(isInXEmbedTray());
        QVERIFY2(shown.isEmpty(), "there is no tray, neither of this kind nor of the other");
        QVERIFY(!trayIcon()->icon().pixmap(22).isNull());
        QCOMPARE(trayIcon()->toolTip(), "Harbex");

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
    void makeItem() { makeItem(m_bus.connect()); }

    /// Creates only the part of the item that is on the bus.
    void makeNotifierItem(const QDBusConnection& connection, const QIcon& icon = coloredIcon())
    {
        m_notifierItem = std::make_unique<StatusNotifierItem>(connection, "Title", "folder", icon, m_menu);
        m_shown.emplace(m_notifierItem.get(), &StatusNotifierItem::shownChanged);
    }
    void makeNotifierItem() { makeNotifierItem(m_bus.connect()); }

    /// Starts a panel and creates an item. Returns whether the item registers.
    [[nodiscard]] bool registersInPanel(const std::function<void()>& create)
    {
        m_panel = std::make_unique<FakePanel>(m_bus);
        create();
        return m_panel->waitForItem();
    }

    /// Returns properties as the panel reads them.
    [[nodiscard]] QByteArray text(const char* property) const
    {
        return m_panel->item().property(property).toString().toUtf8();
    }
    [[nodiscard]] QList<StatusNotifierPixmap> iconPixmaps() const
    {
        return qdbus_cast<QList<StatusNotifierPixmap>>(m_panel->item().property("IconPixmap"));
    }

    [[nodiscard]] bool isShown() const { return m_shown->last().at(0).toBool(); }
    [[nodiscard]] QSystemTrayIcon* trayIcon() const { return m_item->findChild<QSystemTrayIcon*>(); }
    [[nodiscard]] bool isInXEmbedTray() const { return trayIcon() && trayIcon()->isVisible(); }
    static QMenu* popUp() { return qobject_cast<QMenu*>(QApplication::activePopupWidget()); }

    SessionBus m_bus;
    std::unique_ptr<FakePanel> m_panel;
    QMenu m_menu;
    std::unique_ptr<StatusNotifierItem> m_notifierItem;
    std::optional<QSignalSpy> m_shown;
    std::unique_ptr<StatusItem> m_item;
    std::optional<QSignalSpy> m_open;
    std::optional<QSignalSpy> m_quit;
};

HARBEX_WINDOW_TEST(TestStatusItem)
#include "tst_StatusItem.moc"
