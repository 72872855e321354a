#pragma once

#include <QLabel>

namespace harbex
{

/// A title in bold, larger than the desktop's font by a factor and larger again when that font changes.
/// Screen readers present it as a heading. Main thread only.
class HeadingLabel : public QLabel
{
    Q_OBJECT

public:
    HeadingLabel(const QString& text, qreal factor, QWidget* parent = nullptr);

protected:
    bool event(QEvent* event) override;

private:
    void followDesktopFont();

    qreal m_factor;
};

} // namespace harbex
