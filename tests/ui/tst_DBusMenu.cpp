#include "support/SessionBus.h"
#include "support/WindowTestMain.h"
#include "ui/DBusMenu.h"

#include <QDBusMetaType>
#include <QMenu>
#include <QSignalSpy>

using namespace harbex;
using namespace harbex::test;

namespace
{

const QStringList allProperties;

QVariant idList(const QList<int>& ids)
{
    return QVariant::fromValue(ids);
}

QVariant variant(const QVariant& value)
{
    return QVariant::fromValue(QDBusVariant(value));
}

DBusMenuEvent eventOf(int id, const QString& type)
{
    return {id, type, QDBusVariant(0), 0};
}

bool isRefused(const QDBusMessage& answer)
{
    return answer.type() == QDBusMessage::ErrorMessage &&
           answer.errorName() == QLatin1String("org.freedesktop.DBus.Error.InvalidArgs");
}

} // namespace

/// The menu as a panel reads it from the bus.
class TestDBusMenu : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void layoutIsTheEntriesInTheirOrder();
    void layoutHasTheSignatureOfTheProtocol();
    void layoutOfOneEntryIsThatEntry();
    void depthZeroLeavesTheEntriesOut();
    void onlyThePropertiesAskedForAreSent();
    void layoutOfAnUnknownEntryIsAnError();

    void groupPropertiesOfNoEntryAreThoseOfAll();
    void groupPropertiesLeaveUnknownEntriesOut();
    void groupPropertiesOfAHugeListAreThreeEntries();
    void onePropertyIsGiven();
    void unknownPropertyIsAnError();

    void clickTriggersTheEntry();
    void clickIsAnsweredBeforeItActs();
    void otherEventsTriggerNothing_data();
    void otherEventsTriggerNothing();
    void clickOnTheSeparatorOrTheMenuDoesNothing();
    void eventOfAnUnknownEntryIsAnError();
    void eventGroupTriggersEachAndNamesTheUnknown();
    void eventGroupOfUnknownEntriesAloneIsAnError();
    void emptyGroupsAreNoErrors();

    void openingChangesNothing();
    void aboutToShowGroupNamesTheUnknown();
    void aboutToShowOfUnknownEntriesIsAnError();

    void propertiesAreThoseOfTheProtocol();
    void textDirectionIsThatOfTheLanguage();
    void wrongCallsAreErrors_data();
    void wrongCallsAreErrors();
    void propertiesCannotBeSet();

private:
    [[nodiscard]] DBusMenuLayout layout(int parentId, int depth, const QStringList& names) const
    {
        const QDBusMessage answer = m_remote->call(QStringLiteral("GetLayout"), {parentId, depth, names});
        return qdbus_cast<DBusMenuLayout>(answer.arguments().value(1));
    }
    [[nodiscard]] QList<DBusMenuProperties> groupProperties(const QList<int>& ids,
                                                            const QStringList& names) const
    {
        const QDBusMessage answer =
            m_remote->call(QStringLiteral("GetGroupProperties"), {idList(ids), names});
        return qdbus_cast<QList<DBusMenuProperties>>(answer.arguments().value(0));
    }
    [[nodiscard]] QDBusMessage send(const QList<DBusMenuEvent>& events) const
    {
        return m_remote->call(QStringLiteral("EventGroup"), {QVariant::fromValue(events)});
    }
    [[nodiscard]] QDBusMessage send(int id, const QString& type) const
    {
        return m_remote->call(QStringLiteral("Event"), {id, type, variant(0), 0U});
    }

    SessionBus m_bus;
    std::unique_ptr<QMenu> m_menu;
    std::unique_ptr<DBusMenu> m_dbusMenu;
    std::optional<RemoteObject> m_remote;
    std::optional<QSignalSpy> m_first;
    std::optional<QSignalSpy> m_last;
};

void TestDBusMenu::init()
{
    m_menu = std::make_unique<QMenu>();
    m_first.emplace(m_menu->addAction(QStringLiteral("First")), &QAction::triggered);
    m_menu->addSeparator();
    m_last.emplace(m_menu->addAction(QStringLiteral("Last")), &QAction::triggered);

    const QDBusConnection own = m_bus.connect();
    m_dbusMenu = std::make_unique<DBusMenu>(own, QStringLiteral("/Menu"), *m_menu);
    m_remote.emplace(RemoteObject{m_bus.connect(), own.baseService(), QStringLiteral("/Menu"),
                                  QStringLiteral("com.canonical.dbusmenu")});
}

void TestDBusMenu::cleanup()
{
    m_first.reset();
    m_last.reset();
    m_dbusMenu.reset();
    m_menu.reset();
}

