#pragma once

#include <QMainWindow>

namespace harbex
{

class ContentState;

/// The one main window. It appears when it is opened and disappears when it is closed; minimising it, another
/// desktop or a locked screen are neither. Main thread only; `state` must live longer.
class MainWindow : public QMainWindow
{
    Q_OBJECT

public:
    explicit MainWindow(ContentState& state);

    /// Opens the window, or brings it to the front when it is open.
    void open();

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    ContentState& m_state;
};

} // namespace harbex
