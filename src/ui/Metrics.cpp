#include "ui/Metrics.h"

#include <QEvent>
#include <QFontInfo>
#include <QScreen>
#include <QStyle>

#include <algorithm>

namespace harbex
{

int scaledToFont(const QWidget& widget, int length)
{
    constexpr qreal normalSize = 12;
    const qreal size = QFontInfo(widget.font()).pixelSize();
    return qRound(length * std::max(1.0, size / normalSize));
}

QSize iconSizeFor(const QWidget& widget)
{
    const int edge = scaledToFont(widget, widget.style()->pixelMetric(QStyle::PM_SmallIconSize));
    return {edge, edge};
}

bool changesMetrics(const QEvent& event)
{
    return event.type() == QEvent::FontChange || event.type() == QEvent::StyleChange;
}

QSize availableSizeFor(const QWidget& widget)
{
    // The size of the frame is known only after the window is shown.
    constexpr QSize frame(16, 48);
    return widget.screen()->availableSize() - frame;
}

} // namespace harbex
