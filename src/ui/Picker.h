#pragma once

#include <QComboBox>

namespace harbex
{

/// A pop-up menu that shows the current choice and has a hidden title. It leaves the wheel to the list around
/// it: who scrolls past it must not change a rule. Main thread only.
class Picker : public QComboBox
{
    Q_OBJECT

public:
    /// `title` is the name under which assistive technology presents it.
    Picker(const QString& title, QWidget* parent);

protected:
    void wheelEvent(QWheelEvent* event) override;
};

} // namespace harbex
