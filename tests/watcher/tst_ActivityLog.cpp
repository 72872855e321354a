#include "support/TestMain.h"
#include "watcher/ActivityLog.h"

#include <QDateTime>
#include <QLocale>
#include <QRegularExpression>

#include <algorithm>

using namespace harbex;

namespace
{

/// The one line of a log with this message.
QString lineFor(const QString& message)
{
    ActivityLog log;
    log.add(message);
    return log.lines().value(0);
}

/// What stands behind the time.
QString messageOf(const QString& line)
{
    return line.mid(11);
}

} // namespace

class TestActivityLog : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void isEmptyAtFirst();
    void lineIsTheTimeAndTheMessage();
    void timeIsLocalAndOfNow_data();
    void timeIsLocalAndOfNow();
    void timeIsWrittenTheSameInEveryLanguage();
    void newestLineComesFirst();
    void of250LinesThe200NewestStay();
    void lineBeyondTheLimitPushesOutTheOldestOnly();
    void emptyMessageEndsBehindTheBracket();
    void controlCharactersAreEscapedToOneLine();
    void ordinaryTextStaysAsItIs();
};

void TestActivityLog::isEmptyAtFirst()
{
    QCOMPARE(ActivityLog().lines(), QStringList());
}

void TestActivityLog::lineIsTheTimeAndTheMessage()
{
    static const QRegularExpression form(QStringLiteral(
        "^\\[([01][0-9]|2[0-3]):[0-5][0-9]:[0-5][0-9]\\] Moved photo\\.jpg -> photo-1\\.jpg$"));
    const QString line = lineFor(QStringLiteral("Moved photo.jpg -> photo-1.jpg"));
    QVERIFY2(form.match(line).hasMatch(), qPrintable(line));
}

void TestActivityLog::timeIsLocalAndOfNow_data()
{
    QTest::addColumn<int>("hour");
    QTest::newRow("at night") << 3;
    QTest::newRow("in the afternoon") << 15;
}

void TestActivityLog::timeIsLocalAndOfNow()
{
    // In a zone where it is that hour now; many machines keep universal time, which would show nothing.
    QFETCH(const int, hour);
    const int utcHour = QDateTime::currentDateTimeUtc().time().hour();
    const qint64 offset = (hour - utcHour + 36) % 24 - 12;
    const auto timeThere = [&] {
        return QDateTime::currentDateTimeUtc().addSecs(offset * 3600).toString(QStringLiteral("HH:mm:ss"));
    };
    const QByteArray zone = qgetenv("TZ");
    qputenv("TZ", "HBX" + QByteArray::number(-offset));

    const QString before = timeThere();
    const QString logged = lineFor(QStringLiteral("x")).mid(1, 8);
    const QString after = timeThere();
    if (zone.isNull())
        qunsetenv("TZ");
    else
        qputenv("TZ", zone);
    QVERIFY2(before <= logged && logged <= after, qPrintable(before + u' ' + logged + u' ' + after));
}

void TestActivityLog::timeIsWrittenTheSameInEveryLanguage()
{
    static const QRegularExpression form(QStringLiteral("^\\[[0-9]{2}:[0-9]{2}:[0-9]{2}\\] x$"));
    QLocale::setDefault(QLocale(QLocale::Arabic, QLocale::Egypt));
    const QString line = lineFor(QStringLiteral("x"));
    QLocale::setDefault(QLocale::c());
    QVERIFY2(form.match(line).hasMatch(), qPrintable(line));
}

void TestActivityLog::newestLineComesFirst()
{
    ActivityLog log;
    log.add(QStringLiteral("first"));
    log.add(QStringLiteral("second"));
    log.add(QStringLiteral("third"));
    QCOMPARE(log.lines().size(), 3);
    QCOMPARE(messageOf(log.lines().at(0)), QStringLiteral("third"));
    QCOMPARE(messageOf(log.lines().at(1)), QStringLiteral("second"));
    QCOMPARE(messageOf(log.lines().at(2)), QStringLiteral("first"));
}

void TestActivityLog::of250LinesThe200NewestStay()
{
    ActivityLog log;
    for (int i = 1; i <= 250; ++i) {
        log.add(QStringLiteral("message %1").arg(i));
        QCOMPARE(log.lines().size(), std::min(i, 200));
    }
    for (int i = 0; i < 200; ++i)
        QCOMPARE(messageOf(log.lines().at(i)), QStringLiteral("message %1").arg(250 - i));
}

void TestActivityLog::lineBeyondTheLimitPushesOutTheOldestOnly()
{
    ActivityLog log;
    for (int i = 1; i <= 200; ++i)
        log.add(QString::number(i));
    QCOMPARE(messageOf(log.lines().last()), QStringLiteral("1"));
    log.add(QStringLiteral("201"));
    QCOMPARE(log.lines().size(), 200);
    QCOMPARE(messageOf(log.lines().first()), QStringLiteral("201"));
    QCOMPARE(messageOf(log.lines().last()), QStringLiteral("2"));
}

void TestActivityLog::emptyMessageEndsBehindTheBracket()
{
    const QString line = lineFor({});
    QVERIFY(line.endsWith(QStringLiteral("] ")));
    QCOMPARE(line.size(), 11);
}

void TestActivityLog::controlCharactersAreEscapedToOneLine()
{
    QCOMPARE(messageOf(lineFor(QStringLiteral("Moved a\nb\r\tc -> d"))),
             QStringLiteral("Moved a\\nb\\r\\tc -> d"));
    QCOMPARE(messageOf(lineFor(QStringLiteral("\x1b[2J"))), QStringLiteral("\\u{1b}[2J"));
    // Line and paragraph separators, and marks that turn the direction of what follows.
    const QString line = messageOf(lineFor(QStringLiteral("a\u2028b\u2029c\u0085d\u202ee\u2066f")));
    QCOMPARE(line, QStringLiteral("a\\u{2028}b\\u{2029}c\\u{85}d\\u{202e}e\\u{2066}f"));
}

void TestActivityLog::ordinaryTextStaysAsItIs()
{
    const QString message = QStringLiteral("Moved \u00e9\u65e5\u672c %1 [x] \\n \U0001f600.jpg -> ]");
    QCOMPARE(messageOf(lineFor(message)), message);
}

HARBEX_TEST_MAIN(TestActivityLog)

#include "tst_ActivityLog.moc"
