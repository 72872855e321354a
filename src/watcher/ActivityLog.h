#pragma once

#include <QString>
#include <QStringList>

namespace harbex
{

/// Log of the last 200 messages, newest first, in memory only. The window does not show it. Main thread only.
class ActivityLog
{
public:
    static constexpr qsizetype maximumLines = 200;

    /// Adds the line "[HH:mm:ss] " + `message` with the current local time. Escapes characters that would
    /// break or reorder the line.
    void add(const QString& message);

    [[nodiscard]] const QStringList& lines() const { return m_lines; }

private:
    QStringList m_lines;
};

} // namespace harbex
