#pragma once

#include <QListWidget>

namespace harbex
{

class ContentState;

/// The watched folders by name, in their order; the selected row is the selected folder. Main thread only;
/// `state` must live longer.
class FolderList : public QListWidget
{
    Q_OBJECT

public:
    explicit FolderList(ContentState& state, QWidget* parent = nullptr);

protected:
    void mousePressEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void contextMenuEvent(QContextMenuEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;

private:
    void showFolders();
    void showSelection();
    void select();
    void openMenu(const QListWidgetItem& row, const QPoint& position);

    ContentState& m_state;
    /// The rows are being changed by code, so what Qt selects meanwhile is nobody's choice.
    bool m_isShowing = false;
};

} // namespace harbex
