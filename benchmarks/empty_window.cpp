// The least that a Qt program with a window and an icon in the tray needs: what the memory of Harbex is
// measured against.

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
    // Drawn by the style: a bare desktop has no icon theme.
    QSystemTrayIcon icon(QApplication::style()->standardIcon(QStyle::SP_DirIcon));
    icon.setContextMenu(&menu);
    icon.show();
    window.show();
    return QApplication::exec();
}
