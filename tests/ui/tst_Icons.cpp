#include "support/WindowTestMain.h"
#include "ui/Icons.h"

#include <QDir>
#include <QFile>
#include <QImage>
#include <QPainter>
#include <QPixmapCache>

using namespace harbex;

namespace
{

constexpr std::array allSymbols{Symbol::folder, Symbol::plus, Symbol::trash, Symbol::minusCircle};

QImage drawn(const QIcon& icon, qreal scale = 1, QIcon::Mode mode = QIcon::Normal)
{
    return icon.pixmap(QSize(16, 16), scale, mode).toImage().convertToFormat(QImage::Format_ARGB32);
}

/// The colour of the pixel that is painted most.
QColor inkOf(const QImage& image)
{
    QColor ink(Qt::transparent);
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x)
            if (image.pixelColor(x, y).alpha() > ink.alpha()) ink = image.pixelColor(x, y);
    return ink;
}

int paintedPixels(const QImage& image)
{
    int painted = 0;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x)
            if (image.pixelColor(x, y).alpha() > 127) ++painted;
    return painted;
}

} // namespace

class TestIcons : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();

    void everySymbolIsDrawnWithoutATheme();
    void noTwoSymbolsLookAlike();
    void aSymbolHasTheColourOfTheText();
    void aSymbolFollowsThePalette();
    void aSelectedSymbolHasTheColourOfSelectedText();
    void aDisabledSymbolHasTheColourOfDisabledText();
    void aSymbolPointedAtHasTheColourGivenForIt();
    void aSymbolIsSharpAtAnyScale();
    void theSymbolOfTheThemeIsPreferredAndColouredToo();
};

void TestIcons::init()
{
    QIcon::setThemeName(QStringLiteral("none"));
    QPixmapCache::clear();
    QApplication::setPalette(QPalette());
}

void TestIcons::everySymbolIsDrawnWithoutATheme()
{
    for (const Symbol symbol : allSymbols) {
        QVERIFY(!symbolIcon(symbol).isNull());
        const int painted = paintedPixels(drawn(symbolIcon(symbol)));
        QVERIFY2(painted > 15 && painted < 150, qPrintable(QString::number(painted)));
    }
}

void TestIcons::noTwoSymbolsLookAlike()
{
    for (const Symbol a : allSymbols)
        for (const Symbol b : allSymbols)
            QCOMPARE(drawn(symbolIcon(a)) == drawn(symbolIcon(b)), a == b);
}

void TestIcons::aSymbolHasTheColourOfTheText()
{
    for (const Symbol symbol : allSymbols)
        QCOMPARE(inkOf(drawn(symbolIcon(symbol))).rgb(),
                 QApplication::palette().color(QPalette::WindowText).rgb());
}

void TestIcons::aSymbolFollowsThePalette()
{
    const QIcon icon = symbolIcon(Symbol::folder);
    const QImage before = drawn(icon);
    QPalette palette;
    palette.setColor(QPalette::WindowText, Qt::yellow);
    QApplication::setPalette(palette);
    QCOMPARE(inkOf(drawn(icon)), QColor(Qt::yellow));
    QApplication::setPalette(QPalette());
    QCOMPARE(drawn(icon), before);
}

void TestIcons::aSelectedSymbolHasTheColourOfSelectedText()
{
    QPalette palette;
    palette.setColor(QPalette::HighlightedText, Qt::green);
    QApplication::setPalette(palette);
    QCOMPARE(inkOf(drawn(symbolIcon(Symbol::folder), 1, QIcon::Selected)), QColor(Qt::green));
}

void TestIcons::aDisabledSymbolHasTheColourOfDisabledText()
{
    QPalette palette;
    palette.setColor(QPalette::Disabled, QPalette::WindowText, Qt::cyan);
    QApplication::setPalette(palette);
    QCOMPARE(inkOf(drawn(symbolIcon(Symbol::folder), 1, QIcon::Disabled)), QColor(Qt::cyan));
}

void TestIcons::aSymbolPointedAtHasTheColourGivenForIt()
{
    QPalette palette;
    palette.setColor(QPalette::WindowText, Qt::blue);
    palette.setColor(QPalette::HighlightedText, Qt::red);
    QApplication::setPalette(palette);
    QCOMPARE(inkOf(drawn(symbolIcon(Symbol::trash), 1, QIcon::Active)), QColor(Qt::blue));
    const QIcon inMenu = symbolIcon(Symbol::trash, QPalette::HighlightedText);
    QCOMPARE(inkOf(drawn(inMenu, 1, QIcon::Active)), QColor(Qt::red));
    QCOMPARE(inkOf(drawn(inMenu)), QColor(Qt::blue));
}

void TestIcons::aSymbolIsSharpAtAnyScale()
{
    for (const Symbol symbol : allSymbols) {
        const QIcon icon = symbolIcon(symbol);
        for (const qreal scale : {1.0, 1.5, 2.0, 3.0}) {
            const QPixmap pixmap = icon.pixmap(QSize(16, 16), scale);
            QCOMPARE(pixmap.size(), QSize(16, 16) * scale);
            QCOMPARE(pixmap.devicePixelRatio(), scale);
        }
        // Drawn anew rather than enlarged, which only straight lines do not show.
        if (symbol != Symbol::plus) QVERIFY(drawn(icon, 2) != drawn(icon).scaled(32, 32));

        QImage canvas(32, 32, QImage::Format_ARGB32_Premultiplied);
        canvas.setDevicePixelRatio(2);
        canvas.fill(Qt::transparent);
        QPainter painter(&canvas);
        icon.paint(&painter, QRect(0, 0, 16, 16));
        painter.end();
        QCOMPARE(canvas.convertToFormat(QImage::Format_ARGB32), drawn(icon, 2));
    }
}

void TestIcons::theSymbolOfTheThemeIsPreferredAndColouredToo()
{
    const QString theme = QDir::homePath() + QStringLiteral("/icons/desk");
    QVERIFY(QDir().mkpath(theme + QStringLiteral("/symbolic")));
    const auto write = [&](const char* name, const char* content) {
        QFile file(theme + QLatin1Char('/') + QLatin1String(name));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(content);
    };
    write("index.theme", "[Icon Theme]\nName=Desk\nDirectories=symbolic\n[symbolic]\nSize=16\nType=Scalable\n"
                         "MinSize=8\nMaxSize=512\n");
    write("symbolic/folder-symbolic.svg", "<svg xmlns='http://www.w3.org/2000/svg' width='16' "
                                          "height='16'><rect width='16' height='16'/></svg>");
    QIcon::setThemeSearchPaths({QDir::homePath() + QStringLiteral("/icons")});
    QIcon::setThemeName(QStringLiteral("desk"));

    QPalette palette;
    palette.setColor(QPalette::WindowText, Qt::magenta);
    QApplication::setPalette(palette);
    const QImage folder = drawn(symbolIcon(Symbol::folder));
    QCOMPARE(paintedPixels(folder), 256);
    QCOMPARE(inkOf(folder), QColor(Qt::magenta));
    // What the theme lacks comes with the program.
    QVERIFY(paintedPixels(drawn(symbolIcon(Symbol::plus))) < 150);
}

HARBEX_WINDOW_TEST_MAIN(TestIcons)
#include "tst_Icons.moc"
