#pragma once

#include <QByteArray>
#include <QDBusConnection>
#include <QList>
#include <QRect>
#include <QString>
#include <QVariantList>

#include <functional>

namespace harbex::test
{

/// A control of another program, accessed over the accessibility bus. Nothing is cached. If the control does
/// not exist, queries return empty values and actions have no effect. Texts are UTF-8.
class Accessible
{
public:
    /// Accessibility states, with the numbers of the AT-SPI protocol.
    enum class State { active = 1, focused = 12, selected = 23, showing = 25 };

    Accessible() = default;

    /// Returns the root of the accessibility tree. Its children are the running programs.
    static Accessible desktop(const QDBusConnection& bus);

    explicit operator bool() const { return !m_service.isEmpty(); }
    friend bool operator==(const Accessible& a, const Accessible& b)
    {
        return a.m_service == b.m_service && a.m_path == b.m_path;
    }

    [[nodiscard]] QByteArray name() const;
    [[nodiscard]] QByteArray description() const;
    /// For example "push button", "combo box", "text", "list item", "menu item", "frame".
    [[nodiscard]] QByteArray role() const;
    [[nodiscard]] bool has(State state) const;
    /// Returns whether the control is visible and has the role and, if given, the name.
    [[nodiscard]] bool isShown(const char* ofRole, const char* ofName = nullptr) const;
    [[nodiscard]] QList<Accessible> children() const;
    /// Returns the position and size on the screen.
    [[nodiscard]] QRect extents() const;

    /// Returns the first descendant, in tree order, for which the condition is true.
    using Condition = std::function<bool(const Accessible&)>;
    [[nodiscard]] Accessible find(const Condition& condition) const;
    /// Returns the visible descendants with this role and, if given, this name, or the first of them.
    [[nodiscard]] QList<Accessible> all(const char* role, const char* name = nullptr) const;
    [[nodiscard]] Accessible find(const char* role, const char* name = nullptr) const;

    /// Returns the text or the current choice.
    [[nodiscard]] QByteArray text() const;
    /// Replaces the text. Returns false if that fails.
    [[nodiscard]] bool setText(const QString& text) const;
    /// Triggers the first action of the control: presses a button, opens a menu. Does not wait for the reply,
    /// because a button that opens a dialog may reply only after the dialog is closed. Returns false if the
    /// control does not exist.
    [[nodiscard]] bool press() const;
    /// Sets the keyboard focus. Returns false if that fails.
    [[nodiscard]] bool takeFocus() const;

    /// Returns this control and all descendants, one per line, for test messages.
    [[nodiscard]] QString outline(int depth = 0) const;

private:
    Accessible(const QDBusConnection& bus, const QString& service, const QString& path)
        : m_bus(bus), m_service(service), m_path(path)
    {
    }

    /// Calls a method of org.a11y.atspi.`interface` and returns the first value of the reply.
    [[nodiscard]] QVariant ask(const char* interface, const char* method,
                               const QVariantList& arguments = {}) const;
    [[nodiscard]] QByteArray property(const char* name) const;
    void collect(const Condition& condition, bool isOneEnough, QList<Accessible>& found) const;

    QDBusConnection m_bus{QString()};
    QString m_service;
    QString m_path;
};

} // namespace harbex::test
