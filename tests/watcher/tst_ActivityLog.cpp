#include "support/TestMain.h"
#include "watcher/ActivityLog.h"

#include <QDateTime>
#include <QLocale>
#include <QRegularExpression>

#include <algorithm>

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

QString messageOf(const QString& line)
{
    return line.mid(QStringLiteral("[00:00:00] ").size());
}

} // namespace

class TestActivityLog : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void aLineIsTheTimeAndTheMessage_data()
    {
        QTest::addColumn<QString>("message");
        QTest::addColumn<QString>("shown");
        const auto row = [](const char* name, const QString& message, const QString& shown) {
            QTest::newRow(name) << message << shown;
        };
        const QString text = QStringLiteral("Moved \u00e9\u65e5\u672c %1 [x] \\n \U0001f600.jpg -> ]");
        row("ordinary text", text, text);
        row("empty", {}, {});
        row("control characters", QStringLiteral("a\nb\r\tc\x1b[2J"),
            QStringLiteral("a\\nb\\r\\tc\\u{1b}[2J"));
        row("separators and marks of direction", QStringLiteral("a\u2028b\u2029c\u0085d\u202ee\u2066f"),
            QStringLiteral("a\\u{2028}b\\u{2029}c\\u{85}d\\u{202e}e\\u{2066}f"));
    }

    void aLineIsTheTimeAndTheMessage()
    {
        QFETCH(const QString, message);
        QFETCH(const QString, shown);
        const QRegularExpression form(QStringLiteral("^\\[([01][0-9]|2[0-3]):[0-5][0-9]:[0-5][0-9]\\] ") +
                                      QRegularExpression::escape(shown) + u'$');
        const QString line = lineFor(message);
        QLocale::setDefault(QLocale(QLocale::Arabic, QLocale::Egypt));
        const QString lineInOtherLanguage = lineFor(message);
        QLocale::setDefault(QLocale::c());
        QVERIFY2(form.match(line).hasMatch(), qPrintable(line));
        QVERIFY2(form.match(lineInOtherLanguage).hasMatch(), qPrintable(lineInOtherLanguage));
    }

    void theTimeIsTheCurrentLocalTime_data()
    {
        QTest::addColumn<int>("hour");
        QTest::newRow("at night") << 3;
        QTest::newRow("in the afternoon") << 15;
    }

    void theTimeIsTheCurrentLocalTime()
    {
        // A time zone in which it is that hour now. Many machines use universal time, which would show
        // nothing.
        QFETCH(const int, hour);
        const int utcHour = QDateTime::currentDateTimeUtc().time().hour();
        const qint64 offset = (hour - utcHour + 36) % 24 - 12;
        const auto timeThere = [&] {
            const QDateTime there = QDateTime::currentDateTimeUtc().addSecs(offset * 3600);
            return there.toString(QStringLiteral("HH:mm:ss"));
        };
        const QByteArray zone = qgetenv("TZ");
        qputenv("TZ", "HBX" + QByteArray::number(-offset));
        const QString before = timeThere();
        const QString logged = lineFor({}).mid(1, 8);
        const QString after = timeThere();
        if (zone.isNull())
            qunsetenv("TZ");
        else
            qputenv("TZ", zone);
        QVERIFY2(before <= logged && logged <= after, qPrintable(before + u' ' + logged + u' ' + after));
    }

    void the200NewestLinesStayNewestFirst()
    {
        ActivityLog log;
        QCOMPARE(log.lines(), QStringList());
        for (int added = 1; added <= 250; ++added) {
            log.add(QString::number(added));
            const int size = std::min(added, 200);
            QCOMPARE(log.lines().size(), size);
            for (int i = 0; i < size; ++i)
                QCOMPARE(messageOf(log.lines().at(i)), QString::number(added - i));
        }
    }
};

HARBEX_TEST(TestActivityLog)

#include "tst_ActivityLog.moc"
