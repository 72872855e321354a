#pragma once

#include <QString>
#include <QStringList>

namespace harbex
{

/// The last 200 things that were done, newest first, in memory only. Belongs to one thread.
class ActivityLog
{
public:
    static constexpr qsizetype maximumLines = 200;

    /// Adds "[HH:mm:ss] " + `message` with the local time of now; what would break the line is escaped.
    void add(const QString& message);

    [[nodiscard]] const QStringList& lines() const { return m_lines; }

private:
    QStringList m_lines;
};

} // namespace harbex
