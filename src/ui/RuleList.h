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

/// The rules of the selected folder, one row each, in the order in which they are tried. Main thread only;
/// `state` must live longer.
///
/// A row exists while it can be seen, or nearly. Some exist all the time: the first and the last one, through
/// which the focus comes in, and the one that has the focus with its neighbours. A row belongs to the id of
/// its rule and keeps its focus, cursor and selection when rules before it come or go.
class RuleList : public QScrollArea
{
    Q_OBJECT

public:
    explicit RuleList(ContentState& state, QWidget* parent = nullptr);
    ~RuleList() override;

    /// Brings the last rule into view.
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
    /// One place for each rule; null where its row does not exist.
    std::vector<RuleRow*> m_rows;
    /// The least width of a row, and its height.
    QSize m_rowSize;
};

} // namespace harbex
