#pragma once

#include <QLabel>

namespace harbex
{

/// A bold title, `factor` times as large as the desktop's font. Follows changes of that font. Screen readers
/// present it as a heading. Main thread only.
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
