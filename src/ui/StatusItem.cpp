#include "ui/StatusItem.h"

namespace harbex
{

StatusItem::StatusItem(QObject* parent) : QObject(parent)
{
    connect(m_menu.addAction(tr("Open Harbex")), &QAction::triggered, this, &StatusItem::openRequested);
    m_menu.addSeparator();
    connect(m_menu.addAction(tr("Quit")), &QAction::triggered, this, &StatusItem::quitRequested);

    m_icon.setIcon(QIcon::fromTheme(QStringLiteral("folder")));
    m_icon.setToolTip(tr("Harbex"));
    m_icon.setContextMenu(&m_menu);
    m_icon.show();
}

} // namespace harbex
