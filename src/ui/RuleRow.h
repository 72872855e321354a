#pragma once

#include "model/FilterRule.h"

#include <QList>
#include <QUuid>
#include <QWidget>

class QLineEdit;

namespace harbex
{

class ContentState;
class DirectorySelector;
class FlatButton;
class Picker;

/// One line in which a rule is edited. What the user changes goes to the state at once; there is no other
/// copy of the rule. Main thread only; `state` must live longer.
class RuleRow : public QWidget
{
    Q_OBJECT

public:
    RuleRow(ContentState& state, const FilterRule& rule, QWidget* parent = nullptr);

    [[nodiscard]] const QUuid& ruleID() const { return m_ruleID; }

    /// Shows the rule as it is now, without a change to the state. A value that is shown already keeps its
    /// cursor and its selection.
    void showRule(const FilterRule& rule);

    /// The controls that take the focus, from left to right.
    [[nodiscard]] QList<QWidget*> controls() const;

    void focusDeleteButton();

private:
    const QUuid m_ruleID;
    Picker* m_field;
    Picker* m_operator;
    QLineEdit* m_value;
    Picker* m_kind;
    DirectorySelector* m_destination;
    FlatButton* m_delete;
};

} // namespace harbex
