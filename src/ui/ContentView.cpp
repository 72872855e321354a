#include "ui/ContentView.h"

#include "ui/ContentState.h"
#include "ui/DimmedInk.h"
#include "ui/FlatButton.h"
#include "ui/FolderDialog.h"
#include "ui/FolderList.h"
#include "ui/HeadingLabel.h"
#include "ui/Icons.h"
#include "ui/Metrics.h"
#include "ui/RuleList.h"

#include <QEvent>
#include <QHBoxLayout>
#include <QPointer>
#include <QPushButton>
#include <QSplitter>
#include <QStackedWidget>
#include <QStyle>
#include <QVBoxLayout>

#include <algorithm>

namespace harbex
{

ContentView::ContentView(ContentState& state, QWidget* parent)
    : QWidget(parent), m_state(state), m_columns(new QSplitter(this))
{
    m_columns->setChildrenCollapsible(false);
    m_columns->setHandleWidth(1);
    m_sidebar = sidebar();
    m_columns->addWidget(m_sidebar);
    m_columns->addWidget(detailView());
    m_columns->setStretchFactor(1, 1);
    m_columns->setSizes({scaledToFont(*this, 220), scaledToFont(*this, 780)});
    // Draws the handle as a line.
    m_columns->handle(1)->setBackgroundRole(QPalette::Mid);
    m_columns->handle(1)->setAutoFillBackground(true);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins({});
    layout->addWidget(m_columns);
    followFont();

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
    if (changesMetrics(*event)) followFont();
}

QByteArray ContentView::columnWidths() const
{
    return m_columns->saveState();
}

void ContentView::setColumnWidths(const QByteArray& widths)
{
    m_columns->restoreState(widths);
}

/// Sets the minimum sizes. They hold every text. On a screen that is too small for them the rules scroll
/// sideways.
void ContentView::followFont()
{
    m_addFolder->setIconSize(iconSizeFor(*this));

    constexpr QSize least(1000, 400);
    const QSize room = availableSizeFor(*this).expandedTo(least);
    const auto minimum = [&](int width, int height) {
        return QSize(scaledToFont(*this, width), scaledToFont(*this, height)).boundedTo(room);
    };
    setMinimumSize(minimum(least.width(), least.height()));
    m_columns->setMinimumSize(minimum(700, 400));
    const int sidebarWidth = std::max(scaledToFont(*this, 200), m_sidebar->layout()->minimumSize().width());
    m_sidebar->setMinimumWidth(sidebarWidth);
    const QMargins margins = m_ruleView->layout()->contentsMargins();
    const int rest =
        room.width() - sidebarWidth - m_columns->handleWidth() - margins.left() - margins.right();
    m_ruleList->setMinimumWidth(std::min(m_ruleList->minimumSizeHint().width(), rest));
}

QWidget* ContentView::sidebar()
{
    auto* sidebar = new QWidget(this);
    sidebar->setBackgroundRole(QPalette::AlternateBase);
    sidebar->setAutoFillBackground(true);

    m_addFolder = new FlatButton(sidebar);
    m_addFolder->setObjectName(QStringLiteral("addFolder"));
    //: Button: adds a folder to those that Harbex watches.
    m_addFolder->setText(tr("Add Folder"));
    m_addFolder->setIcon(symbolIcon(Symbol::plus));
    // Set before the splitter measures the sidebar, because layouts ignore changes of hidden widgets.
    m_addFolder->setIconSize(iconSizeFor(*this));
    m_addFolder->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    // Queued, because assistive technology waits until the press is handled.
    connect(m_addFolder, &FlatButton::clicked, this, &ContentView::addFolder, Qt::QueuedConnection);

    auto* top = new QHBoxLayout;
    top->setContentsMargins(4, 4, 0, 4);
    //: Heading of the list of the folders that Harbex watches.
    top->addWidget(new HeadingLabel(tr("Folders"), 1.0, sidebar));
    top->addStretch();
    top->addWidget(m_addFolder);

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
    //: In place of the rules while no folder is selected.
    m_emptyText = new QLabel(tr("Select a folder from the sidebar"), this);
    m_emptyText->setAlignment(Qt::AlignCenter);
    m_emptyText->setWordWrap(true);
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
    //: Button: adds a rule to the selected folder.
    auto* addRuleButton = new QPushButton(tr("Add Rule"), view);
    connect(addRuleButton, &QPushButton::clicked, this, &ContentView::addRule);
    auto* divider = new QFrame(view);
    divider->setFrameStyle(QFrame::HLine | QFrame::Sunken);

    auto* layout = new QVBoxLayout(view);
    layout->setSpacing(16);
    //: Heading of the list of the rules of a folder.
    layout->addWidget(new HeadingLabel(tr("Rules"), 1.3, view), 0, Qt::AlignLeading);
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
    QPalette dimmed;
    dimmed.setColor(QPalette::WindowText, dimmedInk(palette(), QPalette::WindowText, QPalette::Window));
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
