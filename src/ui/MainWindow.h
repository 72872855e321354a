#pragma once

#include <QMainWindow>
#include <QString>

namespace harbex
{

class ContentState;

/// The one main window. It appears when it is opened and disappears when it is closed; minimising it, another
/// desktop or a locked screen are neither, and neither is the end of the program. Each opening begins with
/// the same size. Main thread only; `state` must live longer.
class MainWindow : public QMainWindow
{
    Q_OBJECT

public:
    explicit MainWindow(ContentState& state);

    /// Opens the window, or brings it to the front when it is open, minimised or behind others. The token is
    /// what allows this under Wayland, and what names the start that has asked under X11, which is then over;
    /// empty when whoever asks has none.
    void open(const QString& activationToken = {});

protected:
    void closeEvent(QCloseEvent* event) override;
    void showEvent(QShowEvent* event) override;

private:
    /// Has nothing left of a closed window: it may stay closed for weeks.
    void releaseContent();

    ContentState& m_state;
    bool m_isOpen = false;
};

} // namespace harbex
