#include "support/SessionBus.h"
#include "support/WindowTestMain.h"
#include "ui/DBusMenu.h"

using namespace harbex;
using namespace harbex::test;

namespace
{

const QStringList allProperties;

QVariant idList(const QList<int>& ids)
{
    return QVariant::fromValue(ids);
}

QVariant eventList(const QList<std::pair<int, const char*>>& events)
{
    QList<DBusMenuEvent> list;
    for (const auto& [id, type] : events)
        list.append({id, type, QDBusVariant(0), 0});
    return QVariant::fromValue(list);
}

bool isRefused(const QDBusMessage& answer)
{
    return answer.type() == QDBusMessage::ErrorMessage &&
           answer.errorName() == "org.freedesktop.DBus.Error.InvalidArgs";
}

/// Returns an entry as "id property=value".
QString textOf(int id, const QVariantMap& properties)
{
    QString text = QString::number(id);
    for (auto property = properties.cbegin(); property != properties.cend(); ++property)
        text += u' ' + property.key() + u'=' + property.value().toString();
    return text;
}

/// Returns an entry with its child entries in parentheses.
QString textOf(const DBusMenuLayout& layout)
{
    QString text = textOf(layout.id, layout.properties);
    for (const DBusMenuLayout& child : layout.children)
        text += QString(" (%1)").arg(textOf(child));
    return text;
}

} // namespace

