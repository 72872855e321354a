// The least that a Qt program with a window and an icon in the tray needs: what the memory of Harbex is
// measured against.

#include <QApplication>
#include <QIcon>
#include <QMainWindow>
#include <QMenu>
#include <QSystemTrayIcon>

int main(int argc, char** argv)
{
    QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    QMainWindow window;
    window.setWindowTitle(QStringLiteral("Empty"));
    QMenu menu;
    QSystemTrayIcon icon(QIcon::fromTheme(QStringLiteral("folder")));
    icon.setContextMenu(&menu);
    icon.show();
    window.show();
    return QApplication::exec();
}