void TestDBusMenu::layoutIsTheEntriesInTheirOrder()
{
    const DBusMenuLayout root = layout(0, -1, allProperties);
    QCOMPARE(root.id, 0);
    QCOMPARE(root.properties, QVariantMap({{QStringLiteral("children-display"), QStringLiteral("submenu")}}));
    QCOMPARE(root.children.size(), 3);
    QCOMPARE(root.children[0].id, 1);
    QCOMPARE(root.children[1].id, 2);
    QCOMPARE(root.children[2].id, 3);
    // Nothing else is said of an entry: no shortcut, no icon, no mark, and no state but enabled.
    QCOMPARE(root.children[0].properties, QVariantMap({{QStringLiteral("label"), QStringLiteral("First")}}));
    QCOMPARE(root.children[1].properties,
             QVariantMap({{QStringLiteral("type"), QStringLiteral("separator")}}));
    QCOMPARE(root.children[2].properties, QVariantMap({{QStringLiteral("label"), QStringLiteral("Last")}}));
    for (const DBusMenuLayout& child : root.children)
        QVERIFY(child.children.isEmpty());
}

void TestDBusMenu::layoutHasTheSignatureOfTheProtocol()
{
    const auto signature = [this](const QString& method, const QVariantList& arguments) {
        return m_remote->call(method, arguments).signature();
    };
    QCOMPARE(signature(QStringLiteral("GetLayout"), {0, -1, allProperties}), QStringLiteral("u(ia{sv}av)"));
    QCOMPARE(signature(QStringLiteral("GetGroupProperties"), {idList({}), allProperties}),
             QStringLiteral("a(ia{sv})"));
    QCOMPARE(signature(QStringLiteral("GetProperty"), {1, QStringLiteral("label")}), QStringLiteral("v"));
    QCOMPARE(signature(QStringLiteral("Event"), {1, QString(), variant(0), 0U}), QString());
    QCOMPARE(signature(QStringLiteral("EventGroup"), {QVariant::fromValue(QList<DBusMenuEvent>())}),
             QStringLiteral("ai"));
    QCOMPARE(signature(QStringLiteral("AboutToShow"), {0}), QStringLiteral("b"));
    QCOMPARE(signature(QStringLiteral("AboutToShowGroup"), {idList({0})}), QStringLiteral("aiai"));
}

void TestDBusMenu::layoutOfOneEntryIsThatEntry()
{
    const DBusMenuLayout last = layout(3, -1, allProperties);
    QCOMPARE(last.id, 3);
    QCOMPARE(last.properties.value(QStringLiteral("label")), QStringLiteral("Last"));
    QVERIFY(last.children.isEmpty());
}

void TestDBusMenu::depthZeroLeavesTheEntriesOut()
{
    QVERIFY(layout(0, 0, allProperties).children.isEmpty());
    QCOMPARE(layout(0, 1, allProperties).children.size(), 3);
}

void TestDBusMenu::onlyThePropertiesAskedForAreSent()
{
    const DBusMenuLayout root = layout(0, -1, {QStringLiteral("type"), QStringLiteral("enabled")});
    QVERIFY(root.properties.isEmpty());
    QVERIFY(root.children[0].properties.isEmpty());
    QCOMPARE(root.children[1].properties.size(), 1);

    const QList<DBusMenuProperties> entries = groupProperties({1, 2}, {QStringLiteral("label")});
    QCOMPARE(entries[0].properties.size(), 1);
    QVERIFY(entries[1].properties.isEmpty());
}

void TestDBusMenu::layoutOfAnUnknownEntryIsAnError()
{
    for (const int id : {4, -1, INT_MAX, INT_MIN})
        QVERIFY(isRefused(m_remote->call(QStringLiteral("GetLayout"), {id, -1, allProperties})));
}

void TestDBusMenu::groupPropertiesOfNoEntryAreThoseOfAll()
{
    const QList<DBusMenuProperties> entries = groupProperties({}, allProperties);
    QCOMPARE(entries.size(), 4);
    QCOMPARE(entries[0].id, 0);
    QCOMPARE(entries[3].properties.value(QStringLiteral("label")), QStringLiteral("Last"));
}

void TestDBusMenu::groupPropertiesLeaveUnknownEntriesOut()
{
    const QList<DBusMenuProperties> entries = groupProperties({3, 99, -5}, allProperties);
    QCOMPARE(entries.size(), 1);
    QCOMPARE(entries[0].id, 3);
}

void TestDBusMenu::groupPropertiesOfAHugeListAreThreeEntries()
{
    QList<int> ids;
    for (int i = 0; i < 1'000'000; ++i)
        ids.append(i % 3 + 1);
    QCOMPARE(groupProperties(ids, allProperties).size(), 3);
}

