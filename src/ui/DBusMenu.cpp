#include "ui/DBusMenu.h"

#include <QAction>
#include <QDBusError>
#include <QDBusMetaType>
#include <QGuiApplication>
#include <QMenu>

namespace harbex
{

namespace
{

constexpr int rootId = 0;
// Constant, because the layout never changes.
constexpr uint revision = 1;

} // namespace

QDBusArgument& operator<<(QDBusArgument& argument, const DBusMenuLayout& layout)
{
    argument.beginStructure();
    argument << layout.id << layout.properties;
    argument.beginArray(QMetaType::fromType<QDBusVariant>());
    for (const DBusMenuLayout& child : layout.children)
        argument << QDBusVariant(QVariant::fromValue(child));
    argument.endArray();
    argument.endStructure();
    return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, DBusMenuLayout& layout)
{
    layout.children.clear();
    argument.beginStructure();
    argument >> layout.id >> layout.properties;
    argument.beginArray();
    while (!argument.atEnd()) {
        QDBusVariant child;
        argument >> child;
        layout.children.append(qdbus_cast<DBusMenuLayout>(child.variant()));
    }
    argument.endArray();
    argument.endStructure();
    return argument;
}

QDBusArgument& operator<<(QDBusArgument& argument, const DBusMenuProperties& entry)
{
    argument.beginStructure();
    argument << entry.id << entry.properties;
    argument.endStructure();
    return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, DBusMenuProperties& entry)
{
    argument.beginStructure();
    argument >> entry.id >> entry.properties;
    argument.endStructure();
    return argument;
}

QDBusArgument& operator<<(QDBusArgument& argument, const DBusMenuEvent& event)
{
    argument.beginStructure();
    argument << event.id << event.type << event.data << event.timestamp;
    argument.endStructure();
    return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, DBusMenuEvent& event)
{
    argument.beginStructure();
    argument >> event.id >> event.type >> event.data >> event.timestamp;
    argument.endStructure();
    return argument;
}

DBusMenu::DBusMenu(QDBusConnection bus, const QString& objectPath, const QMenu& menu, QObject* parent)
    : QObject(parent), m_menu(menu)
{
    qDBusRegisterMetaType<DBusMenuLayout>();
    qDBusRegisterMetaType<DBusMenuProperties>();
    qDBusRegisterMetaType<QList<DBusMenuProperties>>();
    qDBusRegisterMetaType<DBusMenuEvent>();
    qDBusRegisterMetaType<QList<DBusMenuEvent>>();
    bus.registerObject(objectPath, this, QDBusConnection::ExportScriptableContents);
}

QString DBusMenu::textDirection() const
{
    return QGuiApplication::isRightToLeft() ? QStringLiteral("rtl") : QStringLiteral("ltr");
}

uint DBusMenu::GetLayout(int parentId, int recursionDepth, const QStringList& propertyNames,
                         DBusMenuLayout& layout)
{
    if (!exists(parentId)) {
        refuse(parentId);
        return revision;
    }
    layout = {parentId, properties(parentId, propertyNames), {}};
    if (parentId == rootId && recursionDepth != 0) {
        for (int id = 1; exists(id); ++id)
            layout.children.append({id, properties(id, propertyNames), {}});
    }
    return revision;
}

QList<DBusMenuProperties> DBusMenu::GetGroupProperties(const QList<int>& ids,
                                                       const QStringList& propertyNames)
{
    // Lists each entry once, even if `ids` repeats it.
    QList<DBusMenuProperties> entries;
    for (int id = rootId; exists(id); ++id) {
        if (ids.isEmpty() || ids.contains(id)) entries.append({id, properties(id, propertyNames)});
    }
    return entries;
}

QDBusVariant DBusMenu::GetProperty(int id, const QString& name)
{
    const QVariant value = properties(id, {}).value(name);
    if (value.isValid()) return QDBusVariant(value);
    sendErrorReply(QDBusError::InvalidArgs, QStringLiteral("Entry %1 has no property %2").arg(id).arg(name));
    return QDBusVariant(QString());
}

void DBusMenu::Event(int id, const QString& eventId, const QDBusVariant& /*data*/, uint /*timestamp*/)
{
    if (!handle(id, eventId)) refuse(id);
}

QList<int> DBusMenu::EventGroup(const QList<DBusMenuEvent>& events)
{
    QList<int> idErrors;
    for (const DBusMenuEvent& event : events) {
        if (!handle(event.id, event.type)) idErrors.append(event.id);
    }
    if (!events.isEmpty() && idErrors.size() == events.size()) refuse(idErrors.first());
    return idErrors;
}

bool DBusMenu::AboutToShow(int id)
{
    if (!exists(id)) refuse(id);
    return false;
}

QList<int> DBusMenu::AboutToShowGroup(const QList<int>& ids, QList<int>& idErrors)
{
    for (const int id : ids) {
        if (!exists(id)) idErrors.append(id);
    }
    if (!ids.isEmpty() && idErrors.size() == ids.size()) refuse(idErrors.first());
    return {};
}

bool DBusMenu::exists(int id) const
{
    return id == rootId || action(id);
}

QVariantMap DBusMenu::properties(int id, const QStringList& names) const
{
    // Missing properties have the defaults of the protocol: visible, enabled, no icon, check mark or
    // shortcut.
    QString name = QStringLiteral("children-display");
    QString value = QStringLiteral("submenu");
    if (const QAction* entry = action(id)) {
        name = entry->isSeparator() ? QStringLiteral("type") : QStringLiteral("label");
        value = entry->isSeparator() ? QStringLiteral("separator") : entry->text();
    } else if (id != rootId) {
        return {};
    }
    if (!names.isEmpty() && !names.contains(name)) return {};
    return {{name, value}};
}

QAction* DBusMenu::action(int id) const
{
    return id > rootId ? m_menu.actions().value(id - 1) : nullptr;
}

bool DBusMenu::handle(int id, const QString& eventType)
{
    if (!exists(id)) return false;
    QAction* const entry = action(id);
    // Queued, so that the panel does not wait for the action.
    if (entry && eventType == QLatin1String("clicked"))
        QMetaObject::invokeMethod(entry, &QAction::trigger, Qt::QueuedConnection);
    return true;
}

void DBusMenu::refuse(int id)
{
    sendErrorReply(QDBusError::InvalidArgs, QStringLiteral("There is no entry %1").arg(id));
}

} // namespace harbex
