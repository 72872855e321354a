#include "ui/MainWindow.h"

#include "ui/ContentState.h"
#include "ui/ContentView.h"

#include <QCloseEvent>

namespace harbex
{

MainWindow::MainWindow(ContentState& state) : m_state(state)
{
    setWindowTitle(QStringLiteral("Harbex"));
    setCentralWidget(new ContentView(state, this));
}

void MainWindow::open()
{
    if (!isVisible()) m_state.appear();
    show();
    raise();
    activateWindow();
}

void MainWindow::closeEvent(QCloseEvent* event)
{
    QMainWindow::closeEvent(event);
    m_state.disappear();
}

} // namespace harbex
