#include "ui/Icons.h"

#include <QGuiApplication>
#include <QIconEngine>
#include <QImage>
#include <QLibraryInfo>
#include <QPainter>
#include <QPalette>
#include <QPixmapCache>
#include <QSvgRenderer>
#include <QVersionNumber>

#include <algorithm>
#include <array>

// Without this call the linker drops the resources of a static library. Q_INIT_RESOURCE must be outside of
// all namespaces.
static void initResources()
{
    Q_INIT_RESOURCE(icons);
}

namespace harbex
{

namespace
{

struct IconSource {
    /// The name in the desktop's theme.
    QString themeName;
    QString resource;
};

IconSource iconSourceOf(Symbol symbol)
{
    switch (symbol) {
    case Symbol::folder:
        return {QStringLiteral("folder-symbolic"), QStringLiteral(":/icons/folder.svg")};
    case Symbol::plus:
        return {QStringLiteral("list-add-symbolic"), QStringLiteral(":/icons/plus.svg")};
    case Symbol::trash:
        return {QStringLiteral("user-trash-symbolic"), QStringLiteral(":/icons/trash.svg")};
    case Symbol::minusCircle:
        return {QStringLiteral("list-remove-symbolic"), QStringLiteral(":/icons/minus-circle.svg")};
    }
    Q_UNREACHABLE();
}

/// Returns whether the desktop's theme has all symbols. Symbols of two sets side by side look careless.
bool hasThemeAllSymbols()
{
    return std::ranges::all_of(std::array{Symbol::folder, Symbol::plus, Symbol::trash, Symbol::minusCircle},
                               [](Symbol each) { return QIcon::hasThemeIcon(iconSourceOf(each).themeName); });
}

/// Draws the shape of a symbol in one colour of the current palette. A symbolic icon is black, and Qt does
/// not recolour it for dark backgrounds.
class SymbolEngine : public QIconEngine
{
public:
    SymbolEngine(Symbol symbol, QPalette::ColorRole activeInk, QPalette::ColorGroup group)
        : m_symbol(symbol), m_activeInk(activeInk), m_group(group)
    {
    }

    void paint(QPainter* painter, const QRect& rect, QIcon::Mode mode, QIcon::State /*state*/) override
    {
        const qreal scale = painter->device()->devicePixelRatioF();
        painter->drawPixmap(rect, inked(pixelsOf(rect.size(), scale), mode, scale));
    }

    QPixmap pixmap(const QSize& size, QIcon::Mode mode, QIcon::State /*state*/) override
    {
        return inked(size, mode, 1.0);
    }

    /// `size` is in device-independent pixels; before Qt 6.8 in device pixels.
    QPixmap scaledPixmap(const QSize& size, QIcon::Mode mode, QIcon::State /*state*/, qreal scale) override
    {
        const bool isInPixels = QLibraryInfo::version() < QVersionNumber(6, 8);
        return inked(isInPixels ? size : pixelsOf(size, scale), mode, scale);
    }

    [[nodiscard]] QIconEngine* clone() const override
    {
        return new SymbolEngine(m_symbol, m_activeInk, m_group);
    }

    bool isNull() override { return false; }

private:
    [[nodiscard]] static QSize pixelsOf(const QSize& size, qreal scale)
    {
        return (QSizeF(size) * scale).toSize();
    }

    /// `size` is in device pixels. `scale` is the device pixel ratio.
    [[nodiscard]] QPixmap inked(const QSize& size, QIcon::Mode mode, qreal scale) const
    {
        const QColor ink = inkFor(mode);
        const QString key = QStringLiteral("harbex-symbol %1 %2 %3x%4 %5 %6")
                                .arg(static_cast<int>(m_symbol))
                                .arg(QIcon::themeName())
                                .arg(size.width())
                                .arg(size.height())
                                .arg(scale)
                                .arg(ink.rgba(), 0, 16);
        QPixmap pixmap;
        if (QPixmapCache::find(key, &pixmap)) return pixmap;
        pixmap = QPixmap::fromImage(draw(size, scale, ink));
        QPixmapCache::insert(key, pixmap);
        return pixmap;
    }

    [[nodiscard]] QColor inkFor(QIcon::Mode mode) const
    {
        const QPalette palette = QGuiApplication::palette();
        switch (mode) {
        case QIcon::Disabled:
            return palette.color(QPalette::Disabled, QPalette::WindowText);
        case QIcon::Selected:
            return palette.color(m_group, QPalette::HighlightedText);
        case QIcon::Active:
            return palette.color(m_group, m_activeInk);
        case QIcon::Normal:
            break;
        }
        return palette.color(m_group, QPalette::WindowText);
    }

    [[nodiscard]] QImage draw(const QSize& size, qreal scale, const QColor& ink) const
    {
        QImage image(size, QImage::Format_ARGB32_Premultiplied);
        image.fill(Qt::transparent);
        image.setDevicePixelRatio(scale);
        QPainter painter(&image);
        const QRectF area(QPointF(), QSizeF(size) / scale);
        const IconSource source = iconSourceOf(m_symbol);
        if (hasThemeAllSymbols())
            QIcon::fromTheme(source.themeName).paint(&painter, area.toRect());
        else
            QSvgRenderer(source.resource).render(&painter, area);
        painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
        painter.fillRect(area, ink);
        return image;
    }

    Symbol m_symbol;
    QPalette::ColorRole m_activeInk;
    QPalette::ColorGroup m_group;
};

} // namespace

QIcon symbolIcon(Symbol symbol, QPalette::ColorRole activeInk, QPalette::ColorGroup group)
{
    initResources();
    return QIcon(new SymbolEngine(symbol, activeInk, group));
}

} // namespace harbex
