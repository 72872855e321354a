#pragma once

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusContext>
#include <QDBusVariant>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantMap>

class QAction;
class QMenu;

namespace harbex
{

/// Wire types of com.canonical.dbusmenu: an entry with its properties and child entries, the properties of
/// one entry, and an event on one entry.
struct DBusMenuLayout {
    int id = 0;
    QVariantMap properties;
    QList<DBusMenuLayout> children;
};
struct DBusMenuProperties {
    int id = 0;
    QVariantMap properties;
};
struct DBusMenuEvent {
    int id = 0;
    QString type;
    QDBusVariant data;
    uint timestamp = 0;
};

QDBusArgument& operator<<(QDBusArgument& argument, const DBusMenuLayout& layout);
const QDBusArgument& operator>>(const QDBusArgument& argument, DBusMenuLayout& layout);
QDBusArgument& operator<<(QDBusArgument& argument, const DBusMenuProperties& entry);
const QDBusArgument& operator>>(const QDBusArgument& argument, DBusMenuProperties& entry);
QDBusArgument& operator<<(QDBusArgument& argument, const DBusMenuEvent& event);
const QDBusArgument& operator>>(const QDBusArgument& argument, DBusMenuEvent& event);

/// Exports a menu as com.canonical.dbusmenu, so that a panel can draw it. The menu is flat, has only labels
/// and separators, is complete before this object is constructed, and must live longer. A click on an entry
/// triggers its action through the event queue. Main thread only.
///
/// Callers get an error for unknown ids. GetGroupProperties() ignores them. The other group calls return them
/// and fail only if all ids are unknown.
class DBusMenu : public QObject, protected QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.canonical.dbusmenu")
    Q_PROPERTY(uint Version READ version CONSTANT SCRIPTABLE true)
    Q_PROPERTY(QString TextDirection READ textDirection CONSTANT SCRIPTABLE true)
    Q_PROPERTY(QString Status READ status CONSTANT SCRIPTABLE true)
    Q_PROPERTY(QStringList IconThemePath READ iconThemePath CONSTANT SCRIPTABLE true)

public:
    DBusMenu(QDBusConnection bus, const QString& objectPath, const QMenu& menu, QObject* parent = nullptr);

    [[nodiscard]] uint version() const { return 3; }
    [[nodiscard]] QString textDirection() const;
    [[nodiscard]] QString status() const { return QStringLiteral("normal"); }
    [[nodiscard]] QStringList iconThemePath() const { return {}; }

    // D-Bus methods. Entry 0 is the menu itself. QtDBus requires the qualified type names.
    Q_SCRIPTABLE uint GetLayout(int parentId, int recursionDepth, const QStringList& propertyNames,
                                harbex::DBusMenuLayout& layout);
    Q_SCRIPTABLE QList<harbex::DBusMenuProperties> GetGroupProperties(const QList<int>& ids,
                                                                      const QStringList& propertyNames);
    Q_SCRIPTABLE QDBusVariant GetProperty(int id, const QString& name);
    Q_SCRIPTABLE void Event(int id, const QString& eventId, const QDBusVariant& data, uint timestamp);
    Q_SCRIPTABLE QList<int> EventGroup(const QList<harbex::DBusMenuEvent>& events);
    Q_SCRIPTABLE bool AboutToShow(int id);
    Q_SCRIPTABLE QList<int> AboutToShowGroup(const QList<int>& ids, QList<int>& idErrors);

Q_SIGNALS:
    // Required by the protocol. Never emitted, because the menu never changes and does not open itself.
    Q_SCRIPTABLE void ItemsPropertiesUpdated(const QList<harbex::DBusMenuProperties>& updatedProps,
                                             const QList<harbex::DBusMenuProperties>& removedProps);
    Q_SCRIPTABLE void LayoutUpdated(uint revision, int parent);
    Q_SCRIPTABLE void ItemActivationRequested(int id, uint timestamp);

private:
    [[nodiscard]] bool exists(int id) const;
    [[nodiscard]] QVariantMap properties(int id, const QStringList& names) const;
    [[nodiscard]] QAction* action(int id) const;
    bool handle(int id, const QString& eventType);
    void refuse(int id);

    const QMenu& m_menu;
};

} // namespace harbex
