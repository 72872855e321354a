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

/// Edits one rule in one line. Changes go to the ContentState at once; the row keeps no copy of the rule. The
/// engine gets a typed value only after Return or another change, see ContentState::setValue(). Main
/// thread only. `state` must live longer.
class RuleRow : public QWidget
{
    Q_OBJECT

public:
    RuleRow(ContentState& state, const FilterRule& rule, QWidget* parent = nullptr);

    [[nodiscard]] const QUuid& ruleID() const { return m_ruleID; }

    /// Shows `rule` without changing the state. The value field keeps cursor and selection if its text is
    /// unchanged.
    void showRule(const FilterRule& rule);

    /// Returns the controls that take the focus, from left to right.
    [[nodiscard]] QList<QWidget*> controls() const;

    void focusDeleteButton();

protected:
    void changeEvent(QEvent* event) override;

private:
    void followFont();
    void followPalette();

    const QUuid m_ruleID;
    Picker* m_field;
    Picker* m_operator;
    QLineEdit* m_value;
    Picker* m_kind;
    DirectorySelector* m_destination;
    FlatButton* m_delete;
};

} // namespace harbex
