#include "ui/DimmedInk.h"

#include <algorithm>
#include <cmath>

namespace harbex
{

namespace
{

qreal luminanceOf(const QColor& color)
{
    const auto linear = [](qreal value) {
        return value <= 0.04045 ? value / 12.92 : std::pow((value + 0.055) / 1.055, 2.4);
    };
    return 0.2126 * linear(color.redF()) + 0.7152 * linear(color.greenF()) + 0.0722 * linear(color.blueF());
}

QColor blend(const QColor& ink, const QColor& ground, float share)
{
    const auto mix = [share](float a, float b) { return a * share + b * (1 - share); };
    return QColor::fromRgbF(mix(ink.redF(), ground.redF()), mix(ink.greenF(), ground.greenF()),
                            mix(ink.blueF(), ground.blueF()));
}

} // namespace

QColor dimmedInk(const QPalette& palette, QPalette::ColorRole ink, QPalette::ColorRole ground)
{
    constexpr int preferredPercent = 60;
    constexpr qreal leastContrast = 3;
    const QColor full = palette.color(ink);
    const QColor behind = palette.color(ground);
    for (int percent = preferredPercent; percent < 100; percent += 5) {
        const QColor dimmed = blend(full, behind, static_cast<float>(percent) / 100);
        if (contrastOf(dimmed, behind) >= leastContrast) return dimmed;
    }
    return full;
}

qreal contrastOf(const QColor& a, const QColor& b)
{
    const qreal first = luminanceOf(a) + 0.05;
    const qreal second = luminanceOf(b) + 0.05;
    return std::max(first, second) / std::min(first, second);
}

} // namespace harbex
