#include "ui/RuleList.h"

#include "ui/ContentState.h"
#include "ui/Metrics.h"
#include "ui/RuleRow.h"

#include <QApplication>
#include <QEvent>
#include <QScrollBar>
#include <QStyle>

#include <algorithm>
#include <iterator>
#include <utility>

namespace harbex
{

namespace
{

constexpr int rowSpacing = 12;
/// Space between the rows and the scroll bar.
constexpr int trailingPadding = 16;
/// Number of rows that exist above and below the visible ones.
constexpr std::size_t extraRows = 3;

/// Deletes the row later, because it may be handling an event.
void discard(RuleRow* row)
{
    row->hide();
    row->deleteLater();
}

} // namespace

RuleList::RuleList(ContentState& state, QWidget* parent) : QScrollArea(parent), m_state(state)
{
    setFrameShape(QFrame::NoFrame);
    // Tab goes to the rows, not to the list. The list still needs a focus policy, because setTabOrder() puts
    // the rows after it.
    setFocusPolicy(Qt::ClickFocus);
    setWidget(new QWidget);
    measureRow();

    connect(&m_state, &ContentState::foldersChanged, this, &RuleList::showRules);
    connect(&m_state, &ContentState::selectionChanged, this, &RuleList::showOtherFolder);
    connect(&m_state, &ContentState::rulesChanged, this, &RuleList::showAddedOrDeleted);
    connect(&m_state, &ContentState::ruleChanged, this, &RuleList::showRule);
    connect(qApp, &QApplication::focusChanged, this, &RuleList::followFocus);
    showRules();
}

RuleList::~RuleList()
{
    // The base class deletes the rows, which changes the focus. followFocus() must not run then.
    disconnect(qApp, nullptr, this, nullptr);
}

void RuleList::scrollToEnd()
{
    verticalScrollBar()->setValue(verticalScrollBar()->maximum());
}

QSize RuleList::minimumSizeHint() const
{
    const int bar = style()->pixelMetric(QStyle::PM_ScrollBarExtent, nullptr, this);
    return {m_rowSize.width() + trailingPadding + bar, m_rowSize.height()};
}

void RuleList::resizeEvent(QResizeEvent* event)
{
    QScrollArea::resizeEvent(event);
    layOut();
}

void RuleList::scrollContentsBy(int dx, int dy)
{
    QScrollArea::scrollContentsBy(dx, dy);
    buildWanted();
}

void RuleList::changeEvent(QEvent* event)
{
    QScrollArea::changeEvent(event);
    if (!changesMetrics(*event)) return;
    measureRow();
    layOut();
}

void RuleList::showOtherFolder()
{
    verticalScrollBar()->setValue(0);
    showRules();
}

void RuleList::showRules()
{
    std::vector<RuleRow*> former = std::exchange(m_rows, {});
    std::erase(former, nullptr);
    for (const FilterRule& rule : rules()) {
        const auto row = std::ranges::find(former, rule.id, &RuleRow::ruleID);
        m_rows.push_back(row == former.end() ? nullptr : *row);
        if (row == former.end()) continue;
        former.erase(row);
        m_rows.back()->showRule(rule);
    }
    layOut();
    std::ranges::for_each(former, discard);
}

void RuleList::showAddedOrDeleted()
{
    const auto focused = focusedRow();
    const RuleRow* row = focused ? m_rows[*focused] : nullptr;
    showRules();
    // If no row is left, Qt has already moved the focus past the list.
    if (!focused || m_rows.empty() || std::ranges::find(m_rows, row) != m_rows.end()) return;
    const std::size_t index = std::min(*focused, m_rows.size() - 1);
    build(index)->focusDeleteButton();
}

void RuleList::showRule(const QUuid& ruleID)
{
    for (std::size_t i = 0; i < m_rows.size(); ++i)
        if (m_rows[i] && m_rows[i]->ruleID() == ruleID) m_rows[i]->showRule(rules()[i]);
}

const std::vector<FilterRule>& RuleList::rules() const
{
    static const std::vector<FilterRule> none;
    const WatchedFolder* folder = m_state.selectedFolder();
    return folder ? folder->rules : none;
}

void RuleList::measureRow()
{
    const RuleRow row(m_state, FilterRule(), this);
    m_rowSize = {row.minimumSizeHint().width(), row.sizeHint().height()};
}

/// Returns the distance between the tops of two adjacent rows.
int RuleList::rowPitch() const
{
    return m_rowSize.height() + rowSpacing;
}

QRect RuleList::placeOf(std::size_t index) const
{
    const QRect place(0, static_cast<int>(index) * rowPitch(), widget()->width() - trailingPadding,
                      m_rowSize.height());
    return QStyle::visualRect(layoutDirection(), widget()->rect(), place);
}

/// Sizes the content for all rows, including those that do not exist.
void RuleList::layOut()
{
    const int width = std::max(viewport()->width(), m_rowSize.width() + trailingPadding);
    const int count = static_cast<int>(m_rows.size());
    widget()->resize(width, std::max(0, count * rowPitch() - rowSpacing));
    for (std::size_t i = 0; i < m_rows.size(); ++i)
        if (m_rows[i]) m_rows[i]->setGeometry(placeOf(i));
    buildWanted();
}

void RuleList::buildWanted()
{
    // The state has changed, and its signal has not arrived yet.
    if (m_rows.size() != rules().size()) return;

    const auto pitch = static_cast<std::size_t>(rowPitch());
    const auto top = static_cast<std::size_t>(verticalScrollBar()->value());
    const auto firstSeen = top / pitch;
    const auto lastSeen = (top + static_cast<std::size_t>(viewport()->height())) / pitch;
    const auto focused = focusedRow();
    const auto isWanted = [&](std::size_t index) {
        const bool isEnd = index == 0 || index + 1 == m_rows.size();
        const bool isSeen = index + extraRows >= firstSeen && index <= lastSeen + extraRows;
        const bool isNearFocus = focused && index + 1 >= *focused && index <= *focused + 1;
        return isEnd || isSeen || isNearFocus;
    };

    for (std::size_t i = 0; i < m_rows.size(); ++i) {
        if (isWanted(i))
            build(i);
        else if (m_rows[i])
            discard(std::exchange(m_rows[i], nullptr));
    }
}

RuleRow* RuleList::build(std::size_t index)
{
    RuleRow*& row = m_rows[index];
    if (row) return row;
    row = new RuleRow(m_state, rules()[index], widget());
    row->setGeometry(placeOf(index));
    row->show();

    // Rows are created in any order. Keyboard and screen readers go from top to bottom.
    const auto isThere = [](const RuleRow* each) { return each != nullptr; };
    const auto place = m_rows.begin() + static_cast<std::ptrdiff_t>(index);
    const auto below = std::find_if(place + 1, m_rows.end(), isThere);
    if (below != m_rows.end()) row->stackUnder(*below);
    const auto above = std::find_if(std::make_reverse_iterator(place), m_rows.rend(), isThere);
    QWidget* previous = above == m_rows.rend() ? this : (*above)->controls().last();
    const QList<QWidget*> controls = row->controls();
    for (QWidget* control : controls) {
        setTabOrder(previous, control);
        previous = control;
    }
    return row;
}

void RuleList::followFocus(QWidget* /*former*/, QWidget* focus)
{
    buildWanted();
    // Scrolling during a click would move the control away from the pointer.
    const bool isClick = QGuiApplication::mouseButtons() != Qt::NoButton;
    if (!isClick && focus && widget()->isAncestorOf(focus)) ensureWidgetVisible(focus);
}

std::optional<std::size_t> RuleList::focusedRow() const
{
    // Unlike QApplication::focusWidget(), this is also set while the window is inactive.
    const QWidget* focus = window()->focusWidget();
    for (std::size_t i = 0; i < m_rows.size(); ++i)
        if (m_rows[i] && m_rows[i]->isAncestorOf(focus)) return i;
    return std::nullopt;
}

} // namespace harbex
