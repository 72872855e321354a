#pragma once

#include "support/SessionBus.h"

#include <functional>

namespace harbex::test
{

/// A control of another program, accessed over the accessibility bus. Nothing is cached. If the control does
/// not exist, queries return empty values and actions have no effect. Texts are UTF-8.
class Accessible
{
public:
    /// Accessibility states, with the numbers of the AT-SPI protocol.
    enum class State { active = 1, focused = 12, showing = 25 };

    Accessible() = default;

    /// Returns the root of the accessibility tree. Its children are the running programs.
    static Accessible desktop(const QDBusConnection& bus)
    {
        return {bus, "org.a11y.atspi.Registry", "/org/a11y/atspi/accessible/root"};
    }

    explicit operator bool() const { return !m_service.isEmpty(); }
    friend bool operator==(const Accessible& a, const Accessible& b)
    {
        return a.m_service == b.m_service && a.m_path == b.m_path;
    }

    [[nodiscard]] QByteArray name() const { return property("Name"); }

    [[nodiscard]] QByteArray description() const { return property("Description"); }

    /// For example "push button", "combo box", "text", "list item", "menu item", "frame".
    [[nodiscard]] QByteArray role() const
    {
        const QByteArray name = ask("Accessible", "GetRoleName").toString().toUtf8();
        // GTK uses this name from Debian 13 on. Qt still uses the old one.
        return name == "button" ? QByteArray("push button") : name;
    }

    [[nodiscard]] bool has(State state) const
    {
        const auto words = qdbus_cast<QList<uint>>(ask("Accessible", "GetState"));
        const int bit = static_cast<int>(state);
        return words.size() > bit / 32 && (words[bit / 32] >> (bit % 32) & 1U) != 0;
    }

    /// Returns whether the control is visible and has the role and, if given, the name.
    [[nodiscard]] bool isShown(const char* ofRole, const char* ofName = nullptr) const
    {
        return role() == ofRole && (!ofName || name() == ofName) && has(State::showing);
    }

    [[nodiscard]] QList<Accessible> children() const
    {
        using References = QList<std::pair<QString, QDBusObjectPath>>;
        QList<Accessible> children;
        for (const auto& [service, path] : qdbus_cast<References>(ask("Accessible", "GetChildren")))
            children.append({m_bus, service, path.path()});
        return children;
    }

    /// Returns the position and size on the screen.
    [[nodiscard]] QRect extents() const
    {
        constexpr uint ofTheScreen = 0;
        // The type of the reply is that of a QRect.
        return qdbus_cast<QRect>(ask("Component", "GetExtents", {ofTheScreen}));
    }

    /// Returns the first descendant, in tree order, for which the condition is true.
    using Condition = std::function<bool(const Accessible&)>;
    [[nodiscard]] Accessible find(const Condition& condition) const
    {
        for (const Accessible& child : children()) {
            if (condition(child)) return child;
            if (const Accessible found = child.find(condition)) return found;
        }
        return {};
    }

    /// Returns the visible descendants with this role and, if given, this name, or the first of them.
    [[nodiscard]] QList<Accessible> all(const char* role, const char* name = nullptr) const
    {
        QList<Accessible> found;
        (void)find([&](const Accessible& each) {
            if (each.isShown(role, name)) found.append(each);
            return false;
        });
        return found;
    }

    [[nodiscard]] Accessible find(const char* role, const char* name = nullptr) const
    {
        return find([&](const Accessible& each) { return each.isShown(role, name); });
    }

    /// Returns the text or the current choice.
    [[nodiscard]] QByteArray text() const { return ask("Text", "GetText", {0, -1}).toString().toUtf8(); }

    /// Replaces the text. Returns false if that fails.
    [[nodiscard]] bool setText(const QString& text) const
    {
        return ask("EditableText", "SetTextContents", {text}).toBool();
    }

    /// Triggers the first action of the control: presses a button, opens a menu. Does not wait for the reply,
    /// because a button that opens a dialog may reply only after the dialog is closed. Returns false if the
    /// control does not exist.
    [[nodiscard]] bool press() const
    {
        if (!*this) return false;
        object("Action").send("DoAction", {0});
        return true;
    }

    /// Returns this control and all descendants, one per line, for test messages.
    [[nodiscard]] QString outline(int depth = 0) const
    {
        QString lines(depth * 2, u' ');
        QDebug(&lines) << role() << name() << extents() << (has(State::showing) ? "" : "(not shown)");
        lines += u'\n';
        for (const Accessible& child : children())
            lines += child.outline(depth + 1);
        return lines;
    }

private:
    Accessible(const QDBusConnection& bus, const QString& service, const QString& path)
        : m_bus(bus), m_service(service), m_path(path)
    {
    }

    /// Returns the control with an interface of org.a11y.atspi.
    [[nodiscard]] RemoteObject object(const char* interface) const
    {
        return {m_bus, m_service, m_path, QString("org.a11y.atspi.") + interface};
    }

    /// Calls a method of org.a11y.atspi.`interface` and returns the first value of the reply.
    [[nodiscard]] QVariant ask(const char* interface, const char* method,
                               const QVariantList& arguments = {}) const
    {
        if (!*this) return {};
        const QDBusMessage answer = object(interface).call(method, arguments);
        return answer.type() == QDBusMessage::ReplyMessage ? answer.arguments().value(0) : QVariant();
    }

    [[nodiscard]] QByteArray property(const char* name) const
    {
        return *this ? object("Accessible").property(name).toString().toUtf8() : QByteArray();
    }

    QDBusConnection m_bus{QString()};
    QString m_service;
    QString m_path;
};

} // namespace harbex::test
