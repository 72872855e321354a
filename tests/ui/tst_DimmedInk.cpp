#include "support/WindowTestMain.h"
#include "ui/ColorScheme.h"
#include "ui/DimmedInk.h"

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

    void everyTextOfTheDarkPaletteIsReadable()
    {
        const QPalette palette = ColorScheme::darkPalette();
        const auto contrast = [&](QPalette::ColorRole text, QPalette::ColorRole ground,
                                  QPalette::ColorGroup group = QPalette::Active) {
            return contrastOf(palette.color(group, text), palette.color(ground));
        };
        QVERIFY(contrast(QPalette::WindowText, QPalette::Window) > 7);
        QVERIFY(contrast(QPalette::Text, QPalette::Base) > 7);
        QVERIFY(contrast(QPalette::Text, QPalette::AlternateBase) > 7);
        QVERIFY(contrast(QPalette::ButtonText, QPalette::Button) > 7);
        QVERIFY(contrast(QPalette::ToolTipText, QPalette::ToolTipBase) > 7);
        QVERIFY(contrast(QPalette::HighlightedText, QPalette::Highlight) > 4.5);
        QVERIFY(contrast(QPalette::PlaceholderText, QPalette::Base) > 4.5);
        QVERIFY(contrast(QPalette::Link, QPalette::Base) > 4.5);
        QVERIFY(contrast(QPalette::WindowText, QPalette::Window, QPalette::Disabled) > 3);
    }

    void dimmedTextIsReadableAndNotTakenForText()
    {
        const std::pair<const char*, const char*> schemes[] = {
            {"#000000", "#ffffff"}, // black on white
            {"#ffffff", "#000000"}, // white on black
            {"#232629", "#ffffff"}, // Breeze
            {"#fcfcfc", "#1b1e20"}, // Breeze Dark
            {"#2e3436", "#ffffff"}, // Adwaita
            {"#eeeeec", "#2d2d2d"}, // Adwaita Dark
            {"#f2f2f2", "#2a2b2e"}, // Fusion, dark
            {"#657b83", "#fdf6e3"}, // Solarized Light
            {"#839496", "#002b36"}, // Solarized Dark
            {"#dddddd", "#666666"}, // grey on grey
        };
        for (const auto& [ink, ground] : schemes) {
            const qreal contrast = contrastOf(dimmed(ink, ground), QColor(ground));
            QVERIFY2(contrast >= 3, ink);
            QVERIFY2(contrast < contrastOf(QColor(ink), QColor(ground)), ink);
        }
        QCOMPARE(dimmed("#999999", "#ffffff"), QColor(0x99, 0x99, 0x99)); // faint already
    }

private:
    static QColor dimmed(const char* ink, const char* ground)
    {
        QPalette palette;
        palette.setColor(QPalette::Text, QColor(ink));
        palette.setColor(QPalette::Base, QColor(ground));
        return dimmedInk(palette, QPalette::Text, QPalette::Base);
    }
};

HARBEX_WINDOW_TEST(TestDimmedInk)
#include "tst_DimmedInk.moc"
