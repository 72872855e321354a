#include "ui/Picker.h"

#include <QAbstractItemView>
#include <QAccessibleWidget>
#include <QWheelEvent>

namespace harbex
{

namespace
{

/// The accessible interface. Qt's own presents the current choice as the name on Linux, and does not expose
/// the title. Here the title is the name, and the current choice is the text.
class AccessiblePicker : public QAccessibleWidget, public QAccessibleTextInterface
{
public:
    explicit AccessiblePicker(Picker* picker) : QAccessibleWidget(picker, QAccessible::ComboBox) {}

    [[nodiscard]] QString text(QAccessible::Text kind) const override
    {
        return kind == QAccessible::Value ? choice() : QAccessibleWidget::text(kind);
    }

    [[nodiscard]] QAccessible::State state() const override
    {
        QAccessible::State state = QAccessibleWidget::state();
        state.expandable = true;
        state.expanded = list()->isVisible();
        return state;
    }

    // The only child is the pop-up list.
    [[nodiscard]] int childCount() const override { return 1; }
    [[nodiscard]] QAccessibleInterface* child(int index) const override
    {
        return index == 0 ? QAccessible::queryAccessibleInterface(list()) : nullptr;
    }
    [[nodiscard]] QAccessibleInterface* childAt(int /*x*/, int /*y*/) const override { return nullptr; }
    int indexOfChild(const QAccessibleInterface* child) const override
    {
        return child->object() == list() ? 0 : -1;
    }

    [[nodiscard]] QStringList actionNames() const override { return {showMenuAction(), pressAction()}; }
    void doAction(const QString& actionName) override
    {
        if (!actionNames().contains(actionName)) return;
        if (list()->isVisible())
            picker()->hidePopup();
        else
            picker()->showPopup();
    }

    void* interface_cast(QAccessible::InterfaceType type) override
    {
        if (type == QAccessible::TextInterface) return static_cast<QAccessibleTextInterface*>(this);
        return QAccessibleWidget::interface_cast(type);
    }

    // Read-only text.
    [[nodiscard]] QString text(int start, int end) const override { return choice().mid(start, end - start); }
    [[nodiscard]] int characterCount() const override { return static_cast<int>(choice().size()); }
    void selection(int /*index*/, int* start, int* end) const override { *start = *end = 0; }
    [[nodiscard]] int selectionCount() const override { return 0; }
    void addSelection(int /*start*/, int /*end*/) override {}
    void removeSelection(int /*index*/) override {}
    void setSelection(int /*index*/, int /*start*/, int /*end*/) override {}
    [[nodiscard]] int cursorPosition() const override { return 0; }
    void setCursorPosition(int /*position*/) override {}
    [[nodiscard]] QRect characterRect(int /*offset*/) const override { return rect(); }
    [[nodiscard]] int offsetAtPoint(const QPoint& /*point*/) const override { return -1; }
    void scrollToSubstring(int /*start*/, int /*end*/) override {}
    QString attributes(int /*offset*/, int* start, int* end) const override
    {
        *start = 0;
        *end = characterCount();
        return {};
    }

private:
    [[nodiscard]] Picker* picker() const { return static_cast<Picker*>(object()); }
    [[nodiscard]] QAbstractItemView* list() const { return picker()->view(); }
    [[nodiscard]] QString choice() const { return picker()->currentText(); }
};

QAccessibleInterface* makeAccessible(const QString& className, QObject* object)
{
    if (className != QLatin1String(Picker::staticMetaObject.className())) return nullptr;
    return new AccessiblePicker(static_cast<Picker*>(object));
}

} // namespace

Picker::Picker(const QString& title, QWidget* parent) : QComboBox(parent)
{
    // Repeated calls have no effect.
    QAccessible::installFactory(makeAccessible);
    setAccessibleName(title);
}

void Picker::wheelEvent(QWheelEvent* event)
{
    event->ignore();
}

} // namespace harbex
