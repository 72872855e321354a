#pragma once

#include <QtTest>
#include <QtWidgets>

#include <vector>

namespace harbex::test
{

/// Shows the widget and waits until its window is the active one.
inline void activate(QWidget& widget)
{
    widget.show();
    widget.activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(widget.window()));
}

/// Returns what assistive technology sees of the widget.
inline QAccessibleInterface& accessible(QWidget* widget)
{
    return *QAccessible::queryAccessibleInterface(widget);
}

/// Returns the name that assistive technology reads.
inline QString accessibleName(QWidget* widget)
{
    return accessible(widget).text(QAccessible::Name);
}

struct Pixel {
    QPoint place;
    QColor color;
};

/// Returns the pixels of an image, column by column from the left.
inline std::vector<Pixel> pixelsOf(const QImage& image)
{
    std::vector<Pixel> pixels;
    for (int x = 0; x < image.width(); ++x)
        for (int y = 0; y < image.height(); ++y)
            pixels.push_back({QPoint(x, y), image.pixelColor(x, y)});
    return pixels;
}

} // namespace harbex::test
