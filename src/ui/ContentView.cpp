#include "ui/ContentView.h"

#include "ui/ContentState.h"
#include "ui/FlatButton.h"
#include "ui/FolderDialog.h"
#include "ui/FolderList.h"
#include "ui/HeadingLabel.h"
#include "ui/Icons.h"
#include "ui/RuleList.h"

#include <QEvent>
#include <QHBoxLayout>
#include <QPointer>
#include <QPushButton>
#include <QSplitter>
#include <QStackedWidget>
#include <QStyle>
#include <QToolBar>
#include <QVBoxLayout>

namespace harbex
{

ContentView::ContentView(ContentState& state, QWidget* parent) : QWidget(parent), m_state(state)
{
    auto* columns = new QSplitter(this);
    columns->setMinimumSize(700, 400);
    columns->setChildrenCollapsible(false);
    columns->setHandleWidth(1);
    columns->addWidget(sidebar());
    columns->addWidget(detailView());
    columns->setStretchFactor(1, 1);
    columns->setSizes({220, 780});
    // Draws the handle as a line.
    columns->handle(1)->setBackgroundRole(QPalette::Mid);
    columns->handle(1)->setAutoFillBackground(true);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins({});
    layout->addWidget(columns);
    setMinimumSize(1000, 400);

    connect(&m_state, &ContentState::foldersChanged, this, &ContentView::showDetail);
    connect(&m_state, &ContentState::selectionChanged, this, &ContentView::showDetail);
    showDetail();
}

void ContentView::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    if (window()->focusWidget()) return;
    if (m_folderList->count() > 0)
        m_folderList->setFocus();
    else
        m_addFolder->setFocus();
}

void ContentView::changeEvent(QEvent* event)
{
    QWidget::changeEvent(event);
    if (event->type() == QEvent::PaletteChange) dimEmptyText();
}

QWidget* ContentView::sidebar()
{
    auto* sidebar = new QWidget(this);
    sidebar->setMinimumWidth(200);
    sidebar->setBackgroundRole(QPalette::AlternateBase);
    sidebar->setAutoFillBackground(true);

    // A button that QToolBar creates itself takes no keyboard focus.
    m_addFolder = new FlatButton(sidebar);
    m_addFolder->setText(tr("Add Folder"));
    m_addFolder->setIcon(symbolIcon(Symbol::plus));
    m_addFolder->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    // Queued, because assistive technology waits until the press is handled.
    connect(m_addFolder, &FlatButton::clicked, this, &ContentView::addFolder, Qt::QueuedConnection);
    auto* toolBar = new QToolBar(sidebar);
    toolBar->setMovable(false);
    const int iconSize = style()->pixelMetric(QStyle::PM_SmallIconSize);
    toolBar->setIconSize({iconSize, iconSize});
    toolBar->addWidget(m_addFolder);

    auto* top = new QHBoxLayout;
    top->setContentsMargins(4, 4, 0, 4);
    top->addWidget(new HeadingLabel(tr("Folders"), 1.0, sidebar));
    top->addStretch();
    top->addWidget(toolBar);

    m_folderList = new FolderList(m_state, sidebar);

    auto* layout = new QVBoxLayout(sidebar);
    layout->setContentsMargins(5, 0, 5, 5);
    layout->setSpacing(0);
    layout->addLayout(top);
    layout->addWidget(m_folderList);
    return sidebar;
}

QWidget* ContentView::detailView()
{
    m_emptyText = new QLabel(tr("Select a folder from the sidebar"), this);
    m_emptyText->setAlignment(Qt::AlignCenter);
    dimEmptyText();
    m_ruleView = ruleView();

    m_detail = new QStackedWidget(this);
    m_detail->addWidget(m_emptyText);
    m_detail->addWidget(m_ruleView);
    return m_detail;
}

QWidget* ContentView::ruleView()
{
    auto* view = new QWidget(this);
    m_ruleList = new RuleList(m_state, view);
    auto* addRuleButton = new QPushButton(tr("Add Rule"), view);
    connect(addRuleButton, &QPushButton::clicked, this, &ContentView::addRule);
    auto* divider = new QFrame(view);
    divider->setFrameStyle(QFrame::HLine | QFrame::Sunken);

    auto* layout = new QVBoxLayout(view);
    layout->setSpacing(16);
    layout->addWidget(new HeadingLabel(tr("Rules"), 1.3, view));
    layout->addWidget(m_ruleList, 1);
    layout->addWidget(addRuleButton, 0, Qt::AlignLeading);
    layout->addWidget(divider);
    return view;
}

void ContentView::showDetail()
{
    m_detail->setCurrentWidget(m_state.selectedFolder() ? m_ruleView : m_emptyText);
}

void ContentView::dimEmptyText()
{
    QPalette dimmed = palette();
    QColor ink = dimmed.color(QPalette::WindowText);
    ink.setAlphaF(0.65F);
    dimmed.setColor(QPalette::WindowText, ink);
    if (m_emptyText) m_emptyText->setPalette(dimmed);
}

void ContentView::addFolder()
{
    const QPointer self(this);
    const auto folder = askForFolder(*this);
    if (self && folder) m_state.addFolder(folder->url, folder->bookmarkData);
}

void ContentView::addRule()
{
    m_state.addRule();
    m_ruleList->scrollToEnd();
}

} // namespace harbex
