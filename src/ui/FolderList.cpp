#include "ui/FolderList.h"

#include "base/ReadableText.h"
#include "ui/ContentState.h"
#include "ui/FocusRing.h"
#include "ui/Icons.h"
#include "ui/Metrics.h"
#include "ui/PathText.h"

#include <QContextMenuEvent>
#include <QKeyEvent>
#include <QMenu>
#include <QMouseEvent>
#include <QPersistentModelIndex>
#include <QScopedValueRollback>
#include <QStyle>
#include <QStyledItemDelegate>

#include <algorithm>

namespace harbex
{

namespace
{

constexpr int idRole = Qt::UserRole;
/// True while the row's menu is open.
constexpr int menuRole = Qt::UserRole + 1;

/// Makes rows as high as the style's list icons. Draws a ring around the row with the focus and around the
/// row whose menu is open.
class RowDelegate : public QStyledItemDelegate
{
public:
    using QStyledItemDelegate::QStyledItemDelegate;

    [[nodiscard]] QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override
    {
        const QWidget* list = option.widget;
        const int height = list->style()->pixelMetric(QStyle::PM_ListViewIconSize, &option, list) + 2;
        return QStyledItemDelegate::sizeHint(option, index).expandedTo({0, height});
    }

    void paint(QPainter* painter, const QStyleOptionViewItem& option, const QModelIndex& index) const override
    {
        QStyleOptionViewItem unfocused = option;
        unfocused.state.setFlag(QStyle::State_HasFocus, false);
        QStyledItemDelegate::paint(painter, unfocused, index);
        const bool isSelected = option.state.testFlag(QStyle::State_Selected);
        const auto ink = isSelected ? QPalette::HighlightedText : QPalette::Highlight;
        if (index.data(menuRole).toBool())
            drawRing(*painter, option.rect, option.widget->palette().color(ink));
        else if (option.state.testFlag(QStyle::State_HasFocus))
            drawFocusRing(*painter, *option.widget, option.rect, ink);
    }

protected:
    // The style draws text in the colours of the window's state. Icons do not know that state.
    void initStyleOption(QStyleOptionViewItem* option, const QModelIndex& index) const override
    {
        QStyledItemDelegate::initStyleOption(option, index);
        if (!option->state.testFlag(QStyle::State_Active))
            option->icon = symbolIcon(Symbol::folder, QPalette::WindowText, QPalette::Inactive);
    }
};

QUuid idOf(const QListWidgetItem& row)
{
    return row.data(idRole).toUuid();
}

} // namespace

FolderList::FolderList(ContentState& state, QWidget* parent) : QListWidget(parent), m_state(state)
{
    //: Read by screen readers: the list of the folders that Harbex watches.
    setAccessibleName(tr("Folders"));
    setFrameShape(QFrame::NoFrame);
    setSelectionMode(SingleSelection);
    setEditTriggers(NoEditTriggers);
    setDragDropMode(NoDragDrop);
    setUniformItemSizes(true);
    setIconSize(iconSizeFor(*this));
    setItemDelegate(new RowDelegate(this));
    setTextElideMode(Qt::ElideMiddle);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    viewport()->setBackgroundRole(QPalette::AlternateBase);

    connect(this, &FolderList::itemSelectionChanged, this, &FolderList::select);
    connect(&m_state, &ContentState::foldersChanged, this, &FolderList::showFolders);
    connect(&m_state, &ContentState::selectionChanged, this, &FolderList::showSelection);
    showFolders();
}

void FolderList::changeEvent(QEvent* event)
{
    QListWidget::changeEvent(event);
    if (changesMetrics(*event)) setIconSize(iconSizeFor(*this));
}

// Ignores the other buttons, which would select the row.
void FolderList::mousePressEvent(QMouseEvent* event)
{
    if (event->button() != Qt::LeftButton) return;
    // From Qt 6.8 on, QListWidget does not do this itself.
    if (!itemAt(event->position().toPoint())) clearSelection();
    QListWidget::mousePressEvent(event);
}

void FolderList::mouseReleaseEvent(QMouseEvent* event)
{
    if (event->button() == Qt::LeftButton) QListWidget::mouseReleaseEvent(event);
}

void FolderList::contextMenuEvent(QContextMenuEvent* event)
{
    // keyPressEvent() handles the menu key.
    if (event->reason() == QContextMenuEvent::Keyboard) return;
    if (const QListWidgetItem* row = itemAt(event->pos())) openMenu(*row, event->globalPos());
}

void FolderList::keyPressEvent(QKeyEvent* event)
{
    // Not every platform sends a context menu event for these keys.
    const bool asksForMenu = event->key() == Qt::Key_Menu ||
                             (event->key() == Qt::Key_F10 && event->modifiers() == Qt::ShiftModifier);
    if (!asksForMenu) {
        QListWidget::keyPressEvent(event);
        return;
    }
    const QListWidgetItem* row = currentItem();
    if (!row) return;
    scrollToItem(row);
    openMenu(*row, viewport()->mapToGlobal(visualItemRect(row).center()));
}

/// Updates the rows from the folders. Keeps the rows before and after the change, and with them the scroll
/// position.
void FolderList::showFolders()
{
    const QScopedValueRollback guard(m_isUpdating, true);
    const std::vector<WatchedFolder>& folders = m_state.folders();
    const int before = count();
    const int after = static_cast<int>(folders.size());
    const auto isSame = [&](int row, int index) {
        return idOf(*item(row)) == folders[static_cast<std::size_t>(index)].id;
    };
    int front = 0;
    while (front < std::min(before, after) && isSame(front, front))
        ++front;
    int back = 0;
    while (back < std::min(before, after) - front && isSame(before - 1 - back, after - 1 - back))
        ++back;

    for (int row = before - back; row-- > front;)
        delete takeItem(row);
    for (int row = front; row < after - back; ++row) {
        auto* added = new QListWidgetItem(symbolIcon(Symbol::folder), {});
        added->setData(idRole, folders[static_cast<std::size_t>(row)].id);
        insertItem(row, added);
    }
    for (int row = 0; row < after; ++row) {
        const WatchedFolder& folder = folders[static_cast<std::size_t>(row)];
        const FileUrl url = shownUrl(folder.url, folder.bookmarkData);
        item(row)->setText(readableName(url.lastPathComponent()));
        item(row)->setToolTip(pathToolTip(url));
        item(row)->setData(Qt::AccessibleDescriptionRole, fullPath(url));
    }
    showSelection();

    // The focus is invisible and useless in an empty list.
    if (after == 0 && hasFocus()) focusNextPrevChild(false);
    setFocusPolicy(after == 0 ? Qt::NoFocus : Qt::StrongFocus);
}

void FolderList::showSelection()
{
    const QScopedValueRollback guard(m_isUpdating, true);
    const auto id = m_state.selectedFolderID();
    const auto isSelected = [&id](const QListWidgetItem* row) { return id && idOf(*row) == *id; };
    if (std::ranges::any_of(selectedItems(), isSelected)) return;

    const auto& folders = m_state.folders();
    const auto folder = std::ranges::find_if(folders, [&id](const auto& each) { return id == each.id; });
    if (folder == folders.end()) {
        clearSelection();
        // The focus frame of the current row looks like a selection.
        setCurrentItem(nullptr);
    } else {
        setCurrentRow(static_cast<int>(folder - folders.begin()), QItemSelectionModel::ClearAndSelect);
    }
}

void FolderList::select()
{
    if (m_isUpdating) return;
    const QList<QListWidgetItem*> rows = selectedItems();
    m_state.select(rows.isEmpty() ? std::nullopt : std::optional(idOf(*rows.first())));
}

void FolderList::openMenu(const QListWidgetItem& row, const QPoint& position)
{
    auto* menu = new QMenu(this);
    menu->setAttribute(Qt::WA_DeleteOnClose);
    const auto mark = [this, index = QPersistentModelIndex(indexFromItem(&row))](bool isOpen) {
        model()->setData(index, isOpen, menuRole);
    };
    mark(true);
    connect(menu, &QMenu::aboutToHide, this, [mark] { mark(false); });
    const QIcon trash = symbolIcon(Symbol::trash, QPalette::HighlightedText);
    //: Menu entry: Harbex no longer watches the folder. The folder itself stays on the disk.
    QAction* deleteAction = menu->addAction(trash, tr("Delete"));
    deleteAction->setIconVisibleInMenu(true);
    connect(deleteAction, &QAction::triggered, &m_state,
            [this, id = idOf(row)] { m_state.deleteFolder(id); });
    menu->popup(position);
}

} // namespace harbex
