// Baseline for the memory of Harbex: the smallest Qt program with a window and a tray icon.

#include <QApplication>
#include <QMainWindow>
#include <QMenu>
#include <QStyle>
#include <QSystemTrayIcon>

int main(int argc, char** argv)
{
    QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    QMainWindow window;
    window.setWindowTitle(QStringLiteral("Empty"));
    QMenu menu;
    // Uses an icon of the style, because a bare desktop has no icon theme.
    QSystemTrayIcon icon(QApplication::style()->standardIcon(QStyle::SP_DirIcon));
    icon.setContextMenu(&menu);
    icon.show();
    window.show();
    return QApplication::exec();
}
