#include "ui/RuleList.h"

#include "ui/ContentState.h"
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
/// Keeps the rows clear of the scroll bar.
constexpr int trailingPadding = 16;
/// How many rows exist above and below those that are seen.
constexpr std::size_t rowsInReserve = 3;

/// A row may be in the middle of handling an event.
void discard(RuleRow* row)
{
    row->hide();
    row->deleteLater();
}

} // namespace

RuleList::RuleList(ContentState& state, QWidget* parent) : QScrollArea(parent), m_state(state)
{
    setFrameShape(QFrame::NoFrame);
    // Tab goes to the rows. Only what can have the focus has a place in its order, and theirs is after the
    // list.
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
    // The rows are deleted later than this part of the object, and lose the focus then.
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
    if (event->type() != QEvent::StyleChange && event->type() != QEvent::FontChange) return;
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
    // When no row is left, Qt has moved the focus on to what comes after the list.
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

/// From the top of a row to the top of the next.
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

/// Gives the content the size of all rows, those that do not exist included.
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
    // Between a change of the state and the signal that tells of it.
    if (m_rows.size() != rules().size()) return;

    const auto pitch = static_cast<std::size_t>(rowPitch());
    const auto top = static_cast<std::size_t>(verticalScrollBar()->value());
    const auto firstSeen = top / pitch;
    const auto lastSeen = (top + static_cast<std::size_t>(viewport()->height())) / pitch;
    const auto focused = focusedRow();
    const auto isWanted = [&](std::size_t index) {
        const bool isEnd = index == 0 || index + 1 == m_rows.size();
        const bool isSeen = index + rowsInReserve >= firstSeen && index <= lastSeen + rowsInReserve;
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

    // Rows are made in the order in which they come into view; the keyboard and screen readers go from top to
    // bottom.
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
    // A click must find what it was aimed at where it was.
    const bool isClick = QGuiApplication::mouseButtons() != Qt::NoButton;
    if (!isClick && focus && widget()->isAncestorOf(focus)) ensureWidgetVisible(focus);
}

std::optional<std::size_t> RuleList::focusedRow() const
{
    // What has the focus while the window is the active one.
    const QWidget* focus = window()->focusWidget();
    for (std::size_t i = 0; i < m_rows.size(); ++i)
        if (m_rows[i] && m_rows[i]->isAncestorOf(focus)) return i;
    return std::nullopt;
}

} // namespace harbex
