#include "ui/HeadingLabel.h"

#include <QAccessibleWidget>
#include <QApplication>
#include <QEvent>

namespace harbex
{

namespace
{

QAccessibleInterface* makeHeading(const QString& className, QObject* object)
{
    if (className != QLatin1String(HeadingLabel::staticMetaObject.className())) return nullptr;
    auto* label = static_cast<HeadingLabel*>(object);
    return new QAccessibleWidget(label, QAccessible::Heading, label->text());
}

} // namespace

HeadingLabel::HeadingLabel(const QString& text, qreal factor, QWidget* parent)
    : QLabel(text, parent), m_factor(factor)
{
    // Repeated calls have no effect.
    QAccessible::installFactory(makeHeading);
    setTextFormat(Qt::PlainText);
    followDesktopFont();
}

bool HeadingLabel::event(QEvent* event)
{
    const bool isHandled = QLabel::event(event);
    if (event->type() == QEvent::ApplicationFontChange) followDesktopFont();
    return isHandled;
}

void HeadingLabel::followDesktopFont()
{
    QFont font = QApplication::font(this);
    font.setBold(true);
    if (font.pixelSize() > 0)
        font.setPixelSize(qRound(font.pixelSize() * m_factor));
    else
        font.setPointSizeF(font.pointSizeF() * m_factor);
    setFont(font);
}

} // namespace harbex
