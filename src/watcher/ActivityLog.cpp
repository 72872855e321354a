#include "watcher/ActivityLog.h"

#include "base/ReadableText.h"

#include <QTime>

namespace harbex
{

void ActivityLog::add(const QString& message)
{
    const QString time = QTime::currentTime().toString(QStringLiteral("HH:mm:ss"));
    m_lines.prepend(u'[' + time + QStringLiteral("] ") + readableText(message));
    while (m_lines.size() > maximumLines)
        m_lines.removeLast();
}

} // namespace harbex
