#include "e2e/Accessible.h"

#include "support/SessionBus.h"

#include <QDBusArgument>
#include <QDBusObjectPath>

namespace harbex::test
{

namespace
{

QString interfaceOf(const char* name)
{
    return QStringLiteral("org.a11y.atspi.") + QLatin1String(name);
}

} // namespace

Accessible Accessible::desktop(const QDBusConnection& bus)
{
    return {bus, QStringLiteral("org.a11y.atspi.Registry"),
            QStringLiteral("/org/a11y/atspi/accessible/root")};
}

QVariant Accessible::ask(const char* interface, const char* method, const QVariantList& arguments) const
{
    if (!*this) return {};
    const QDBusMessage answer =
        RemoteObject{m_bus, m_service, m_path, interfaceOf(interface)}.call(method, arguments);
    return answer.type() == QDBusMessage::ReplyMessage ? answer.arguments().value(0) : QVariant();
}

QByteArray Accessible::property(const char* name) const
{
    if (!*this) return {};
    return RemoteObject{m_bus, m_service, m_path, interfaceOf("Accessible")}
        .property(name)
        .toString()
        .toUtf8();
}

QByteArray Accessible::name() const
{
    return property("Name");
}

QByteArray Accessible::description() const
{
    return property("Description");
}

QByteArray Accessible::role() const
{
    const QByteArray name = ask("Accessible", "GetRoleName").toString().toUtf8();
    // GTK uses this name from Debian 13 on. Qt still uses the old one.
    return name == "button" ? QByteArray("push button") : name;
}

bool Accessible::has(State state) const
{
    const auto words = qdbus_cast<QList<uint>>(ask("Accessible", "GetState"));
    const int bit = static_cast<int>(state);
    return words.size() > bit / 32 && (words[bit / 32] >> (bit % 32) & 1U) != 0;
}

bool Accessible::isShown(const char* ofRole, const char* ofName) const
{
    return role() == ofRole && (!ofName || name() == ofName) && has(State::showing);
}

QList<Accessible> Accessible::children() const
{
    QList<Accessible> children;
    const QVariant answer = ask("Accessible", "GetChildren");
    if (!answer.isValid()) return children;
    const auto references = answer.value<QDBusArgument>();
    references.beginArray();
    while (!references.atEnd()) {
        QString service;
        QDBusObjectPath path;
        references.beginStructure();
        references >> service >> path;
        references.endStructure();
        children.append({m_bus, service, path.path()});
    }
    references.endArray();
    return children;
}

QRect Accessible::extents() const
{
    constexpr uint ofTheScreen = 0;
    // The type of the reply is that of a QRect.
    return qdbus_cast<QRect>(ask("Component", "GetExtents", {ofTheScreen}));
}

Accessible Accessible::find(const Condition& condition) const
{
    QList<Accessible> found;
    collect(condition, true, found);
    return found.value(0);
}

QList<Accessible> Accessible::all(const char* role, const char* name) const
{
    QList<Accessible> found;
    collect([&](const Accessible& each) { return each.isShown(role, name); }, false, found);
    return found;
}

Accessible Accessible::find(const char* role, const char* name) const
{
    return find([&](const Accessible& each) { return each.isShown(role, name); });
}

void Accessible::collect(const Condition& condition, bool isOneEnough, QList<Accessible>& found) const
{
    const QList<Accessible> offspring = children();
    for (const Accessible& child : offspring) {
        if (condition(child)) found.append(child);
        if (isOneEnough && !found.isEmpty()) return;
        child.collect(condition, isOneEnough, found);
    }
}

QByteArray Accessible::text() const
{
    return ask("Text", "GetText", {0, -1}).toString().toUtf8();
}

bool Accessible::setText(const QString& text) const
{
    return ask("EditableText", "SetTextContents", {text}).toBool();
}

bool Accessible::press() const
{
    if (!*this) return false;
    RemoteObject{m_bus, m_service, m_path, interfaceOf("Action")}.send("DoAction", {0});
    return true;
}

bool Accessible::takeFocus() const
{
    return ask("Component", "GrabFocus").toBool();
}

QString Accessible::outline(int depth) const
{
    const QRect place = extents();
    QString lines = QStringLiteral("%1%2 \"%3\" %4,%5 %6x%7%8\n")
                        .arg(QString(depth * 2, u' '), QString::fromUtf8(role()), QString::fromUtf8(name()))
                        .arg(place.x())
                        .arg(place.y())
                        .arg(place.width())
                        .arg(place.height())
                        .arg(has(State::showing) ? QString() : QStringLiteral(" (not shown)"));
    const QList<Accessible> offspring = children();
    for (const Accessible& child : offspring)
        lines += child.outline(depth + 1);
    return lines;
}

} // namespace harbex::test
