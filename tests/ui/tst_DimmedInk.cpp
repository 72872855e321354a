#include "ui/DimmedInk.h"

#include "support/WindowTestMain.h"

#include <cmath>

using namespace harbex;

class TestDimmedInk : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void contrastIsThatOfWcag()
    {
        QCOMPARE(contrastOf(Qt::black, Qt::white), 21.0);
        QCOMPARE(contrastOf(Qt::white, Qt::black), 21.0);
        QCOMPARE(contrastOf(Qt::red, Qt::red), 1.0);
        QVERIFY(std::abs(contrastOf(QColor(0x77, 0x77, 0x77), Qt::white) - 4.48) < 0.01);
    }

    void dimmedTextIsReadableAndNotTakenForText_data()
    {
        QTest::addColumn<QColor>("ink");
        QTest::addColumn<QColor>("ground");
        const auto row = [](const char* name, const char* ink, const char* ground) {
            QTest::newRow(name) << QColor(QLatin1String(ink)) << QColor(QLatin1String(ground));
        };
        row("black on white", "#000000", "#ffffff");
        row("white on black", "#ffffff", "#000000");
        row("Breeze", "#232629", "#ffffff");
        row("Breeze Dark", "#fcfcfc", "#1b1e20");
        row("Adwaita", "#2e3436", "#ffffff");
        row("Adwaita Dark", "#eeeeec", "#2d2d2d");
        row("Fusion, dark", "#f2f2f2", "#2a2b2e");
        row("Solarized Light", "#657b83", "#fdf6e3");
        row("Solarized Dark", "#839496", "#002b36");
        row("grey on grey", "#dddddd", "#666666");
    }

    void dimmedTextIsReadableAndNotTakenForText()
    {
        QFETCH(const QColor, ink);
        QFETCH(const QColor, ground);
        QPalette palette;
        palette.setColor(QPalette::Text, ink);
        palette.setColor(QPalette::Base, ground);
        const qreal contrast = contrastOf(dimmedInk(palette, QPalette::Text, QPalette::Base), ground);
        QVERIFY2(contrast >= 3, qPrintable(QString::number(contrast)));
        QVERIFY2(contrast < contrastOf(ink, ground), qPrintable(QString::number(contrast)));
    }

    void textThatIsFaintAlreadyStaysAsItIs()
    {
        QPalette palette;
        palette.setColor(QPalette::Text, QColor(0x99, 0x99, 0x99));
        palette.setColor(QPalette::Base, Qt::white);
        QCOMPARE(dimmedInk(palette, QPalette::Text, QPalette::Base), QColor(0x99, 0x99, 0x99));
    }
};

HARBEX_WINDOW_TEST(TestDimmedInk)
#include "tst_DimmedInk.moc"
