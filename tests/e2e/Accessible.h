#pragma once

#include <QDBusConnection>
#include <QList>
#include <QRect>
#include <QString>

#include <functional>

namespace harbex::test
{

/// A control of another program as assistive technology finds it: asked over the accessibility bus, nothing
/// is remembered. One that does not exist, or no longer does, answers with empty values and does nothing.
class Accessible
{
public:
    /// The states that tests ask for, numbered as the accessibility interface numbers them.
    enum class State { active = 1, checked = 4, enabled = 8, focused = 12, selected = 23, showing = 25 };

    Accessible() = default;

    /// Whatever runs on that bus: its children are the programs.
    static Accessible desktop(const QDBusConnection& bus);

    explicit operator bool() const { return !m_service.isEmpty(); }
    friend bool operator==(const Accessible& a, const Accessible& b)
    {
        return a.m_service == b.m_service && a.m_path == b.m_path;
    }

    [[nodiscard]] QString name() const;
    [[nodiscard]] QString description() const;
    /// "push button", "combo box", "text", "list item", "menu item", "frame", ...
    [[nodiscard]] QString role() const;
    [[nodiscard]] bool has(State state) const;
    /// Whether it is seen and has the role and, if one is given, the name.
    [[nodiscard]] bool isShown(const QString& ofRole, const QString& ofName = {}) const;
    [[nodiscard]] QList<Accessible> children() const;
    /// Where it is on the screen.
    [[nodiscard]] QRect extents() const;

    /// All below this one of which the condition holds, in order, or the first of them.
    using Condition = std::function<bool(const Accessible&)>;
    [[nodiscard]] QList<Accessible> all(const Condition& condition) const;
    [[nodiscard]] Accessible find(const Condition& condition) const;
    /// The same for those that are seen and have the role and, if one is given, the name.
    [[nodiscard]] QList<Accessible> all(const QString& role, const QString& name = {}) const;
    [[nodiscard]] Accessible find(const QString& role, const QString& name = {}) const;

    /// The text in it or its current choice.
    [[nodiscard]] QString text() const;
    /// Replaces the text. Whether it could.
    [[nodiscard]] bool setText(const QString& text) const;
    /// Does what it does first: a button is pressed, a menu opened. Does not wait for it: a button that opens
    /// a dialog may answer only when that is closed. Whether there is anything to press.
    [[nodiscard]] bool press() const;
    /// Does that of its actions. Whether it has it.
    [[nodiscard]] bool act(const QString& action) const;
    /// Moves the keyboard's attention there. Whether it could.
    [[nodiscard]] bool takeFocus() const;

    /// Everything below, one line each, for a message.
    [[nodiscard]] QString outline(int depth = 0) const;

private:
    Accessible(const QDBusConnection& bus, const QString& service, const QString& path)
        : m_bus(bus), m_service(service), m_path(path)
    {
    }

    [[nodiscard]] QVariantList ask(const QString& interface, const QString& method,
                                   const QVariantList& arguments = {}) const;
    [[nodiscard]] QVariant property(const QString& interface, const QString& name) const;
    void collect(const Condition& condition, bool isOneEnough, QList<Accessible>& found) const;

    QDBusConnection m_bus{QString()};
    QString m_service;
    QString m_path;
};

} // namespace harbex::test
