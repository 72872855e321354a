#include "support/TestMain.h"
#include "watcher/ActivityLog.h"

#include <QDateTime>
#include <QLocale>
#include <QRegularExpression>

using namespace harbex;

namespace
{

/// Returns the line of a log with this message only.
QString lineFor(const QString& message)
{
    ActivityLog log;
    log.add(message);
    return log.lines().value(0);
}

} // namespace

class TestActivityLog : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void aLineIsTheTimeAndTheMessageOnOneLine()
    {
        const QRegularExpression form(
            QStringLiteral("^\\[([01][0-9]|2[0-3]):[0-5][0-9]:[0-5][0-9]\\] a\\\\nb \u00e9%1\\]$"));
        // The language of the user has no effect.
        for (const QLocale& locale : {QLocale::c(), QLocale(QLocale::Arabic, QLocale::Egypt)}) {
            QLocale::setDefault(locale);
            const QString line = lineFor(QStringLiteral("a\nb \u00e9%1]"));
            QLocale::setDefault(QLocale::c());
            QVERIFY2(form.match(line).hasMatch(), qPrintable(line));
        }
    }

    void theTimeIsTheCurrentLocalTime()
    {
        const QByteArray zone = qgetenv("TZ");
        for (const int hour : {3, 15}) {
            // A time zone in which it is that hour now. Many machines use universal time, which would show
            // nothing.
            const int utcHour = QDateTime::currentDateTimeUtc().time().hour();
            const qint64 offset = (hour - utcHour + 36) % 24 - 12;
            const auto timeThere = [&] {
                const QDateTime there = QDateTime::currentDateTimeUtc().addSecs(offset * 3600);
                return there.toString(QStringLiteral("HH:mm:ss"));
            };
            qputenv("TZ", "HBX" + QByteArray::number(-offset));
            const QString before = timeThere();
            const QString logged = lineFor({}).mid(1, 8);
            const QString after = timeThere();
            zone.isNull() ? qunsetenv("TZ") : qputenv("TZ", zone);
            QVERIFY2(before <= logged && logged <= after, qPrintable(before + u' ' + logged + u' ' + after));
        }
    }

    void the200NewestLinesStayNewestFirst()
    {
        ActivityLog log;
        QStringList added;
        for (int number = 1; number <= 250; ++number) {
            added.prepend(QString::number(number));
            log.add(added.first());
            QStringList messages;
            for (const QString& line : log.lines())
                messages << line.section(u' ', 1);
            QCOMPARE(messages, added.mid(0, 200));
        }
    }
};

HARBEX_TEST(TestActivityLog)

#include "tst_ActivityLog.moc"
