#include "support/Widgets.h"
#include "support/WindowTestMain.h"
#include "ui/Icons.h"

using namespace harbex;
using namespace harbex::test;

namespace
{

constexpr std::array allSymbols{Symbol::folder, Symbol::plus, Symbol::trash, Symbol::minusCircle};

QImage drawn(const QIcon& icon, qreal scale = 1, QIcon::Mode mode = QIcon::Normal)
{
    return icon.pixmap(QSize(16, 16), scale, mode).toImage().convertToFormat(QImage::Format_ARGB32);
}

/// Returns the colour of the most opaque pixel.
QColor inkOf(const QImage& image)
{
    return std::ranges::max(pixelsOf(image), {}, [](const Pixel& each) { return each.color.alpha(); }).color;
}

qsizetype paintedPixels(const QImage& image)
{
    return std::ranges::count_if(pixelsOf(image), [](const Pixel& each) { return each.color.alpha() > 127; });
}

} // namespace

class TestIcons : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        QIcon::setThemeName("none");
        QPixmapCache::clear();
        QApplication::setPalette(QPalette());
    }

    void everySymbolIsDrawnWithoutATheme()
    {
        for (const Symbol symbol : allSymbols) {
            const QIcon icon = symbolIcon(symbol);
            QVERIFY(!icon.isNull());
            const qsizetype painted = paintedPixels(drawn(icon));
            QVERIFY2(painted > 15 && painted < 150, qPrintable(QString::number(painted)));
            QCOMPARE(inkOf(drawn(icon)).rgb(), QApplication::palette().color(QPalette::WindowText).rgb());
            for (const Symbol other : allSymbols)
                QCOMPARE(drawn(icon) == drawn(symbolIcon(other)), symbol == other);
        }
    }

    void aSymbolHasTheColourOfItsModeInTheCurrentPalette()
    {
        const QIcon icon = symbolIcon(Symbol::trash);
        const QIcon inMenu = symbolIcon(Symbol::trash, QPalette::HighlightedText);
        const QImage before = drawn(icon);
        QPalette palette;
        palette.setColor(QPalette::WindowText, Qt::blue);
        palette.setColor(QPalette::Disabled, QPalette::WindowText, Qt::cyan);
        palette.setColor(QPalette::HighlightedText, Qt::red);
        QApplication::setPalette(palette);
        QCOMPARE(inkOf(drawn(icon)), QColor(Qt::blue));
        QCOMPARE(inkOf(drawn(icon, 1, QIcon::Disabled)), QColor(Qt::cyan));
        QCOMPARE(inkOf(drawn(icon, 1, QIcon::Selected)), QColor(Qt::red));
        QCOMPARE(inkOf(drawn(icon, 1, QIcon::Active)), QColor(Qt::blue));
        QCOMPARE(inkOf(drawn(inMenu, 1, QIcon::Active)), QColor(Qt::red));
        QCOMPARE(inkOf(drawn(inMenu)), QColor(Qt::blue));
        QApplication::setPalette(QPalette());
        QCOMPARE(drawn(icon), before);
    }

    void aSymbolIsSharpAtAnyScale()
    {
        for (const Symbol symbol : allSymbols) {
            const QIcon icon = symbolIcon(symbol);
            for (const qreal scale : {1.0, 1.5, 2.0, 3.0}) {
                const QPixmap pixmap = icon.pixmap(QSize(16, 16), scale);
                QCOMPARE(pixmap.size(), QSize(16, 16) * scale);
                QCOMPARE(pixmap.devicePixelRatio(), scale);
            }
            // A symbol is not an enlarged image. The lines of a plus look the same either way.
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

    void theSymbolsOfTheThemeArePreferredIfItHasAllOfThem()
    {
        const QString theme = QDir::homePath() + "/icons/desk";
        QVERIFY(QDir().mkpath(theme + "/symbolic"));
        const auto write = [&](const char* name, const char* content) {
            QFile file(theme + u'/' + name);
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write(content);
        };
        write("index.theme",
              "[Icon Theme]\nName=Desk\nDirectories=symbolic\n[symbolic]\nSize=16\nType=Scalable\n"
              "MinSize=8\nMaxSize=512\n");
        const auto addSymbol = [&](const char* name) {
            write(qPrintable(QString("symbolic/%1-symbolic.svg").arg(name)),
                  "<svg xmlns='http://www.w3.org/2000/svg' width='16' height='16'><rect width='16' "
                  "height='16'/></svg>");
            // Qt reads a theme once.
            QIcon::setThemeName({});
            QPixmapCache::clear();
            QIcon::setThemeSearchPaths({QDir::homePath() + "/icons"});
            QIcon::setThemeName("desk");
        };
        QPalette palette;
        palette.setColor(QPalette::WindowText, Qt::magenta);
        QApplication::setPalette(palette);
        for (const char* name : {"folder", "list-add", "user-trash"}) {
            addSymbol(name);
            // Symbols of two sets do not stand side by side.
            QVERIFY(paintedPixels(drawn(symbolIcon(Symbol::folder))) < 150);
        }
        addSymbol("list-remove");
        for (const Symbol symbol : allSymbols) {
            const QImage image = drawn(symbolIcon(symbol));
            QCOMPARE(paintedPixels(image), 256);
            QCOMPARE(inkOf(image), QColor(Qt::magenta));
        }
    }
};

HARBEX_WINDOW_TEST(TestIcons)
#include "tst_Icons.moc"
