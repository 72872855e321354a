#pragma once

#include "model/FilterRule.h"

#include <QScrollArea>

#include <cstddef>
#include <optional>
#include <vector>

namespace harbex
{

class ContentState;
class RuleRow;

/// Lists the rules of the selected folder, one row each, in the order in which they are tried. Main thread
/// only. `state` must live longer.
///
/// A row exists only while it is visible or near the visible ones. The first and the last row always exist,
/// because the focus enters through them. The focused row and its neighbours always exist too. A row stays
/// with its rule, by id: it keeps focus, cursor and selection when rules before it are added or deleted.
class RuleList : public QScrollArea
{
    Q_OBJECT

public:
    explicit RuleList(ContentState& state, QWidget* parent = nullptr);
    ~RuleList() override;

    /// Scrolls to the last rule.
    void scrollToEnd();

    [[nodiscard]] QSize minimumSizeHint() const override;

protected:
    void resizeEvent(QResizeEvent* event) override;
    void scrollContentsBy(int dx, int dy) override;
    void changeEvent(QEvent* event) override;

private:
    void showOtherFolder();
    void showRules();
    void showAddedOrDeleted();
    void showRule(const QUuid& ruleID);
    [[nodiscard]] const std::vector<FilterRule>& rules() const;

    void measureRow();
    [[nodiscard]] int rowPitch() const;
    [[nodiscard]] QRect placeOf(std::size_t index) const;
    void layOut();
    void buildWanted();
    RuleRow* build(std::size_t index);
    void followFocus(QWidget* former, QWidget* focus);
    [[nodiscard]] std::optional<std::size_t> focusedRow() const;

    ContentState& m_state;
    /// One element per rule; null if its row does not exist.
    std::vector<RuleRow*> m_rows;
    /// The minimum width of a row, and its height.
    QSize m_rowSize;
};

} // namespace harbex