void TestDBusMenu::onePropertyIsGiven()
{
    const QDBusMessage answer = m_remote->call(QStringLiteral("GetProperty"), {1, QStringLiteral("label")});
    QCOMPARE(answer.arguments().value(0).value<QDBusVariant>().variant(), QStringLiteral("First"));
}

void TestDBusMenu::unknownPropertyIsAnError()
{
    QVERIFY(isRefused(m_remote->call(QStringLiteral("GetProperty"), {1, QStringLiteral("shortcut")})));
    QVERIFY(isRefused(m_remote->call(QStringLiteral("GetProperty"), {2, QStringLiteral("label")})));
    QVERIFY(isRefused(m_remote->call(QStringLiteral("GetProperty"), {99, QStringLiteral("label")})));
}

void TestDBusMenu::clickTriggersTheEntry()
{
    QCOMPARE(send(3, QStringLiteral("clicked")).type(), QDBusMessage::ReplyMessage);
    QTRY_COMPARE(m_last->count(), 1);
    QCOMPARE(m_first->count(), 0);
}

void TestDBusMenu::clickIsAnsweredBeforeItActs()
{
    // An action that blocks must not block the panel.
    m_dbusMenu->Event(1, QStringLiteral("clicked"), QDBusVariant(0), 0);
    QCOMPARE(m_first->count(), 0);
    QTRY_COMPARE(m_first->count(), 1);
}

void TestDBusMenu::otherEventsTriggerNothing_data()
{
    QTest::addColumn<QString>("type");
    for (const char* type : {"opened", "closed", "hovered", "x-vendor-something", "", "Clicked"})
        QTest::newRow(type) << QString::fromLatin1(type);
}

void TestDBusMenu::otherEventsTriggerNothing()
{
    QFETCH(QString, type);
    QCOMPARE(send(1, type).type(), QDBusMessage::ReplyMessage);
    // Another click, which does arrive, shows that the first is through.
    QCOMPARE(send(3, QStringLiteral("clicked")).type(), QDBusMessage::ReplyMessage);
    QTRY_COMPARE(m_last->count(), 1);
    QCOMPARE(m_first->count(), 0);
}

void TestDBusMenu::clickOnTheSeparatorOrTheMenuDoesNothing()
{
    QCOMPARE(send(2, QStringLiteral("clicked")).type(), QDBusMessage::ReplyMessage);
    QCOMPARE(send(0, QStringLiteral("clicked")).type(), QDBusMessage::ReplyMessage);
    QCOMPARE(send(3, QStringLiteral("clicked")).type(), QDBusMessage::ReplyMessage);
    QTRY_COMPARE(m_last->count(), 1);
    QCOMPARE(m_first->count(), 0);
}

void TestDBusMenu::eventOfAnUnknownEntryIsAnError()
{
    for (const int id : {4, -1, INT_MAX, INT_MIN})
        QVERIFY(isRefused(send(id, QStringLiteral("clicked"))));
}

void TestDBusMenu::eventGroupTriggersEachAndNamesTheUnknown()
{
    const QDBusMessage answer =
        send({eventOf(1, QStringLiteral("opened")), eventOf(99, QStringLiteral("clicked")),
              eventOf(3, QStringLiteral("clicked")), eventOf(1, QStringLiteral("clicked"))});
    QCOMPARE(qdbus_cast<QList<int>>(answer.arguments().value(0)), QList<int>({99}));
    QTRY_COMPARE(m_first->count(), 1);
    QCOMPARE(m_last->count(), 1);
}

void TestDBusMenu::eventGroupOfUnknownEntriesAloneIsAnError()
{
    QVERIFY(
        isRefused(send({eventOf(99, QStringLiteral("clicked")), eventOf(-1, QStringLiteral("clicked"))})));
}

void TestDBusMenu::emptyGroupsAreNoErrors()
{
    QCOMPARE(send(QList<DBusMenuEvent>()).type(), QDBusMessage::ReplyMessage);
    QCOMPARE(m_remote->call(QStringLiteral("AboutToShowGroup"), {idList({})}).type(),
             QDBusMessage::ReplyMessage);
}

