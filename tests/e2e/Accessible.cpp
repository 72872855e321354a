#include "e2e/Accessible.h"

#include "support/SessionBus.h"

#include <QDBusArgument>
#include <QDBusObjectPath>
#include <QStringList>

namespace harbex::test
{

namespace
{

QString interfaceOf(const QString& name)
{
    return QStringLiteral("org.a11y.atspi.") + name;
}

} // namespace

Accessible Accessible::desktop(const QDBusConnection& bus)
{
    return {bus, QStringLiteral("org.a11y.atspi.Registry"),
            QStringLiteral("/org/a11y/atspi/accessible/root")};
}

QVariantList Accessible::ask(const QString& interface, const QString& method,
                             const QVariantList& arguments) const
{
    if (!*this) return {};
    const QDBusMessage answer =
        RemoteObject{m_bus, m_service, m_path, interfaceOf(interface)}.call(method, arguments);
    return answer.type() == QDBusMessage::ReplyMessage ? answer.arguments() : QVariantList();
}

QVariant Accessible::property(const QString& interface, const QString& name) const
{
    if (!*this) return {};
    return RemoteObject{m_bus, m_service, m_path, interfaceOf(interface)}.property(name);
}

QString Accessible::name() const
{
    return property(QStringLiteral("Accessible"), QStringLiteral("Name")).toString();
}

QString Accessible::description() const
{
    return property(QStringLiteral("Accessible"), QStringLiteral("Description")).toString();
}

QString Accessible::role() const
{
    const QString name = ask(QStringLiteral("Accessible"), QStringLiteral("GetRoleName")).value(0).toString();
    // GTK uses this name from Debian 13 on. Qt still uses the old one.
    return name == u"button" ? QStringLiteral("push button") : name;
}

bool Accessible::has(State state) const
{
    const QVariant answer = ask(QStringLiteral("Accessible"), QStringLiteral("GetState")).value(0);
    const auto words = qdbus_cast<QList<uint>>(answer);
    const int bit = static_cast<int>(state);
    return words.size() > bit / 32 && (words[bit / 32] >> (bit % 32) & 1U) != 0;
}

bool Accessible::isShown(const QString& ofRole, const QString& ofName) const
{
    return role() == ofRole && (ofName.isNull() || name() == ofName) && has(State::showing);
}

QList<Accessible> Accessible::children() const
{
    QList<Accessible> children;
    const QVariantList answer = ask(QStringLiteral("Accessible"), QStringLiteral("GetChildren"));
    if (answer.isEmpty()) return children;
    const auto references = answer.first().value<QDBusArgument>();
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
    const QVariantList answer = ask(QStringLiteral("Component"), QStringLiteral("GetExtents"), {ofTheScreen});
    if (answer.isEmpty()) return {};
    const auto rectangle = answer.first().value<QDBusArgument>();
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
    rectangle.beginStructure();
    rectangle >> x >> y >> width >> height;
    rectangle.endStructure();
    return {x, y, width, height};
}

QList<Accessible> Accessible::all(const Condition& condition) const
{
    QList<Accessible> found;
    collect(condition, false, found);
    return found;
}

Accessible Accessible::find(const Condition& condition) const
{
    QList<Accessible> found;
    collect(condition, true, found);
    return found.value(0);
}

QList<Accessible> Accessible::all(const QString& role, const QString& name) const
{
    return all([&](const Accessible& each) { return each.isShown(role, name); });
}

Accessible Accessible::find(const QString& role, const QString& name) const
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

QString Accessible::text() const
{
    return ask(QStringLiteral("Text"), QStringLiteral("GetText"), {0, -1}).value(0).toString();
}

bool Accessible::setText(const QString& text) const
{
    return ask(QStringLiteral("EditableText"), QStringLiteral("SetTextContents"), {text}).value(0).toBool();
}

bool Accessible::press() const
{
    if (!*this) return false;
    RemoteObject{m_bus, m_service, m_path, interfaceOf(QStringLiteral("Action"))}.send(
        QStringLiteral("DoAction"), {0});
    return true;
}

bool Accessible::act(const QString& action) const
{
    const int count = property(QStringLiteral("Action"), QStringLiteral("NActions")).toInt();
    for (int i = 0; i < count; ++i) {
        const QString name =
            ask(QStringLiteral("Action"), QStringLiteral("GetName"), {i}).value(0).toString();
        if (name == action)
            return ask(QStringLiteral("Action"), QStringLiteral("DoAction"), {i}).value(0).toBool();
    }
    return false;
}

bool Accessible::takeFocus() const
{
    return ask(QStringLiteral("Component"), QStringLiteral("GrabFocus")).value(0).toBool();
}

QString Accessible::outline(int depth) const
{
    const QRect place = extents();
    QString lines = QStringLiteral("%1%2 \"%3\" %4,%5 %6x%7%8\n")
                        .arg(QString(depth * 2, u' '), role(), name())
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
