#pragma once

#include <QWidget>

class QListWidget;

namespace harbex
{

class ContentState;

/// The content of the main window: the names of the watched folders. Main thread only; `state` must live longer.
class ContentView : public QWidget
{
    Q_OBJECT

public:
    explicit ContentView(ContentState& state, QWidget* parent = nullptr);

private:
    void showFolders();

    ContentState& m_state;
    QListWidget* m_sidebar;
};

} // namespace harbex
