#pragma once

#include <QToolButton>

namespace harbex
{

/// A button without a frame. It can be reached by keyboard and shows that it was. Main thread only.
class FlatButton : public QToolButton
{
    Q_OBJECT

public:
    explicit FlatButton(QWidget* parent = nullptr);

protected:
    void paintEvent(QPaintEvent* event) override;
};

} // namespace harbex
