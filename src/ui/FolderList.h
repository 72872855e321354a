#pragma once

#include <QListWidget>

namespace harbex
{

class ContentState;

/// Lists the watched folders by name, in their order. The selected row is the selected folder. The whole path
/// is a row's tooltip and its accessible description. Main thread only. `state` must live longer.
class FolderList : public QListWidget
{
    Q_OBJECT

public:
    explicit FolderList(ContentState& state, QWidget* parent = nullptr);

protected:
    void changeEvent(QEvent* event) override;
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
    /// True while code changes the rows. Selection changes are then not made by the user.
    bool m_isUpdating = false;
};

} // namespace harbex