/// The menu as a panel reads it from the bus.
class TestDBusMenu : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_first.clear();
        m_last.clear();
    }

    void layout()
    {
        // An entry has no other property: no shortcut, icon, check mark or state.
        const QString all = "0 children-display=submenu (1 label=First) (2 type=separator) (3 label=Last)";
        QCOMPARE(layoutText(0, -1, allProperties), all);
        QCOMPARE(layoutText(0, 1, allProperties), all);
        QCOMPARE(layoutText(0, 0, allProperties), "0 children-display=submenu");
        QCOMPARE(layoutText(3, -1, allProperties), "3 label=Last");
        QCOMPARE(layoutText(0, -1, {"type", "enabled"}), "0 (1) (2 type=separator) (3)");
    }

    void properties()
    {
        const auto group = [this](const QList<int>& ids, const QStringList& names) {
            const QDBusMessage answer = m_remote.call("GetGroupProperties", {idList(ids), names});
            QStringList entries;
            for (const auto& entry : qdbus_cast<QList<DBusMenuProperties>>(answer.arguments().value(0)))
                entries += textOf(entry.id, entry.properties);
            return entries.join(", ");
        };
        // No ids are all.
        QCOMPARE(group({}, allProperties), "0 children-display=submenu, 1 label=First, "
                                           "2 type=separator, 3 label=Last");
        QCOMPARE(group({1, 2}, {"label"}), "1 label=First, 2");
        QCOMPARE(group({3, 99, -5}, allProperties), "3 label=Last");
        // Repeated ids are sent once.
        QList<int> many;
        for (int i = 0; i < 1'000'000; ++i)
            many.append(i % 2 + 1);
        QCOMPARE(group(many, allProperties), "1 label=First, 2 type=separator");

        const QDBusMessage answer = m_remote.call("GetProperty", {1, "label"});
        QCOMPARE(answer.arguments().value(0).value<QDBusVariant>().variant(), "First");
    }

    void answersHaveTheSignaturesOfTheProtocol()
    {
        const auto signature = [this](const char* method, const QVariantList& arguments) {
            return m_remote.call(method, arguments).signature().toLatin1();
        };
        QCOMPARE(signature("GetLayout", {0, -1, allProperties}), "u(ia{sv}av)");
        QCOMPARE(signature("GetGroupProperties", {idList({}), allProperties}), "a(ia{sv})");
        QCOMPARE(signature("GetProperty", {1, "label"}), "v");
        QCOMPARE(signature("Event", {1, QString(), asVariant(0), 0U}), "");
        QCOMPARE(signature("EventGroup", {eventList({})}), "ai");
        QCOMPARE(signature("AboutToShow", {0}), "b");
        QCOMPARE(signature("AboutToShowGroup", {idList({0})}), "aiai");
    }

    void unknownEntriesAndPropertiesAreErrors()
    {
        for (const int id : {4, -1, INT_MAX, INT_MIN}) {
            const QByteArray name = QByteArray::number(id);
            QVERIFY2(isRefused(m_remote.call("GetLayout", {id, -1, allProperties})), name);
            QVERIFY2(isRefused(m_remote.call("GetProperty", {id, "label"})), name);
            QVERIFY2(isRefused(send(id, "clicked")), name);
            QVERIFY2(isRefused(m_remote.call("AboutToShow", {id})), name);
        }
        QVERIFY(isRefused(m_remote.call("GetProperty", {1, "shortcut"})));
        QVERIFY(isRefused(m_remote.call("GetProperty", {2, "label"})));
        QVERIFY(isRefused(m_remote.call("EventGroup", {eventList({{99, "clicked"}, {-1, "clicked"}})})));
        QVERIFY(isRefused(m_remote.call("AboutToShowGroup", {idList({99, -1})})));
    }

    void groupsNameTheUnknownEntries()
    {
        const QDBusMessage handled = m_remote.call(
            "EventGroup", {eventList({{1, "opened"}, {99, "clicked"}, {3, "clicked"}, {1, "clicked"}})});
        QCOMPARE(qdbus_cast<QList<int>>(handled.arguments().value(0)), QList<int>({99}));
        QTRY_COMPARE(m_first.count(), 1);
        QCOMPARE(m_last.count(), 1);

        // The menu is up to date already.
        QCOMPARE(m_remote.call("AboutToShow", {0}).arguments(), QVariantList{false});
        const QDBusMessage answer = m_remote.call("AboutToShowGroup", {idList({0, 99, 3, -1})});
        QCOMPARE(qdbus_cast<QList<int>>(answer.arguments().value(0)), QList<int>());
        QCOMPARE(qdbus_cast<QList<int>>(answer.arguments().value(1)), QList<int>({99, -1}));

        QVERIFY(m_remote.accepts("EventGroup", {eventList({})}));
        QVERIFY(m_remote.accepts("AboutToShowGroup", {idList({})}));
    }

    void aClickTriggersTheEntry()
    {
        QCOMPARE(send(3, "clicked").type(), QDBusMessage::ReplyMessage);
        QTRY_COMPARE(m_last.count(), 1);
        QCOMPARE(m_first.count(), 0);
        // An action that blocks must not block the panel.
        m_dbusMenu.Event(1, "clicked", QDBusVariant(0), 0);
        QCOMPARE(m_first.count(), 0);
        QTRY_COMPARE(m_first.count(), 1);
    }

    void otherEventsTriggerNothing()
    {
        for (const char* type : {"opened", "closed", "hovered", "x-vendor-something", "", "Clicked"})
            QCOMPARE(send(1, type).type(), QDBusMessage::ReplyMessage);
        // The separator and the menu itself.
        for (const int id : {2, 0})
            QCOMPARE(send(id, "clicked").type(), QDBusMessage::ReplyMessage);
        // A later click shows that the other events have been handled.
        QCOMPARE(send(3, "clicked").type(), QDBusMessage::ReplyMessage);
        QTRY_COMPARE(m_last.count(), 1);
        QCOMPARE(m_first.count(), 0);
    }

    void propertiesAreThoseOfTheProtocol()
    {
        QCOMPARE(m_remote.property("Version"), QVariant(3U));
        QCOMPARE(m_remote.property("TextDirection"), QVariant("ltr"));
        QCOMPARE(m_remote.property("Status"), QVariant("normal"));
        QCOMPARE(m_remote.property("IconThemePath"), QVariant(QStringList()));

        QGuiApplication::setLayoutDirection(Qt::RightToLeft);
        const QVariant direction = m_remote.property("TextDirection");
        QGuiApplication::setLayoutDirection(Qt::LeftToRight);
        QCOMPARE(direction, QVariant("rtl"));
    }

private:
    [[nodiscard]] QString layoutText(int parentId, int depth, const QStringList& names) const
    {
        const QDBusMessage answer = m_remote.call("GetLayout", {parentId, depth, names});
        return textOf(qdbus_cast<DBusMenuLayout>(answer.arguments().value(1)));
    }
    [[nodiscard]] QDBusMessage send(int id, const char* type) const
    {
        return m_remote.call("Event", {id, type, asVariant(0), 0U});
    }

    SessionBus m_bus;
    QDBusConnection m_own = m_bus.connect();
    QMenu m_menu;
    QSignalSpy m_first{m_menu.addAction("First"), &QAction::triggered};
    QAction* m_separator = m_menu.addSeparator();
    QSignalSpy m_last{m_menu.addAction("Last"), &QAction::triggered};
    DBusMenu m_dbusMenu{m_own, "/Menu", m_menu};
    RemoteObject m_remote{m_bus.connect(), m_own.baseService(), "/Menu", "com.canonical.dbusmenu"};
};

HARBEX_WINDOW_TEST(TestDBusMenu)
#include "tst_DBusMenu.moc"
