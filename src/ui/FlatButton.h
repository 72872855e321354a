#pragma once

#include <QToolButton>

namespace harbex
{

/// A button without a frame. It takes the keyboard focus and draws a focus ring. Main thread only.
class FlatButton : public QToolButton
{
    Q_OBJECT

public:
    explicit FlatButton(QWidget* parent = nullptr);

protected:
    void paintEvent(QPaintEvent* event) override;
};

} // namespace harbex
