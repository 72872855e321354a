#pragma once

#include <QByteArray>
#include <QMainWindow>
#include <QString>

namespace harbex
{

class ContentState;
class ContentView;

/// The only main window. Opening it calls ContentState::appear(), closing it ContentState::disappear().
/// Minimising, switching the desktop, locking the screen and quitting call neither. The size of the window
/// and the widths of its columns are kept until the process ends. Main thread only. `state` must live longer.
class MainWindow : public QMainWindow
{
    Q_OBJECT

public:
    explicit MainWindow(ContentState& state);

    /// Opens the window, or brings an open one to the front, on X11 also from another virtual desktop.
    /// Wayland needs the token to allow this. On X11 the token is the startup id, whose startup notification
    /// is ended. The token may be empty.
    void open(const QString& activationToken = {});

    /// On X11, leaves the window out of taskbars and pagers, or shows it there (the default). Lasts for all
    /// openings.
    void setLeftOutOfTaskbar(bool isLeftOut);

protected:
    void changeEvent(QEvent* event) override;
    void closeEvent(QCloseEvent* event) override;
    void showEvent(QShowEvent* event) override;

private:
    void makeContent();

    /// Releases the content, the native window and idle memory, because the window may stay closed for weeks.
    void releaseContent();

    ContentState& m_state;
    bool m_isOpen = false;
    /// Null while the content is released.
    ContentView* m_content = nullptr;
    /// Empty before the first closing.
    QByteArray m_columnWidths;
    bool m_isLeftOutOfTaskbar = false;
};

} // namespace harbex