void TestDBusMenu::openingChangesNothing()
{
    const QSignalSpy layoutUpdated(m_dbusMenu.get(), &DBusMenu::LayoutUpdated);
    const QSignalSpy propertiesUpdated(m_dbusMenu.get(), &DBusMenu::ItemsPropertiesUpdated);
    const QDBusMessage before = m_remote->call(QStringLiteral("GetLayout"), {0, -1, allProperties});

    const QDBusMessage answer = m_remote->call(QStringLiteral("AboutToShow"), {0});
    QCOMPARE(answer.arguments(), QVariantList{QVariant(false)});
    QCOMPARE(send(0, QStringLiteral("opened")).type(), QDBusMessage::ReplyMessage);
    QCOMPARE(send(0, QStringLiteral("closed")).type(), QDBusMessage::ReplyMessage);

    const QDBusMessage after = m_remote->call(QStringLiteral("GetLayout"), {0, -1, allProperties});
    QCOMPARE(after.arguments().value(0).toUInt(), before.arguments().value(0).toUInt());
    QCOMPARE(layoutUpdated.count() + propertiesUpdated.count(), 0);
    QCOMPARE(m_first->count() + m_last->count(), 0);
}

void TestDBusMenu::aboutToShowGroupNamesTheUnknown()
{
    const QDBusMessage answer = m_remote->call(QStringLiteral("AboutToShowGroup"), {idList({0, 99, 3, -1})});
    QCOMPARE(qdbus_cast<QList<int>>(answer.arguments().value(0)), QList<int>());
    QCOMPARE(qdbus_cast<QList<int>>(answer.arguments().value(1)), QList<int>({99, -1}));
}

void TestDBusMenu::aboutToShowOfUnknownEntriesIsAnError()
{
    QVERIFY(isRefused(m_remote->call(QStringLiteral("AboutToShow"), {99})));
    QVERIFY(isRefused(m_remote->call(QStringLiteral("AboutToShowGroup"), {idList({99, -1})})));
}

void TestDBusMenu::propertiesAreThoseOfTheProtocol()
{
    QCOMPARE(m_remote->property(QStringLiteral("Version")), QVariant(3U));
    QCOMPARE(m_remote->property(QStringLiteral("TextDirection")), QVariant(QStringLiteral("ltr")));
    QCOMPARE(m_remote->property(QStringLiteral("Status")), QVariant(QStringLiteral("normal")));
    QCOMPARE(m_remote->property(QStringLiteral("IconThemePath")), QVariant(QStringList()));
}

void TestDBusMenu::textDirectionIsThatOfTheLanguage()
{
    QGuiApplication::setLayoutDirection(Qt::RightToLeft);
    const QVariant direction = m_remote->property(QStringLiteral("TextDirection"));
    QGuiApplication::setLayoutDirection(Qt::LeftToRight);
    QCOMPARE(direction, QVariant(QStringLiteral("rtl")));
}

void TestDBusMenu::wrongCallsAreErrors_data()
{
    QTest::addColumn<QString>("method");
    QTest::addColumn<QVariantList>("arguments");
    const auto row = [](const char* name, const char* method, const QVariantList& arguments) {
        QTest::newRow(name) << QString::fromLatin1(method) << arguments;
    };
    row("no arguments", "GetLayout", {});
    row("too few arguments", "Event", {1, QStringLiteral("clicked")});
    row("a string for a number", "AboutToShow", {QStringLiteral("1")});
    row("strings for numbers", "AboutToShowGroup", {QStringList({QStringLiteral("1")})});
    row("a number for a list", "GetGroupProperties", {1, QStringList()});
    row("a list of numbers for a list of events", "EventGroup", {idList({1})});
    row("a 64-bit number", "GetProperty", {qlonglong(1), QStringLiteral("label")});
    row("an unknown method", "Destroy", {1});
    row("a signal of its own", "LayoutUpdated", {1U, 0});
    row("what QObject has", "deleteLater", {});
}

void TestDBusMenu::wrongCallsAreErrors()
{
    QFETCH(QString, method);
    QFETCH(QVariantList, arguments);
    QCOMPARE(m_remote->call(method, arguments).type(), QDBusMessage::ErrorMessage);
    QCOMPARE(layout(0, -1, allProperties).children.size(), 3);
    QCOMPARE(m_first->count() + m_last->count(), 0);
}

void TestDBusMenu::propertiesCannotBeSet()
{
    const RemoteObject properties{m_remote->bus, m_remote->service, m_remote->path,
                                  QStringLiteral("org.freedesktop.DBus.Properties")};
    const QDBusMessage answer =
        properties.call(QStringLiteral("Set"), {m_remote->interface, QStringLiteral("Version"), variant(4U)});
    QCOMPARE(answer.type(), QDBusMessage::ErrorMessage);
    QCOMPARE(m_remote->property(QStringLiteral("Version")), QVariant(3U));
}

HARBEX_WINDOW_TEST_MAIN(TestDBusMenu)
#include "tst_DBusMenu.moc"
