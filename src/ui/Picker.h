#pragma once

#include <QComboBox>

namespace harbex
{

/// A combo box whose title is visible only to assistive technology. Ignores the wheel, so that scrolling the
/// list around it does not change a rule. Main thread only.
class Picker : public QComboBox
{
    Q_OBJECT

public:
    /// `title` is the accessible name.
    Picker(const QString& title, QWidget* parent);

protected:
    void wheelEvent(QWheelEvent* event) override;
};

} // namespace harbex
